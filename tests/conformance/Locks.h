#pragma once

#include <chrono>
#include <future>
#include <vector>

#include <gtest/gtest.h>

#include "platform/foundation/NSCondition.h"
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

// The compiler's analysis does not follow locks that are taken in one loop and let go of in another.
inline void lockAll(const std::vector<NSCondition>& conditions) VELTO_NO_THREAD_SAFETY_ANALYSIS {
  for (const NSCondition& condition : conditions) condition.lock();
}

// Lets go of the locks. Each has been signalled while this thread held it, which ends a wait that begins only now.
inline void expectSignals(const std::vector<NSCondition>& conditions) VELTO_NO_THREAD_SAFETY_ANALYSIS {
  for (const NSCondition& condition : conditions) {
    EXPECT_TRUE(condition.waitUntilDate(NSDate::dateWithTimeIntervalSinceNow(static_cast<double>(kBound.count()))));
    condition.unlock();
  }
}

}  // namespace velto::testing
