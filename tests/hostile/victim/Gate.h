#pragma once

#include <condition_variable>
#include <mutex>

#include "VeltoIPC/VeltoIPC.h"

namespace velto::hostile {

// Holds callbacks up until somebody opens it; then it stays open.
//
// Thread-safe.
class Gate final {
 public:
  // As a program that knows nothing of the platform waits: the platform cannot see that this thread sleeps.
  void pass() {
    std::unique_lock lock(mutex_);
    opened_.wait(lock, [this] { return isOpen_; });
  }

  // As one that waits in the platform's own condition.
  void passInCondition() {
    const ConditionLock lock(condition_);
    while (!isOpenForCondition_) condition_.wait();
  }

  void open() {
    {
      const std::lock_guard lock(mutex_);
      isOpen_ = true;
    }
    opened_.notify_all();
    const ConditionLock lock(condition_);
    isOpenForCondition_ = true;
    condition_.broadcast();
  }

 private:
  std::mutex mutex_;
  std::condition_variable opened_;
  bool isOpen_ = false;
  const NSCondition condition_ = NSCondition::condition();
  bool isOpenForCondition_ VELTO_GUARDED_BY(condition_) = false;
};

}  // namespace velto::hostile
