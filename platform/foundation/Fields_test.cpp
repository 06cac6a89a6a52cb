#include "platform/foundation/Fields.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "platform/foundation/Foundation.h"

namespace shapes {

struct Size {
  int width = 0;
  int height = 0;
};
VELTO_FIELDS(Size, width, height)

template <class T>
struct Page {
  std::vector<T> items;
  int next = 0;
};
template <class T>
VELTO_FIELDS(Page<T>, items, next);

struct Outer {
  enum class Kind { plain, fancy };
  struct Inner {
    int depth = 0;
  };
};
VELTO_NAMES(Outer::Kind, plain, fancy)
VELTO_FIELDS(Outer::Inner, depth)

}  // namespace shapes

namespace {

std::string fieldsDescribed(const NSObject& object) {
  return object.description().string();
}

class Account {
 public:
  Account() = default;
  Account(std::string owner, int balance) : owner_(std::move(owner)), balance_(balance) {}
  const std::string& owner() const { return owner_; }
  int balance() const { return balance_; }

  VELTO_FIELDS(Account, (owner_, "owner"), (balance_, "balance", velto::orDefault));

 private:
  std::string owner_;
  int balance_ = 100;
};

template <class T>
struct Pair {
  T first;
  T second;
  VELTO_FIELDS(Pair, first, second)
};

struct Nothing {
  VELTO_FIELDS(Nothing)
};

struct Named : shapes::Size {
  std::string name;
};
struct NamedAndSized : shapes::Size {
  std::string name;
  VELTO_FIELDS(NamedAndSized, name, width, height)
};

enum PlainOrder { foremost, hindmost };
VELTO_NAMES(PlainOrder, foremost, (hindmost, "the last"));

// More members than other such macros take.
struct Many {
  int a0 = 0, a1 = 1, a2 = 2, a3 = 3, a4 = 4, a5 = 5, a6 = 6, a7 = 7, a8 = 8, a9 = 9;
  int b0 = 0, b1 = 1, b2 = 2, b3 = 3, b4 = 4, b5 = 5, b6 = 6, b7 = 7, b8 = 8, b9 = 9;
  int c0 = 0, c1 = 1, c2 = 2, c3 = 3, c4 = 4, c5 = 5, c6 = 6, c7 = 7, c8 = 8, c9 = 9;
  int d0 = 0, d1 = 1, d2 = 2, d3 = 3, d4 = 4, d5 = 5, d6 = 6, d7 = 7, d8 = 8, d9 = 9;
  int e0 = 0, e1 = 1, e2 = 2, e3 = 3, e4 = 4, e5 = 5, e6 = 6, e7 = 7, e8 = 8, e9 = 9;
  int f0 = 0, f1 = 1, f2 = 2, f3 = 3, f4 = 4, f5 = 5, f6 = 6, f7 = 7, f8 = 8, f9 = 9;
  int g0 = 0, g1 = 1, g2 = 2, g3 = 3, g4 = 4, g5 = 5, g6 = 6, g7 = 7, g8 = 8, g9 = 9;
  VELTO_FIELDS(Many, a0, a1, a2, a3, a4, a5, a6, a7, a8, a9, b0, b1, b2, b3, b4, b5, b6, b7, b8, b9, c0, c1, c2, c3, c4,
               c5, c6, c7, c8, c9, d0, d1, d2, d3, d4, d5, d6, d7, d8, d9, e0, e1, e2, e3, e4, e5, e6, e7, e8, e9, f0,
               f1, f2, f3, f4, f5, f6, f7, f8, f9, g0, g1, g2, g3, g4, g5, g6, g7, g8, (g9, "the last"))
};

TEST(Fields, AreThoseOfAStructThatIsDescribedFromOutside) {
  EXPECT_EQ(fieldsDescribed(shapes::Size{2, 3}), "{width = 2; height = 3}");
  EXPECT_EQ((NSDictionary{{"width", 2}, {"height", 3}}).to<shapes::Size>()->height, 3);
  EXPECT_EQ((NSDictionary{{"depth", 3}}).to<shapes::Outer::Inner>()->depth, 3);
}

TEST(Fields, MayBePrivateInsideOfAClass) {
  EXPECT_EQ(fieldsDescribed(Account("ada", 7)), "{owner = ada; balance = 7}");
  const auto account = NSDictionary{{"owner", "ada"}}.to<Account>();
  ASSERT_TRUE(account.has_value());
  EXPECT_EQ(account->owner(), "ada");
  EXPECT_EQ(account->balance(), 100);
}

TEST(Fields, OfTemplatesAreDescribedOnce) {
  EXPECT_EQ(fieldsDescribed(Pair<shapes::Size>{{1, 2}, {3, 4}}),
            "{first = {width = 1; height = 2}; second = {width = 3; height = 4}}");
  EXPECT_EQ(fieldsDescribed(shapes::Page<std::string>{{"a", "b"}, 1}), "{items = (a, b); next = 1}");
  EXPECT_EQ((NSDictionary{{"items", NSArray{1}}, {"next", 0}}).get<shapes::Page<std::string>>().error(),
            "items[0]: is a number, not a string");
}

TEST(Fields, OfAStructInAFunction) {
  struct Local {
    int number = 1;
    VELTO_FIELDS(Local, number)
  };
  EXPECT_EQ(fieldsDescribed(Local()), "{number = 1}");
  EXPECT_EQ((NSDictionary{{"number", 2}}).to<Local>()->number, 2);
}

TEST(Fields, NoneAreAnEmptyDictionary) {
  EXPECT_EQ(NSObject(Nothing()), NSDictionary::dictionary());
  EXPECT_TRUE(NSDictionary::dictionary().to<Nothing>().has_value());
  EXPECT_FALSE(NSArray::array().to<Nothing>().has_value());
}

TEST(Fields, OfABaseAreNamedAgain) {
  NamedAndSized shape;
  shape.name = "door";
  shape.width = 2;
  EXPECT_EQ(fieldsDescribed(shape), "{name = door; width = 2; height = 0}");
  EXPECT_EQ(NSObject(shape).to<NamedAndSized>()->width, 2);
}

TEST(Fields, AreAsManyAsTheStructHas) {
  const NSDictionary dictionary = Many();
  EXPECT_EQ(dictionary.count(), 70u);
  EXPECT_EQ(dictionary["the last"].integerValue(), 9);
  Many changed;
  changed.d5 = changed.g9 = 1000;
  EXPECT_EQ(NSObject(changed).to<Many>()->d5, 1000);
  EXPECT_EQ(NSObject(changed).to<Many>()->g9, 1000);
}

TEST(Names, AreThoseOfAnyEnumeration) {
  EXPECT_EQ(NSObject(hindmost).stringValue(), "the last");
  EXPECT_EQ(NSObject("foremost").to<PlainOrder>(), foremost);
  EXPECT_EQ(NSObject(shapes::Outer::Kind::fancy).stringValue(), "fancy");
  EXPECT_EQ(NSObject("plain").to<shapes::Outer::Kind>(), shapes::Outer::Kind::plain);
}

struct Undescribed {};
struct Views {
  std::string_view text;
  const char* literal = nullptr;
  int numbers[2] = {1, 2};
  VELTO_FIELDS(Views, text, literal, numbers)
};
struct Constant {
  const int number = 1;
  VELTO_FIELDS(Constant, number)
};
struct WithoutDefault {
  explicit WithoutDefault(int given) : number(given) {}
  int number;
  VELTO_FIELDS(WithoutDefault, number)
};
struct Strange {
  std::vector<int*> pointers;
  VELTO_FIELDS(Strange, pointers)
};
struct HasStrange {
  std::optional<Strange> strange;
  VELTO_FIELDS(HasStrange, strange)
};
class Hidden {
  int number_ = 0;
  VELTO_FIELDS(Hidden, number_)
};

static_assert(velto::BecomesObject<Account> && velto::ComesOutOfObject<Account>);
static_assert(velto::BecomesObject<const Account&> && velto::BecomesDictionary<Account>);
static_assert(velto::ComesOutOfObject<std::optional<std::vector<shapes::Size>>>);
static_assert(!velto::BecomesObject<Undescribed> && !velto::ComesOutOfObject<Undescribed>);
static_assert(!velto::BecomesObject<Named> && !velto::ComesOutOfObject<Named>);
static_assert(!velto::BecomesObject<Hidden> && !velto::ComesOutOfObject<Hidden>);
static_assert(velto::BecomesObject<Views> && !velto::ComesOutOfObject<Views>);
static_assert(velto::BecomesObject<Constant> && !velto::ComesOutOfObject<Constant>);
static_assert(velto::BecomesObject<WithoutDefault> && !velto::ComesOutOfObject<WithoutDefault>);
static_assert(!velto::BecomesObject<HasStrange> && !velto::ComesOutOfObject<HasStrange>);
static_assert(!std::is_convertible_v<Account, NSArray> && !std::is_convertible_v<Account, NSString>);
static_assert(std::is_convertible_v<Account, NSDictionary> && std::is_aggregate_v<Pair<int>>);

}  // namespace
