#include "platform/xpc/transport/SerialQueue.h"

#include <atomic>
#include <stdexcept>
#include <thread>

#include <gtest/gtest.h>

#include "platform/xpc/testing/Support.h"
#include "platform/xpc/transport/Reactor.h"

namespace velto::transport {
namespace {

using velto::testing::Inbox;

TEST(SerialQueue, RunsTasksInTheOrderInWhichTheyWereAdded) {
  const auto queue = Reactor::shared().makeQueue();
  Inbox<int> ran;
  for (int number = 0; number < 1000; ++number) queue->add([&ran, number] { ran.put(number); });
  const auto order = ran.waitFor(1000);
  for (int number = 0; number < 1000; ++number) ASSERT_EQ(order[static_cast<std::size_t>(number)], number);
}

TEST(SerialQueue, RunsOneTaskAtATimeWhoeverAddsThem) {
  const auto queue = Reactor::shared().makeQueue();
  std::atomic<int> inside{0};
  std::atomic<bool> overlapped{false};
  Inbox<int> ran;
  std::vector<std::thread> adders;
  for (int adder = 0; adder < 4; ++adder) {
    adders.emplace_back([&] {
      for (int number = 0; number < 250; ++number) {
        queue->add([&] {
          if (inside.fetch_add(1) != 0) overlapped = true;
          inside.fetch_sub(1);
          ran.put(0);
        });
      }
    });
  }
  for (auto& adder : adders) adder.join();
  ran.waitFor(1000);
  EXPECT_FALSE(overlapped);
}

TEST(SerialQueue, NeverRunsATaskOnTheThreadThatAddsIt) {
  const auto queue = Reactor::shared().makeQueue();
  Inbox<std::thread::id> threads;
  queue->add([&] { threads.put(std::this_thread::get_id()); });
  EXPECT_NE(threads.waitFor(1).front(), std::this_thread::get_id());
}

TEST(SerialQueue, DifferentQueuesDoNotWaitForEachOther) {
  const auto blocked = Reactor::shared().makeQueue();
  const auto other = Reactor::shared().makeQueue();
  std::promise<void> release;
  Inbox<int> ran;
  blocked->add([&] { release.get_future().wait(); });
  other->add([&] { ran.put(1); });
  EXPECT_EQ(ran.waitFor(1).size(), 1U);
  release.set_value();
  blocked->add([&] { ran.put(2); });
  ran.waitFor(2);
}

TEST(SerialQueue, GoesOnAfterATaskThatRaises) {
  const auto queue = Reactor::shared().makeQueue();
  Inbox<int> ran;
  queue->add([] { throw std::runtime_error("raised on purpose"); });
  queue->add([&] { ran.put(1); });
  EXPECT_EQ(ran.waitFor(1).size(), 1U);
}

// A task that sleeps in a condition which only a later task signals.
struct Sleeper {
  const std::shared_ptr<SerialQueue> queue = Reactor::shared().makeQueue();
  const NSCondition condition = NSCondition::condition();
  bool signalled = false;
  Inbox<std::string> events;

  void addSleep() {
    queue->add([this] {
      const ConditionLock lock(condition);
      events.put("sleeps");
      while (!signalled) condition.wait();
      events.put("woke");
    });
  }
  void addWake() {
    queue->add([this] {
      events.put("wakes");
      const ConditionLock lock(condition);
      signalled = true;
      condition.signal();
    });
  }
};

TEST(SerialQueue, TasksWaitBehindOneThatSleepsInACondition) {
  Sleeper sleeper;
  sleeper.addSleep();
  sleeper.events.waitFor(1);
  sleeper.queue->add([&] { sleeper.events.put("later"); });
  {
    const ConditionLock lock(sleeper.condition);
    sleeper.signalled = true;
    sleeper.condition.signal();
  }
  EXPECT_EQ(sleeper.events.waitFor(3), (std::vector<std::string>{"sleeps", "woke", "later"}));
}

TEST(SerialQueue, TasksOvertakeASleeperOnceTheyMayEvenIfItSleptBefore) {
  Sleeper sleeper;
  sleeper.addSleep();
  sleeper.events.waitFor(1);
  sleeper.addWake();
  sleeper.queue->letOvertake();
  EXPECT_EQ(sleeper.events.waitFor(3), (std::vector<std::string>{"sleeps", "wakes", "woke"}));
  sleeper.queue->add([&] { sleeper.events.put("goes on"); });
  sleeper.events.waitFor(4);
}

TEST(SerialQueue, TasksOvertakeATaskThatGoesToSleepLater) {
  Sleeper sleeper;
  sleeper.queue->letOvertake();
  sleeper.addSleep();
  sleeper.addWake();
  const auto events = sleeper.events.waitFor(3);
  EXPECT_EQ(events[0], "sleeps");
  EXPECT_EQ(events[1], "wakes");
  EXPECT_EQ(events[2], "woke");
}

TEST(SerialQueue, ASleeperThatWakesGoesOnOnlyWhenTheTaskThatOvertookItHasEndedAndBeforeTheNext) {
  Sleeper sleeper;
  sleeper.addSleep();
  sleeper.events.waitFor(1);
  sleeper.queue->add([&] {
    {
      const ConditionLock lock(sleeper.condition);
      sleeper.signalled = true;
      sleeper.condition.signal();
    }
    // Long enough for the sleeper to go on beside this, if it would.
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    sleeper.events.put("overtaker ends");
  });
  sleeper.queue->add([&] { sleeper.events.put("next"); });
  sleeper.queue->letOvertake();
  EXPECT_EQ(sleeper.events.waitFor(4), (std::vector<std::string>{"sleeps", "overtaker ends", "woke", "next"}));
}

TEST(SerialQueue, ASleeperThatWakesGoesOnWhileTheTaskThatOvertookItSleepsItself) {
  Sleeper first;
  first.addSleep();
  first.events.waitFor(1);
  const NSCondition other = NSCondition::condition();
  bool freed = false;
  first.queue->add([&] {
    const ConditionLock lock(other);
    first.events.put("overtaker sleeps");
    while (!freed) other.wait();
    first.events.put("overtaker woke");
  });
  first.queue->letOvertake();
  first.events.waitFor(2);
  {
    const ConditionLock lock(first.condition);
    first.signalled = true;
    first.condition.signal();
  }
  first.events.waitFor(3);
  {
    const ConditionLock lock(other);
    freed = true;
    other.signal();
  }
  EXPECT_EQ(first.events.waitFor(4),
            (std::vector<std::string>{"sleeps", "overtaker sleeps", "woke", "overtaker woke"}));
}

// Takes as long as the patience is: the time is the kernel's.
TEST(SerialQueue, ASleeperThatWakesDoesNotWaitForEverForOneThatNeedsALockOfIts) {
  Sleeper sleeper;
  std::mutex ofTheUser;
  sleeper.queue->add([&] {
    const std::lock_guard held(ofTheUser);
    const ConditionLock lock(sleeper.condition);
    sleeper.events.put("sleeps");
    sleeper.condition.waitUntilDate(NSDate::dateWithTimeIntervalSinceNow(0.05));
    sleeper.events.put("woke");
  });
  sleeper.events.waitFor(1);
  sleeper.queue->add([&] {
    const std::lock_guard held(ofTheUser);
    sleeper.events.put("overtaker has the lock");
  });
  sleeper.queue->letOvertake();
  EXPECT_EQ(sleeper.events.waitFor(3), (std::vector<std::string>{"sleeps", "woke", "overtaker has the lock"}));
  // It has let go of it, too.
  const std::lock_guard last(ofTheUser);
}

// Puts its turns, and the word that tasks pause, into the list.
class Worker final : public Repeatable, public Aftermath {
 public:
  explicit Worker(Inbox<std::string>& events) : events_(events) {}
  void takeTurn(unsigned kind) override {
    if (onTurn) onTurn();
    events_.put("turn " + std::to_string(kind));
  }
  void tasksPause() noexcept override { events_.put("pause"); }

  std::function<void()> onTurn;

 private:
  Inbox<std::string>& events_;
};

TEST(SerialQueue, TurnsAreTakenInTheirPlaceAmongTheTasks) {
  const auto queue = Reactor::shared().makeQueue();
  Inbox<std::string> events;
  const auto worker = std::make_shared<Worker>(events);
  std::promise<void> begin;
  queue->add([begun = begin.get_future().share()] { begun.wait(); });
  queue->add(worker, 1, 2);
  queue->add([&] { events.put("task"); });
  queue->add(worker, 2, 1);
  begin.set_value();
  EXPECT_EQ(events.waitFor(4), (std::vector<std::string>{"turn 1", "turn 1", "task", "turn 2"}));
}

TEST(SerialQueue, WhatTasksLeaveIsDoneOnceWhenNoneWaits) {
  const auto queue = Reactor::shared().makeQueue();
  Inbox<std::string> events;
  const auto worker = std::make_shared<Worker>(events);
  EXPECT_FALSE(queue->leaves(worker)) << "outside of a task";
  Inbox<bool> left;
  worker->onTurn = [&] { left.put(queue->leaves(worker)); };
  std::promise<void> begin;
  queue->add([begun = begin.get_future().share()] { begun.wait(); });
  queue->add(worker, 1, 3);
  begin.set_value();
  EXPECT_EQ(events.waitFor(4), (std::vector<std::string>{"turn 1", "turn 1", "turn 1", "pause"}));
  EXPECT_EQ(left.soFar(), (std::vector<bool>{true, true, false})) << "the last has nobody behind it";
}

TEST(SerialQueue, WhatTasksLeaveIsDoneBeforeOneSleeps) {
  Sleeper sleeper;
  const auto worker = std::make_shared<Worker>(sleeper.events);
  std::promise<void> begin;
  sleeper.queue->add([begun = begin.get_future().share()] { begun.wait(); });
  worker->onTurn = [&] { sleeper.queue->leaves(worker); };
  sleeper.queue->add(worker, 1, 1);
  sleeper.addSleep();
  sleeper.queue->add([] {});
  begin.set_value();
  EXPECT_EQ(sleeper.events.waitFor(3), (std::vector<std::string>{"turn 1", "sleeps", "pause"}));
  {
    const ConditionLock lock(sleeper.condition);
    sleeper.signalled = true;
    sleeper.condition.signal();
  }
  EXPECT_EQ(sleeper.events.waitFor(4).back(), "woke");
}

}  // namespace
}  // namespace velto::transport
