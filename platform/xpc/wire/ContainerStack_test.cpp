#include "platform/xpc/wire/ContainerStack.h"

#include <gtest/gtest.h>

#include "platform/xpc/wire/WireTesting.h"

namespace velto::wire {
namespace {

using testing::Point;
using Kind = ContainerStack::Kind;
using Cost = ComparisonCost;

NSObject close(ContainerStack& stack) {
  EXPECT_TRUE(stack.isFull());
  Cost cost;
  return stack.close(cost);
}

TEST(ContainerStack, MakesEachKindOfContainer) {
  ContainerStack stack;
  stack.open(Kind::array, 2, 1);
  stack.push(1, {});
  EXPECT_FALSE(stack.isFull());
  stack.push("two", {});
  EXPECT_EQ(close(stack), NSObject(NSArray{1, "two"}));

  stack.open(Kind::dictionary, 2, 1);
  stack.push("key", {});
  stack.push(5, {});
  EXPECT_EQ(close(stack), NSObject(NSDictionary{{"key", 5}}));

  stack.open(Kind::set, 2, 1);
  stack.push(1, {});
  stack.push(2, {});
  EXPECT_EQ(close(stack), NSObject(NSSet{1, 2}));

  stack.openError("domain", 7, 2, 1);
  stack.push("key", {});
  stack.push("value", {});
  EXPECT_EQ(close(stack), NSObject(NSError::errorWithDomain("domain", 7, {{"key", "value"}})));
  EXPECT_EQ(stack.depth(), 0u);
}

TEST(ContainerStack, InnerContainersTakeOnlyTheirOwn) {
  ContainerStack stack;
  stack.open(Kind::array, 3, 1);
  stack.push(1, {});
  stack.open(Kind::array, 0, 1);
  EXPECT_EQ(stack.depth(), 2u);
  stack.push(close(stack), {});
  stack.open(Kind::array, 1, 1);
  stack.push(2, {});
  stack.push(close(stack), {});
  EXPECT_EQ(close(stack), NSObject(NSArray{1, NSArray::array(), NSArray{2}}));
}

TEST(ContainerStack, WhatComesTwiceMakesNothing) {
  ContainerStack stack;
  stack.open(Kind::dictionary, 4, 1);
  for (int count = 0; count < 2; ++count) {
    stack.push("key", {});
    stack.push(count, {});
  }
  EXPECT_TRUE(close(stack).isNil());
  stack.open(Kind::set, 2, 1);
  stack.push(1, {});
  stack.push(1.0, {});
  EXPECT_TRUE(close(stack).isNil());
}

TEST(ContainerStack, CodedObjectsNest) {
  ContainerStack stack;
  stack.openCoded({Point::classObject(), {}});
  stack.openCoded({NSString::classObject(), {}});
  stack.push(5, {});
  CodedClass found;
  Cost cost;
  EXPECT_EQ(stack.closeCoded(found, cost), NSObject(5));
  EXPECT_TRUE(found.classObject.isIdenticalTo(NSString::classObject()));
  stack.push("done", cost);
  EXPECT_EQ(stack.closeCoded(found, cost), NSObject("done"));
  EXPECT_TRUE(found.classObject.isIdenticalTo(Point::classObject()));
}

TEST(ContainerStack, ElementsOfASetAreKeys) {
  ContainerStack stack;
  stack.open(Kind::set, 3, 1);
  for (int count = 0; count < 3; ++count) stack.push(NSArray{count}, Cost{2, true});
  EXPECT_EQ(stack.comparisonsToClose(), 2u * 6u);
  Cost cost;
  stack.close(cost);
  EXPECT_TRUE(cost.hasPoorHash);
}

TEST(ContainerStack, TheUserInfoOfAnErrorHasKeys) {
  ContainerStack stack;
  stack.openError("domain", 7, 4, 1);
  for (int count = 0; count < 2; ++count) {
    stack.push(NSArray{count}, Cost{2, true});
    stack.push(count, Cost{1000, true});
  }
  EXPECT_EQ(stack.comparisonsToClose(), 4u);
  EXPECT_FALSE(close(stack).isNil());
}

TEST(ContainerStack, ValuesOfADictionaryAreNoKeys) {
  ContainerStack stack;
  stack.open(Kind::dictionary, 4, 1);
  for (int count = 0; count < 2; ++count) {
    stack.push(count, {});
    stack.push(NSArray{count}, Cost{2, true});
  }
  EXPECT_EQ(stack.comparisonsToClose(), 0u);
  stack.clear();
  EXPECT_EQ(stack.depth(), 0u);
}

}  // namespace
}  // namespace velto::wire
