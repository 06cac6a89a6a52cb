#include "platform/foundation/NSSet.h"

#include <gtest/gtest.h>

#include "platform/foundation/Foundation.h"

namespace {

TEST(NSSet, HoldsDistinctObjectsInOrder) {
  const NSSet set{3, "a", 3.0, "a", 1};
  EXPECT_EQ(set.count(), 3u);
  EXPECT_EQ(set.allObjects(), (NSArray{3, "a", 1}));
  EXPECT_EQ(NSSet::setWithObjects({1, 1}).count(), 1u);
  EXPECT_EQ(NSSet::set().count(), 0u);
}

TEST(NSSet, BracesAroundASingleSetAreThatSet) {
  const NSSet inner{1, 2};
  EXPECT_TRUE(NSSet{inner}.isIdenticalTo(inner));
  EXPECT_EQ((NSSet{inner, NSSet{3}}.count()), 2u);
  EXPECT_EQ(NSSet::setWithObjects({inner}).count(), 1u);
}

TEST(NSSet, FindsObjectsByValue) {
  const NSSet set{1, NSArray{2}};
  EXPECT_TRUE(set.containsObject(1.0));
  EXPECT_TRUE(set.containsObject(NSArray{2}));
  EXPECT_FALSE(set.containsObject(3));
  EXPECT_FALSE(set.containsObject(nil));
}

TEST(NSSet, CannotHoldNil) {
  EXPECT_EQ((NSSet{1, nil}), NSSet{1});
  EXPECT_THROW(static_cast<void>(NSSet::setWithObjects({NSObject()})), NSException);
}

TEST(NSSet, NilAnswersNothing) {
  const NSSet none;
  EXPECT_FALSE(none.containsObject(1));
  EXPECT_TRUE(none.allObjects().isNil());
  EXPECT_TRUE(none.copy().isNil());
}

TEST(NSSet, EqualityDoesNotRegardOrder) {
  EXPECT_EQ((NSSet{1, 2}), (NSSet{2, 1}));
  EXPECT_EQ((NSSet{1, 2}.hash()), (NSSet{2, 1}.hash()));
  EXPECT_NE((NSSet{1, 2}), (NSSet{1, 3}));
  EXPECT_NE((NSSet{1, 2}), (NSSet{1}));
  EXPECT_EQ((NSSet{NSArray{1}, NSArray{2}}), (NSSet{NSArray{2}, NSArray{1}}));
}

TEST(NSSet, DescribesItsElements) {
  EXPECT_EQ((NSSet{1, 2}.description().string()), "{(1, 2)}");
  EXPECT_EQ(NSSet::set().description().string(), "{()}");
}

TEST(NSMutableSet, ChangesUnderEveryHandle) {
  NSMutableSet set = NSMutableSet::set();
  const NSSet same = set;
  set.addObject(1);
  set.addObject(1);
  set.addObject("two");
  EXPECT_EQ(same, (NSSet{1, "two"}));
  set.removeObject(1);
  set.removeObject("missing");
  set.removeObject(nil);
  EXPECT_EQ(same, NSSet{"two"});
  set.removeAllObjects();
  EXPECT_EQ(same, NSSet::set());
}

TEST(NSMutableSet, CannotHoldNil) {
  NSMutableSet set = NSMutableSet::set();
  EXPECT_THROW(set.addObject(nil), NSException);
  EXPECT_EQ(set.count(), 0u);
}

TEST(NSMutableSet, IsMadeFromAnotherSetAndLeavesItAlone) {
  const NSSet original{1};
  NSMutableSet set = NSMutableSet::initWithSet(original);
  set.addObject(2);
  EXPECT_EQ(original, NSSet{1});
  const NSSet copy = set.copy();
  set.removeAllObjects();
  EXPECT_EQ(copy, (NSSet{1, 2}));
  EXPECT_TRUE(copy.as<NSMutableSet>().isNil());
  EXPECT_EQ(NSMutableSet::initWithSet(nil), NSSet::set());
}

TEST(NSMutableSet, AddingToNilFillsItAndRemovingFromNilDoesNothing) {
  NSMutableSet none;
  none.removeObject(1);
  none.removeAllObjects();
  EXPECT_TRUE(none.isNil());
  EXPECT_THROW(none.addObject(nil), NSException);
  none.addObject(1);
  EXPECT_EQ(none, NSSet{1});
}

}  // namespace
