#pragma once

#include <chrono>
#include <deque>
#include <functional>
#include <future>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "platform/foundation/Foundation.h"
#include "tests/support/Waiting.h"

namespace velto::testing {

// Whether the call is still under way after a while. It cannot fail for a call that waits for us.
template <class T>
bool isHeldUp(const std::future<T>& call) {
  return call.wait_for(std::chrono::milliseconds(30)) == std::future_status::timeout;
}

// A thread that takes the condition's lock and lets go of it.
inline std::future<void> passThrough(const NSCondition& condition) {
  return inBackground([condition] { const ConditionLock lock(condition); });
}

// Waits until somebody holds the condition's lock and does not let go of it: `passing` is the thread that it holds up.
inline bool comesToBeHeld(const NSCondition& condition, std::future<void>& passing) {
  return eventually([&] {
    passing = passThrough(condition);
    return isHeldUp(passing);
  });
}

// An error that holds something whose end is told.
inline NSError errorWhoseEnd(std::function<void()> isTold) {
  return NSError::errorWithDomain("d", 1, {{"held", NSData::dataWithBytesNoCopy("", 0, std::move(isTold))}});
}

// The locks of conditions, each held by a thread of its own until expectSignals(), which must be called.
class HeldConditions {
 public:
  explicit HeldConditions(const std::vector<NSCondition>& conditions) {
    for (const NSCondition& condition : conditions) {
      std::promise<void>& held = held_.emplace_back();
      waits_.push_back(inBackground([condition, &held, go = go_] {
        const ConditionLock lock(condition);
        held.set_value();
        go.wait();
        return condition.waitUntilDate(NSDate::dateWithTimeIntervalSinceNow(static_cast<double>(kBound.count())));
      }));
    }
    for (std::promise<void>& held : held_) held.get_future().wait();
  }

  // Each has been signalled while its lock was held, which ends a wait that begins only now.
  void expectSignals() {
    start_.set_value();
    for (auto& wait : waits_) EXPECT_TRUE(finish(wait));
  }

 private:
  std::promise<void> start_;
  const std::shared_future<void> go_ = start_.get_future().share();
  std::deque<std::promise<void>> held_;
  std::vector<std::future<bool>> waits_;
};

}  // namespace velto::testing
