#include "platform/foundation/Walk.h"

#include <functional>
#include <string>

#include <gtest/gtest.h>

#include "platform/foundation/Foundation.h"

namespace velto {
namespace {

NSArray nested(std::size_t depth) {
  NSArray outermost = NSArray::array();
  for (std::size_t level = 1; level < depth; ++level) outermost = NSArray::arrayWithObjects({outermost});
  return outermost;
}

// Each level holds the one before twice.
NSArray doubled(int levels) {
  NSArray outermost{1};
  for (int level = 0; level < levels; ++level) outermost = NSArray{outermost, outermost};
  return outermost;
}

std::string reasonOf(const std::function<void()>& code) {
  try {
    code();
  } catch (const NSException& exception) {
    EXPECT_EQ(exception.name(), "WalkBoundException");
    return exception.reason();
  }
  return "no exception";
}

TEST(Walk, ComparesAsDeepAsTheLimitAndRaisesOneDeeper) {
  EXPECT_EQ(nested(kMaximumNestingDepth), nested(kMaximumNestingDepth));
  EXPECT_NE(nested(kMaximumNestingDepth), nested(kMaximumNestingDepth - 1));
  const NSArray left = nested(kMaximumNestingDepth + 1);
  const NSArray right = nested(kMaximumNestingDepth + 1);
  EXPECT_EQ(reasonOf([&] { static_cast<void>(left.isEqual(right)); }),
            "compared objects nest deeper than 512 levels, the deepest that a comparison goes");
  EXPECT_EQ(left, left);
  EXPECT_EQ(nested(2), nested(2));
}

TEST(Walk, EveryContainerCountsAsALevel) {
  NSObject left = 1;
  NSObject right = 1;
  for (int level = 0; level < 200; ++level) {
    left = NSError::errorWithDomain("d", 1, {{"set", NSSet{NSDictionary{{"key", left}}}}});
    right = NSError::errorWithDomain("d", 1, {{"set", NSSet{NSDictionary{{"key", right}}}}});
  }
  EXPECT_THROW(static_cast<void>(left.isEqual(right)), NSException);
}

TEST(Walk, ComparesAsManyObjectsAsTheLimitAndRaisesOneMore) {
  const NSObject left = NSArray{1, 2, 3};
  const NSObject right = NSArray{1, 2, 3};
  WalkBound enough(10, 4);
  EXPECT_TRUE(isEqualWithin(enough, left, right));
  EXPECT_EQ(reasonOf([&] {
              WalkBound tooFew(10, 3);
              isEqualWithin(tooFew, left, right);
            }),
            "compared objects hold more than 3 objects, the most that one comparison visits");
}

TEST(Walk, AComparisonOfExponentiallyManyObjectsEnds) {
  EXPECT_EQ(reasonOf([] { static_cast<void>(doubled(60).isEqual(doubled(60))); }),
            "compared objects hold more than 67108864 objects, the most that one comparison visits");
}

TEST(Walk, TheHashOfContainersTellsThemApart) {
  EXPECT_NE(NSArray({1, 2}).hash(), NSArray({2, 1}).hash());
  EXPECT_NE(NSDictionary({{"a", 1}}).hash(), NSDictionary({{"a", 2}}).hash());
  EXPECT_NE(NSSet({1, 2}).hash(), NSSet({1, 3}).hash());
  EXPECT_NE((NSSet{NSSet{1, 2}, NSSet{3, 4}}.hash()), (NSSet{NSSet{1, 3}, NSSet{2, 4}}.hash()));
  EXPECT_NE((NSSet{1, NSSet::setWithObjects({2})}.hash()), (NSSet{2, NSSet::setWithObjects({1})}.hash()));
  EXPECT_EQ(NSDictionary({{"a", 1}, {"b", 2}}).hash(), NSDictionary({{"b", 2.0}, {"a", true}}).hash());
  EXPECT_EQ(NSSet({1, 2}).hash(), NSSet({2, 1}).hash());
  EXPECT_EQ(NSArray({"text"}).hash(),
            NSMutableArray::arrayWithArray({NSMutableString::stringWithString("text")}).hash());
}

TEST(Walk, ASetOfAHundredThousandPairsIsComparedInLinearTime) {
  constexpr std::size_t kPairs = 100'000;
  const auto pairs = [](std::size_t first) {
    std::vector<NSObject> list;
    for (std::size_t each = 0; each < kPairs; ++each) {
      const std::size_t pair = (first + each) % kPairs;
      list.push_back(NSArray{pair % 1000, static_cast<double>(pair / 1000) / 2});
    }
    return NSSet::setWithObjects(std::move(list));
  };
  // The set, and for each pair itself and its two numbers; a few pairs share what the index knows of their hashes.
  WalkBound bound(kMaximumNestingDepth, kPairs * 3 + 1000);
  EXPECT_TRUE(isEqualWithin(bound, pairs(0), pairs(kPairs / 2)));
}

TEST(Walk, ContainersThatHoldThemselvesRaiseWhenCompared) {
  NSMutableArray left = NSMutableArray::array();
  NSMutableArray right = NSMutableArray::array();
  left.addObject(left);
  right.addObject(right);
  EXPECT_EQ(left, left);
  EXPECT_THROW(static_cast<void>(left.isEqual(right)), NSException);
  left.removeAllObjects();
  right.removeAllObjects();
}

TEST(Walk, DescribesAsDeepAsTheLimitAndCutsOneDeeper) {
  const std::string whole = nested(kMaximumNestingDepth).description().string();
  EXPECT_EQ(whole, std::string(kMaximumNestingDepth, '(') + std::string(kMaximumNestingDepth, ')'));
  const std::string cut = nested(kMaximumNestingDepth + 1).description().string();
  EXPECT_EQ(cut, std::string(kMaximumNestingDepth, '(') + "…" + std::string(kMaximumNestingDepth, ')'));
}

TEST(Walk, DescriptionsOfContainersThatHoldThemselvesEnd) {
  NSMutableArray array = NSMutableArray::array();
  NSMutableDictionary dictionary = NSMutableDictionary::dictionary();
  NSMutableSet set = NSMutableSet::set();
  for (int each = 0; each < 3; ++each) array.addObject(dictionary);
  dictionary.setObject(array, "array");
  dictionary.setObject(set, "set");
  set.addObject(array);
  const std::string text = array.description().string();
  EXPECT_LE(text.size(), kMaximumDescriptionBytes + std::string("…").size());
  EXPECT_TRUE(text.starts_with("({array = ({array = ")) << text.substr(0, 100);
  EXPECT_TRUE(text.ends_with("…"));
  array.removeAllObjects();
  set.removeAllObjects();
}

TEST(Walk, DescriptionsOfExponentiallyManyObjectsEnd) {
  const std::string text = doubled(200).description().string();
  EXPECT_LE(text.size(), kMaximumDescriptionBytes + std::string("…").size());
  EXPECT_TRUE(text.ends_with("…"));
}

TEST(Walk, LongDescriptionsAreCutBetweenCharacters) {
  const NSString exactlyFull = std::string(kMaximumDescriptionBytes - 2, 'x');
  EXPECT_EQ((NSArray{exactlyFull}.description().length()), kMaximumDescriptionBytes);
  std::string accents;
  while (accents.size() < 2 * kMaximumDescriptionBytes) accents += "ä";
  const std::string cut = NSArray{accents}.description().string();
  EXPECT_EQ(cut, "(" + accents.substr(0, kMaximumDescriptionBytes - 2) + "…");
}

class RaisingBody final : public ObjectBody {
 public:
  const ClassBody& classBody() const override { return classBodyOf<NSObject>(); }
  void describe(std::string& out, WalkBound&) const override {
    out += "half";
    throw NSException("name", "reason");
  }
};
class Raising : public NSObject {
 public:
  Raising() : NSObject(new RaisingBody) {}
};

TEST(Walk, ADescriptionNeverRaises) {
  EXPECT_EQ((NSArray{1, Raising()}.description().string()), "(1, half…");
}

TEST(Walk, DescribesNilAndCutsWhenTheObjectsRunOut) {
  std::string out;
  WalkBound bound(5, 2);
  describeWithin(bound, nil, out);
  describeWithin(bound, NSArray{1, 2}, out);
  EXPECT_EQ(out, "(null)(1, …)");
}

TEST(Walk, ALevelIsLeftWhenItEnds) {
  WalkBound bound(1, 1);
  {
    const WalkBound::Level first(bound);
    EXPECT_TRUE(first);
    EXPECT_FALSE(WalkBound::Level(bound));
  }
  EXPECT_TRUE(WalkBound::Level(bound));
  EXPECT_TRUE(bound.visit());
  EXPECT_FALSE(bound.visit());
  EXPECT_EQ(bound.maximumDepth(), 1u);
  EXPECT_EQ(bound.maximumObjects(), 1u);
}

}  // namespace
}  // namespace velto
