// What the threads do when there are few of them. Each test is a process of its own, whose reactor is made with the
// kernel that the test plays.

#include "platform/xpc/transport/Reactor.h"

#include <atomic>
#include <thread>

#include <gtest/gtest.h>

#include "platform/foundation/NSCondition.h"
#include "platform/xpc/testing/FewThreads.h"
#include "platform/xpc/testing/Support.h"

namespace velto::transport {
namespace {

using velto::testing::FewThreads;
using velto::testing::Inbox;

// A queue whose first task sleeps until the end of the queue is told, which a later task does. What the tasks use lives
// as long as they do: the one that ends it may still be leaving when everybody has woken.
struct SleepingTask {
  struct State {
    const NSCondition condition = NSCondition::condition();
    bool ended = false;
  };
  const std::shared_ptr<SerialQueue> queue = Reactor::shared().makeQueue();
  const std::shared_ptr<State> state = std::make_shared<State>();

  void sleep(Inbox<std::string>& events) {
    queue->add([state = state, &events] {
      events.put("begins");
      if (!Reactor::shared().mayLinger()) return events.put("left undone");
      const ConditionLock lock(state->condition);
      while (!state->ended) state->condition.wait();
      events.put("woke");
    });
  }
  void end() {
    queue->add([state = state] {
      const ConditionLock lock(state->condition);
      state->ended = true;
      state->condition.signal();
    });
    queue->letOvertake();
  }
};

TEST(Reactor, WhatIsUrgentRunsThoughEveryThreadThatMaySleepDoesAndTheKernelRefusesMore) {
  // Never destroyed: threads of the reactor go on using it.
  auto& kernel = *new FewThreads(6);
  Inbox<std::string> events;
  std::vector<SleepingTask> sleepers(20);
  for (SleepingTask& sleeper : sleepers) sleeper.sleep(events);
  // All but those that read and end.
  events.waitFor(4);
  for (SleepingTask& sleeper : sleepers) sleeper.end();
  events.waitFor(2 * sleepers.size());
  EXPECT_GT(kernel.refusals, 0);
}

TEST(Reactor, ShortOfThreadsDoesNotSpin) {
  auto& kernel = *new FewThreads(6);
  Inbox<std::string> events;
  std::vector<SleepingTask> sleepers(20);
  for (SleepingTask& sleeper : sleepers) sleeper.sleep(events);
  events.waitFor(4);
  const int waits = kernel.waits;
  const int refusals = kernel.refusals;
  std::this_thread::sleep_for(std::chrono::seconds(1));
  // It looks again ten times a second, and each look is two or three waits.
  EXPECT_LE(kernel.waits - waits, 60);
  EXPECT_LE(kernel.refusals - refusals, 20);
  EXPECT_EQ(events.soFar().size(), 4U);
  for (SleepingTask& sleeper : sleepers) sleeper.end();
  events.waitFor(2 * sleepers.size());
}

TEST(Reactor, TakesUpWhatWaitsOnceTheKernelHasThreadsAgain) {
  auto& kernel = *new FewThreads(4);
  Inbox<std::string> events;
  std::vector<SleepingTask> sleepers(10);
  for (SleepingTask& sleeper : sleepers) sleeper.sleep(events);
  events.waitFor(2);
  kernel.left = 100;
  events.waitFor(sleepers.size());
  for (SleepingTask& sleeper : sleepers) sleeper.end();
  events.waitFor(2 * sleepers.size());
}

TEST(Reactor, WithASingleThreadEverythingStillRuns) {
  auto& kernel = *new FewThreads(1);
  Inbox<int> ran;
  const auto one = Reactor::shared().makeQueue();
  const auto other = Reactor::shared().makeQueue();
  for (int number = 0; number < 100; ++number) {
    one->add([&ran] { ran.put(1); });
    other->add([&ran] { ran.put(2); });
  }
  ran.waitFor(200);
  EXPECT_EQ(kernel.left, 0);
}

// Outlives its test, as its last callback does.
struct Endless : std::enable_shared_from_this<Endless> {
  void addAgain() {
    queue->add([self = shared_from_this()] {
      if (!self->stop) self->addAgain();
    });
  }

  const std::shared_ptr<SerialQueue> queue = Reactor::shared().makeQueue();
  std::atomic<bool> stop{false};
};

TEST(Reactor, AQueueThatNeverEmptiesLetsOthersHaveTheThread) {
  auto& kernel = *new FewThreads(3);
  const auto endless = std::make_shared<Endless>();
  endless->addAgain();
  Inbox<int> ran;
  const auto other = Reactor::shared().makeQueue();
  other->add([&ran] { ran.put(1); });
  ran.waitFor(1);
  endless->stop = true;
  endless->queue->add([&ran] { ran.put(2); });
  ran.waitFor(2);
  EXPECT_LE(kernel.left, 1);
}

}  // namespace
}  // namespace velto::transport
