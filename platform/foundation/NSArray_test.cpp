#include "platform/foundation/NSArray.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/foundation/Foundation.h"

namespace {

TEST(NSArray, HoldsWhatTheBracesList) {
  const NSArray array{1, 2.5, "three", NSArray{4}, true};
  EXPECT_EQ(array.count(), 5u);
  EXPECT_EQ(array[1].doubleValue(), 2.5);
  EXPECT_EQ(array.objectAtIndex(2).stringValue(), "three");
  EXPECT_EQ(array[3][0].integerValue(), 4);
}

TEST(NSArray, BracesAroundASingleArrayAreThatArray) {
  const NSArray inner{1, 2};
  const NSMutableArray changing = NSMutableArray::array();
  EXPECT_TRUE(NSArray{inner}.isIdenticalTo(inner));
  EXPECT_TRUE(NSArray(inner).isIdenticalTo(inner));
  EXPECT_TRUE(NSArray{changing}.isIdenticalTo(changing));
  EXPECT_EQ((NSArray{NSArray{4}}), NSArray{4});
}

TEST(NSArray, BracesAroundSeveralArraysListThem) {
  const NSArray inner{1, 2};
  EXPECT_EQ((NSArray{inner, inner}.count()), 2u);
  EXPECT_EQ((NSArray{inner, NSArray{3}})[1], NSArray{3});
  EXPECT_EQ((NSArray{inner, 0}.count()), 2u);
  EXPECT_EQ((NSArray{NSObject(inner)}.count()), 1u);
  EXPECT_THROW((NSArray{inner, NSArray()}), NSException);
  EXPECT_EQ(NSArray{0}.count(), 1u);
}

TEST(NSArray, AnArrayOfOneArrayIsMadeFromAList) {
  const NSArray outer = NSArray::arrayWithObjects({NSArray{4}});
  EXPECT_EQ(outer.count(), 1u);
  EXPECT_EQ(outer[0], NSArray{4});
}

TEST(NSArray, TakesVectorsOfPlainValues) {
  EXPECT_EQ(NSArray(std::vector<int>{1, 2}), (NSArray{1, 2}));
  EXPECT_EQ(NSArray(std::vector<bool>{true, false}), (NSArray{true, false}));
  EXPECT_EQ(NSArray(std::vector<std::string>{"a"}), NSArray{"a"});
  EXPECT_EQ(NSArray(std::vector<NSArray>{NSArray{1}, NSArray{2}}), (NSArray{NSArray{1}, NSArray{2}}));
  EXPECT_EQ(NSArray::arrayWithObjects({1, "two"}), (NSArray{1, "two"}));
}

TEST(NSArray, CannotHoldNil) {
  EXPECT_THROW(static_cast<void>(NSArray::arrayWithObjects({NSObject()})), NSException);
  EXPECT_THROW(NSArray(std::vector<const char*>{nullptr}), NSException);
}

TEST(NSArray, ABracedListLeavesNilOut) {
  EXPECT_EQ((NSArray{1, nil, 2}), (NSArray{1, 2}));
  EXPECT_EQ((NSArray{nil, nil}).count(), 0u);
}

TEST(NSArray, AnswersNilPastTheEnd) {
  const NSArray array{1};
  EXPECT_TRUE(array.objectAtIndex(1).isNil());
  EXPECT_TRUE(array.objectAtIndex(SIZE_MAX).isNil());
  EXPECT_TRUE(array[SIZE_MAX].isNil());
  EXPECT_TRUE(NSArray::array().objectAtIndex(0).isNil());
}

TEST(NSArray, NilAnswersNothing) {
  const NSArray none;
  EXPECT_TRUE(none.objectAtIndex(0).isNil());
  EXPECT_FALSE(none.containsObject(1));
  EXPECT_TRUE(none.copy().isNil());
  EXPECT_NE(none, NSArray::array());
}

TEST(NSArray, FindsObjectsByValue) {
  const NSArray array{1, "two", NSArray{3}};
  EXPECT_TRUE(array.containsObject(1.0));
  EXPECT_TRUE(array.containsObject(NSArray{3}));
  EXPECT_FALSE(array.containsObject("three"));
  EXPECT_FALSE(array.containsObject(nil));
}

TEST(NSArray, EqualsElementByElement) {
  EXPECT_EQ((NSArray{1, "a"}), (NSArray{1.0, "a"}));
  EXPECT_NE((NSArray{1, 2}), (NSArray{2, 1}));
  EXPECT_NE((NSArray{1}), (NSArray{1, 1}));
  EXPECT_EQ(NSMutableArray::arrayWithArray({1}), NSArray{1});
}

TEST(NSArray, DescribesItsElements) {
  EXPECT_EQ((NSArray{1, 2}.description().string()), "(1, 2)");
  EXPECT_EQ(NSArray::array().description().string(), "()");
}

TEST(NSMutableArray, ChangesUnderEveryHandle) {
  NSMutableArray array = NSMutableArray::array();
  const NSArray same = array;
  array.addObject(1);
  array.addObject("two");
  array.addObject(1);
  EXPECT_EQ(same, (NSArray{1, "two", 1}));
  array.removeObject(1);
  EXPECT_EQ(same, NSArray{"two"});
  array.removeObjectAtIndex(1);
  EXPECT_EQ(same.count(), 1u);
  array.removeObjectAtIndex(0);
  EXPECT_EQ(same.count(), 0u);
  array.addObject(2);
  array.removeAllObjects();
  EXPECT_EQ(same, NSArray::array());
}

TEST(NSMutableArray, CannotHoldNil) {
  NSMutableArray array = NSMutableArray::array();
  EXPECT_THROW(array.addObject(nil), NSException);
  EXPECT_EQ(array.count(), 0u);
}

TEST(NSMutableArray, RemovingItsOwnElementByReferenceIsSafe) {
  NSMutableArray array = NSMutableArray::arrayWithArray({std::string("a text of its own"), 2});
  array.removeObject(*array.begin());
  EXPECT_EQ(array, NSArray{2});
  array.addObject(*array.begin());
  EXPECT_EQ(array, (NSArray{2, 2}));
}

TEST(NSMutableArray, CopyIsASnapshotOfOneLevel) {
  NSMutableArray inner = NSMutableArray::array();
  NSMutableArray outer = NSMutableArray::arrayWithArray(NSArray{inner, "last"});
  const NSArray copy = outer.copy();
  outer.addObject(1);
  inner.addObject(2);
  EXPECT_EQ(copy, (NSArray{NSArray{2}, "last"}));
  EXPECT_TRUE(copy.as<NSMutableArray>().isNil());
  EXPECT_TRUE(copy.copy().isIdenticalTo(copy));
}

TEST(NSMutableArray, AddingToNilFillsItAndRemovingFromNilDoesNothing) {
  NSMutableArray none;
  none.removeObject(1);
  none.removeObjectAtIndex(0);
  none.removeAllObjects();
  EXPECT_TRUE(none.isNil());
  EXPECT_THROW(none.addObject(nil), NSException);
  none.addObject(1);
  none.addObject(2);
  EXPECT_EQ(none, (NSArray{1, 2}));
  EXPECT_EQ(NSMutableArray::arrayWithArray(nil), NSArray::array());
}

}  // namespace
