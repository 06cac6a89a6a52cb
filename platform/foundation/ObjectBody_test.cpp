#include "platform/foundation/ObjectBody.h"

#include <atomic>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "platform/foundation/Foundation.h"

namespace velto {
namespace {

// A body that counts itself and tells when it goes.
class CountedBody final : public ObjectBody {
 public:
  explicit CountedBody(std::function<void()> atEnd = [] {}) : atEnd_(std::move(atEnd)) { ++alive; }
  ~CountedBody() override {
    atEnd_();
    --alive;
  }
  const ClassBody& classBody() const override { return classBodyOf<NSObject>(); }

  static inline std::atomic<int> alive{0};

 private:
  const std::function<void()> atEnd_;
};

class Counted : public NSObject {
 public:
  explicit Counted(std::function<void()> atEnd = [] {}) : NSObject(new CountedBody(std::move(atEnd))) {}
};

TEST(ObjectBody, LivesAsLongAsAnyHandle) {
  {
    NSObject first = Counted();
    NSObject second = first;
    first = nil;
    EXPECT_EQ(CountedBody::alive, 1);
    const NSObject third = std::move(second);
    EXPECT_EQ(CountedBody::alive, 1);
  }
  EXPECT_EQ(CountedBody::alive, 0);
}

TEST(ObjectBody, AssigningAHandleToItselfKeepsTheBody) {
  NSObject object = Counted();
  const NSObject& same = object;
  object = same;
  EXPECT_EQ(CountedBody::alive, 1);
}

TEST(ObjectBody, AMillionNestedArraysAreDestroyedWithoutRecursion) {
  NSArray outermost{Counted()};
  for (int depth = 0; depth < 1'000'000; ++depth) outermost = NSArray::arrayWithObjects({outermost});
  EXPECT_EQ(CountedBody::alive, 1);
  outermost = nil;
  EXPECT_EQ(CountedBody::alive, 0);
}

TEST(ObjectBody, DeepNestingOfEveryContainerIsDestroyedWithoutRecursion) {
  NSObject outermost = Counted();
  for (int depth = 0; depth < 100'000; ++depth) {
    outermost = NSDictionary{{"key", NSSet{NSArray::arrayWithObjects({outermost})}}};
    outermost = NSError::errorWithDomain("domain", 1, {{"inner", outermost}});
  }
  outermost = nil;
  EXPECT_EQ(CountedBody::alive, 0);
}

TEST(ObjectBody, DeepNestingIsDestroyedWhenTheLastReleaseHappensInADestructor) {
  auto deep = std::make_shared<NSObject>(Counted());
  for (int depth = 0; depth < 1'000'000; ++depth) *deep = NSArray{*deep};
  NSObject owner = Counted([deep] { *deep = nil; });
  deep.reset();
  NSArray container{owner};
  owner = nil;
  container = nil;
  EXPECT_EQ(CountedBody::alive, 0);
}

TEST(ObjectBody, DeepNestingIsDestroyedAtTheEndOfItsThread) {
  std::thread([] {
    thread_local NSObject kept;
    kept = Counted();
    for (int depth = 0; depth < 1'000'000; ++depth) kept = NSArray{kept};
  }).join();
  EXPECT_EQ(CountedBody::alive, 0);
}

TEST(ObjectBody, WhatADestructorLetsGoOfIsDestroyedOnceItHasReturned) {
  std::vector<int> order;
  NSObject inner = Counted([&] { order.push_back(2); });
  NSObject outer = Counted([&] {
    inner = nil;
    order.push_back(1);
  });
  outer = nil;
  EXPECT_EQ(order, (std::vector<int>{1, 2}));
  EXPECT_EQ(CountedBody::alive, 0);
}

TEST(ObjectBody, ADestroyedBodyTakesItsMonitorAlong) {
  const NSArray container{Counted(), Counted()};
  for (const NSObject& each : container) const NSSynchronized hold(each);
  SUCCEED();  // the leak checker says otherwise
}

TEST(ObjectBody, TheMonitorIsMadeOnceHoweverManyThreadsAskFirst) {
  for (int round = 0; round < 100; ++round) {
    const NSObject object = Counted();
    std::recursive_mutex* seen[2] = {};
    std::thread other([&] { seen[0] = &object.body()->monitor(); });
    seen[1] = &object.body()->monitor();
    other.join();
    EXPECT_EQ(seen[0], seen[1]);
  }
}

TEST(ObjectBody, HandlesOnOneBodyMayBeCopiedByManyThreads) {
  const NSObject shared = Counted();
  std::vector<std::thread> threads;
  for (int each = 0; each < 4; ++each) {
    threads.emplace_back([shared] {
      for (int round = 0; round < 10'000; ++round) {
        const NSObject copy = shared;
        EXPECT_TRUE(copy.isIdenticalTo(shared));
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(CountedBody::alive, 1);
}

TEST(ObjectBody, AnswersByIdentityUnlessItsClassKnowsBetter) {
  const NSObject one = Counted();
  const NSObject two = Counted();
  EXPECT_EQ(one, one);
  EXPECT_NE(one, two);
  EXPECT_NE(one.hash(), two.hash());
  const std::string text = one.description().string();
  EXPECT_TRUE(text.starts_with("<NSObject: 0x")) << text;
  EXPECT_TRUE(text.ends_with(">")) << text;
}

}  // namespace
}  // namespace velto
