#pragma once

#include <future>

#include "platform/foundation/NSCondition.h"
#include "tests/support/Waiting.h"

namespace velto::testing {

// Tells one thread when another falls asleep in an NSCondition. The sleeper makes a Guard of it on its own thread.
class SleepWatch {
 public:
  class Guard final : public WaitObserver {
   public:
    explicit Guard(SleepWatch& watch) : watch_(watch), former_(install(this)) {}
    ~Guard() { install(former_); }
    Guard(const Guard&) = delete;
    Guard& operator=(const Guard&) = delete;

    void threadWillWait() noexcept override {
      if (told_) return;
      told_ = true;
      watch_.asleep_.set_value();
    }
    void threadDidWait() noexcept override {}

   private:
    SleepWatch& watch_;
    WaitObserver* const former_;
    bool told_ = false;
  };

  // Returns once the sleeper is about to sleep, for the first time.
  void waitUntilAsleep() {
    auto future = asleep_.get_future();
    finish(future);
  }

 private:
  std::promise<void> asleep_;
};

}  // namespace velto::testing
