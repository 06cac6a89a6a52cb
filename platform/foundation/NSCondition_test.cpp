#include "platform/foundation/NSCondition.h"

#include <atomic>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "platform/foundation/Foundation.h"

namespace {

using velto::ConditionLock;
using velto::ConditionSleep;
using velto::WaitingWork;
using velto::WaitObserver;

// A bound that no working condition comes near.
NSDate patience() {
  return NSDate::dateWithTimeIntervalSinceNow(60);
}

void signalOnAnotherThread(const NSCondition& condition) {
  std::thread([condition] { condition.signal(); }).join();
}

TEST(NSCondition, ASignalSentWhileTheLockIsHeldEndsTheNextWait) {
  const NSCondition condition = NSCondition::condition();
  const ConditionLock lock(condition);
  signalOnAnotherThread(condition);
  EXPECT_TRUE(condition.waitUntilDate(patience()));
  signalOnAnotherThread(condition);
  condition.wait();
  EXPECT_FALSE(condition.waitUntilDate(NSDate::dateWithTimeIntervalSinceNow(0.001)));
}

TEST(NSCondition, ABroadcastSentWhileTheLockIsHeldEndsTheNextWait) {
  const NSCondition condition = NSCondition::condition();
  const ConditionLock lock(condition);
  std::thread([condition] { condition.broadcast(); }).join();
  EXPECT_TRUE(condition.waitUntilDate(patience()));
}

TEST(NSCondition, ASignalFromTheHolderItselfEndsItsNextWait) {
  const NSCondition condition = NSCondition::condition();
  const ConditionLock lock(condition);
  condition.signal();
  EXPECT_TRUE(condition.waitUntilDate(nil));
  EXPECT_FALSE(condition.waitUntilDate(nil));
}

TEST(NSCondition, ASignalSentBeforeTheLockWasTakenEndsNoWait) {
  const NSCondition condition = NSCondition::condition();
  condition.signal();
  const ConditionLock lock(condition);
  EXPECT_FALSE(condition.waitUntilDate(NSDate::date()));
}

TEST(NSCondition, APastDateDoesNotWait) {
  const NSCondition condition = NSCondition::condition();
  const ConditionLock lock(condition);
  EXPECT_FALSE(condition.waitUntilDate(NSDate::dateWithTimeIntervalSinceNow(-1e300)));
  EXPECT_FALSE(condition.waitUntilDate(nil));
  signalOnAnotherThread(condition);
  EXPECT_TRUE(condition.waitUntilDate(NSDate::dateWithTimeIntervalSinceNow(-1)));
}

TEST(NSCondition, AWaitUntilADateEndsThereAndNotBefore) {
  const NSCondition condition = NSCondition::condition();
  const ConditionLock lock(condition);
  const NSDate date = NSDate::dateWithTimeIntervalSinceNow(0.02);
  EXPECT_FALSE(condition.waitUntilDate(date));
  EXPECT_LE(date.timeIntervalSinceNow(), 0);
}

TEST(NSCondition, AWaitForADateOfTheFarFutureEndsWithASignal) {
  const NSCondition condition = NSCondition::condition();
  bool ready = false;
  std::thread signaller([&] {
    const ConditionLock lock(condition);
    ready = true;
    condition.signal();
  });
  {
    const ConditionLock lock(condition);
    while (!ready) EXPECT_TRUE(condition.waitUntilDate(NSDate::dateWithTimeIntervalSinceNow(1e300)));
  }
  signaller.join();
}

TEST(NSCondition, TheLockIsFreeDuringAWaitAndHeldAfterIt) {
  const NSCondition condition = NSCondition::condition();
  int shared = 0;
  std::thread other([&] {
    for (int round = 0; round < 1000; ++round) {
      const ConditionLock lock(condition);
      ++shared;
      condition.signal();
    }
  });
  int seen = 0;
  while (seen < 1000) {
    const ConditionLock lock(condition);
    if (shared == seen) condition.wait();
    seen = shared;
  }
  other.join();
  EXPECT_EQ(shared, 1000);
}

// The whole promise: the signaller never takes the lock, so every interleaving of test, signal and sleep comes up.
TEST(NSCondition, NeverLosesASignalFromASignallerWithoutTheLock) {
  constexpr int kRounds = 20'000;
  const NSCondition there = NSCondition::condition();
  const NSCondition back = NSCondition::condition();
  std::atomic<int> sent{0};
  std::atomic<int> answered{0};
  std::atomic<bool> lost{false};
  const auto waitFor = [&](const NSCondition& condition, const std::atomic<int>& value, int expected) {
    const ConditionLock lock(condition);
    while (value.load() != expected) {
      if (!condition.waitUntilDate(patience())) lost = true;
      if (lost) return;
    }
  };
  std::thread other([&] {
    for (int round = 1; round <= kRounds && !lost; ++round) {
      waitFor(there, sent, round);
      answered.store(round);
      back.signal();
    }
  });
  for (int round = 1; round <= kRounds && !lost; ++round) {
    sent.store(round);
    there.signal();
    waitFor(back, answered, round);
  }
  other.join();
  EXPECT_FALSE(lost);
  EXPECT_EQ(answered, kRounds);
}

TEST(NSCondition, EachOfManySignalsWakesOneOfManyWaiters) {
  constexpr int kThreads = 8;
  constexpr int kItems = 8'000;
  const NSCondition condition = NSCondition::condition();
  std::atomic<int> available{0};
  std::atomic<int> taken{0};
  std::atomic<bool> lost{false};
  std::vector<std::thread> consumers;
  for (int each = 0; each < kThreads; ++each) {
    consumers.emplace_back([&] {
      for (int item = 0; item < kItems / kThreads; ++item) {
        const ConditionLock lock(condition);
        while (available.load() == 0 && !lost) {
          if (!condition.waitUntilDate(patience())) lost = true;
        }
        if (lost) return;
        --available;
        ++taken;
      }
    });
  }
  std::vector<std::thread> producers;
  for (int each = 0; each < 2; ++each) {
    producers.emplace_back([&] {
      for (int item = 0; item < kItems / 2; ++item) {
        ++available;
        condition.signal();
      }
    });
  }
  for (std::thread& thread : producers) thread.join();
  for (std::thread& thread : consumers) thread.join();
  EXPECT_FALSE(lost);
  EXPECT_EQ(taken, kItems);
}

TEST(NSCondition, ABroadcastWakesAllWaiters) {
  const NSCondition condition = NSCondition::condition();
  std::atomic<bool> open{false};
  std::atomic<int> passed{0};
  std::vector<std::thread> waiters;
  for (int each = 0; each < 8; ++each) {
    waiters.emplace_back([&] {
      const ConditionLock lock(condition);
      while (!open) {
        if (!condition.waitUntilDate(patience())) return;
      }
      ++passed;
    });
  }
  open = true;
  condition.broadcast();
  for (std::thread& thread : waiters) thread.join();
  EXPECT_EQ(passed, 8);
}

class CountingObserver final : public WaitObserver {
 public:
  void threadWillWait() noexcept override {
    ++willWait;
    if (signalInstead) signalInstead.signal();
  }
  void threadDidWait() noexcept override { ++didWait; }

  NSCondition signalInstead;
  int willWait = 0;
  int didWait = 0;
};

TEST(NSCondition, TheObserverHearsOfRealSleepsOnly) {
  CountingObserver observer;
  WaitObserver* const former = WaitObserver::install(&observer);
  const NSCondition condition = NSCondition::condition();
  {
    const ConditionLock lock(condition);
    condition.signal();
    condition.wait();
    EXPECT_FALSE(condition.waitUntilDate(NSDate::date()));
    EXPECT_EQ(observer.willWait, 0);
    EXPECT_FALSE(condition.waitUntilDate(NSDate::dateWithTimeIntervalSinceNow(0.001)));
    EXPECT_EQ(observer.willWait, 1);
    EXPECT_EQ(observer.didWait, 1);
  }
  EXPECT_EQ(WaitObserver::install(former), &observer);
  EXPECT_EQ(former, nullptr);
}

TEST(NSCondition, TheObserverIsCalledWithNoLockHeld) {
  CountingObserver observer;
  const NSCondition condition = NSCondition::condition();
  observer.signalInstead = condition;  // would block for ever on a lock of the condition's own
  WaitObserver::install(&observer);
  const ConditionLock lock(condition);
  EXPECT_TRUE(condition.waitUntilDate(patience()));
  WaitObserver::install(nullptr);
  EXPECT_EQ(observer.willWait, 1);
  EXPECT_EQ(observer.didWait, 1);
}

TEST(NSCondition, TheObserverBelongsToItsThread) {
  CountingObserver observer;
  WaitObserver::install(&observer);
  std::thread([] {
    const NSCondition condition = NSCondition::condition();
    const ConditionLock lock(condition);
    condition.waitUntilDate(NSDate::dateWithTimeIntervalSinceNow(0.001));
    EXPECT_EQ(WaitObserver::install(nullptr), nullptr);
  }).join();
  WaitObserver::install(nullptr);
  EXPECT_EQ(observer.willWait, 0);
}

// Works until it is told to stop, or until the sleep is over, and counts how often it was interrupted.
class CountingWork final : public WaitingWork {
 public:
  void work(const ConditionSleep& sleep) noexcept override {
    ++works;
    hasDeadline = sleep.deadline().has_value();
    if (begin) begin();
    while (!sleep.isOver() && !stops) std::this_thread::yield();
    wasOver = sleep.isOver();
  }
  void interrupt() noexcept override { ++interruptions; }

  std::function<void()> begin;
  bool stops = false;
  int works = 0;
  bool hasDeadline = false;
  bool wasOver = false;
  std::atomic<int> interruptions{0};
};

TEST(NSCondition, AThreadWithWorkWorksUntilASignalInsteadOfSleeping) {
  CountingWork work;
  const NSCondition condition = NSCondition::condition();
  work.begin = [condition] { signalOnAnotherThread(condition); };
  EXPECT_EQ(WaitingWork::install(&work), nullptr);
  {
    const ConditionLock lock(condition);
    condition.wait();
  }
  EXPECT_EQ(WaitingWork::install(nullptr), &work);
  EXPECT_EQ(work.works, 1);
  EXPECT_TRUE(work.wasOver);
  EXPECT_FALSE(work.hasDeadline);
  EXPECT_EQ(work.interruptions, 1);
  condition.signal();
  EXPECT_EQ(work.interruptions, 1);
}

TEST(NSCondition, WorkThatRunsOutLeavesTheThreadAsleepUntilASignalOrTheDate) {
  CountingWork work;
  work.stops = true;
  WaitingWork::install(&work);
  const NSCondition condition = NSCondition::condition();
  const ConditionLock lock(condition);
  EXPECT_FALSE(condition.waitUntilDate(NSDate::dateWithTimeIntervalSinceNow(0.001)));
  EXPECT_TRUE(work.hasDeadline);
  work.begin = [condition] { signalOnAnotherThread(condition); };
  EXPECT_TRUE(condition.waitUntilDate(patience()));
  WaitingWork::install(nullptr);
  EXPECT_EQ(work.works, 2);
}

TEST(NSCondition, AWaitThatDoesNotSleepDoesNoWork) {
  CountingWork work;
  WaitingWork::install(&work);
  const NSCondition condition = NSCondition::condition();
  const ConditionLock lock(condition);
  condition.signal();
  condition.wait();
  EXPECT_FALSE(condition.waitUntilDate(NSDate::date()));
  WaitingWork::install(nullptr);
  EXPECT_EQ(work.works, 0);
}

TEST(NSCondition, SignalsEndEveryWorkOfManyThreads) {
  constexpr int kThreads = 8;
  constexpr int kRounds = 500;
  const NSCondition condition = NSCondition::condition();
  std::atomic<int> round{0};
  std::atomic<int> arrived{0};
  std::vector<std::thread> waiters;
  for (int each = 0; each < kThreads; ++each) {
    waiters.emplace_back([&] {
      CountingWork work;
      WaitingWork::install(&work);
      for (int next = 1; next <= kRounds; ++next) {
        const ConditionLock lock(condition);
        while (round < next) condition.wait();
        ++arrived;
      }
      WaitingWork::install(nullptr);
    });
  }
  for (int next = 1; next <= kRounds; ++next) {
    round = next;
    condition.broadcast();
    while (arrived < next * kThreads) std::this_thread::yield();
  }
  for (std::thread& thread : waiters) thread.join();
  EXPECT_EQ(arrived, kThreads * kRounds);
}

TEST(NSCondition, CallsOnNilDoNothing) {
  const NSCondition none;
  const ConditionLock lock(none);
  none.wait();
  EXPECT_FALSE(none.waitUntilDate(patience()));
  none.signal();
  none.broadcast();
}

TEST(NSCondition, IsEqualOnlyToItself) {
  const NSCondition condition = NSCondition::condition();
  const NSCondition same = condition;
  EXPECT_EQ(condition, same);
  EXPECT_NE(condition, NSCondition::condition());
  EXPECT_EQ(condition.getClass().name().string(), "NSCondition");
}

}  // namespace
