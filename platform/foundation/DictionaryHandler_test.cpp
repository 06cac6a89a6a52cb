#include "platform/foundation/DictionaryHandler.h"

#include <gtest/gtest.h>

namespace {

using Handler = std::function<void(NSDictionary)>;

// What a handler of the test was called with.
class DictionaryHandler : public ::testing::Test {
 protected:
  Handler recording() {
    return [this](NSDictionary dictionary) {
      ++calls;
      got = std::move(dictionary);
    };
  }

  int calls = 0;
  NSDictionary got{{"nothing", "yet"}};
};

struct Notes {
  NSDictionary* last;
  void operator()(const NSDictionary& dictionary) const { *last = dictionary; }
  void note(const NSDictionary& dictionary) { *last = dictionary; }
};

void ignore(const NSDictionary&) {}

}  // namespace

TEST_F(DictionaryHandler, EmptyBracesAreAnEmptyDictionary) {
  recording()({});
  EXPECT_FALSE(got.isNil());
  EXPECT_EQ(got, NSDictionary::dictionary());
}

TEST_F(DictionaryHandler, NilInEveryFormIsNil) {
  const Handler handler = recording();
  const NSDictionary none;
  handler(nil);
  EXPECT_TRUE(got.isNil());
  got = NSDictionary::dictionary();
  handler(none);
  EXPECT_TRUE(got.isNil());
  got = NSDictionary::dictionary();
  handler(NSDictionary());
  EXPECT_TRUE(got.isNil());
  got = NSDictionary::dictionary();
  handler({nil});
  EXPECT_TRUE(got.isNil());
  EXPECT_EQ(calls, 4);
}

TEST_F(DictionaryHandler, EntriesAndEverythingThatBecomesADictionaryAreHandedOver) {
  const Handler handler = recording();
  handler({{"a", 1}, {"b", NSDictionary{{"c", 2}}}});
  EXPECT_EQ(got, (NSDictionary{{"a", 1}, {"b", NSDictionary{{"c", 2}}}}));
  handler(std::map<std::string, int>{{"m", 3}});
  EXPECT_EQ(got, (NSDictionary{{"m", 3}}));
  const NSDictionary variable{{"v", 4}};
  handler(variable);
  EXPECT_TRUE(got.isIdenticalTo(variable));
  handler({variable});
  EXPECT_TRUE(got.isIdenticalTo(variable));
  handler({{}});
  EXPECT_EQ(got, NSDictionary::dictionary());
  handler(NSMutableDictionary::dictionary());
  EXPECT_TRUE(got.is<NSMutableDictionary>());
}

TEST_F(DictionaryHandler, IsEmptyWhenItIsMadeOfNothing) {
  const std::function<void(const NSDictionary&)> emptyFunction;
  void (*const noFunction)(const NSDictionary&) = nullptr;
  for (const Handler& none :
       {Handler(), Handler(nullptr), Handler({}), Handler(emptyFunction), Handler(noFunction), Handler(Handler())}) {
    EXPECT_FALSE(none);
    EXPECT_TRUE(none == nullptr);
    EXPECT_EQ(none.target_type(), typeid(void));
    EXPECT_THROW(none({{"a", 1}}), std::bad_function_call);
    EXPECT_THROW(none({}), std::bad_function_call);
  }
}

TEST_F(DictionaryHandler, TakesAndGivesEveryCallableOfADictionary) {
  NSDictionary last;
  Notes notes{&last};
  Handler handler = notes;
  handler({{"object", 1}});
  EXPECT_EQ(last, (NSDictionary{{"object", 1}}));
  handler = std::ref(notes);
  handler({{"reference", 1}});
  EXPECT_EQ(last, (NSDictionary{{"reference", 1}}));
  handler = std::bind_front(&Notes::note, &notes);
  handler({{"member", 1}});
  EXPECT_EQ(last, (NSDictionary{{"member", 1}}));
  handler = recording();
  const std::function<void(const NSDictionary&)> other = handler;
  other({{"other", 1}});
  EXPECT_EQ(got, (NSDictionary{{"other", 1}}));
  const std::function<void()> bound = [handler] { handler({}); };
  bound();
  EXPECT_EQ(got, NSDictionary::dictionary());
  handler = nullptr;
  EXPECT_FALSE(handler);
  EXPECT_FALSE(std::function<void(const NSDictionary&)>(handler)) << "an empty one makes an empty one";
}

TEST_F(DictionaryHandler, IsCopiedMovedAndSwapped) {
  const auto held = std::make_shared<int>(0);
  Handler first = [held](const NSDictionary&) { ++*held; };
  Handler second = first;
  EXPECT_EQ(held.use_count(), 3);
  Handler third = std::move(first);
  EXPECT_EQ(held.use_count(), 3);
  second = nullptr;
  std::swap(second, third);
  EXPECT_TRUE(second);
  EXPECT_FALSE(third);
  second({});
  EXPECT_EQ(*held, 1);
}

TEST_F(DictionaryHandler, KnowsItsTarget) {
  Handler handler = &ignore;
  ASSERT_NE(handler.target<void (*)(const NSDictionary&)>(), nullptr);
  EXPECT_EQ(*handler.target<void (*)(const NSDictionary&)>(), &ignore);
  EXPECT_EQ(std::as_const(handler).target<Notes>(), nullptr);
  EXPECT_EQ(handler.target_type(), typeid(void (*)(const NSDictionary&)));
}

TEST_F(DictionaryHandler, ConvertsFromNothingElse) {
  EXPECT_FALSE((std::is_convertible_v<void (*)(NSArray), Handler>));
  EXPECT_FALSE((std::is_convertible_v<void (*)(NSDictionary&), Handler>));
  EXPECT_FALSE((std::is_convertible_v<int, Handler>));
  EXPECT_TRUE((std::is_convertible_v<void (*)(NSObject), Handler>));
  EXPECT_TRUE((std::is_nothrow_default_constructible_v<Handler>));
}
