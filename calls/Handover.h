#pragma once

#include <optional>

#include "VeltoIPC/Outcome.h"
#include "platform/foundation/ThreadAnnotations.h"

namespace velto::calls {

// Whether something that is handed to the connection fails before that returns.
class Handover {
 public:
  // Whether this is inside of the very call that hands it over. Then it was not taken; what fails on another thread at
  // the same time was, and the other end may have seen it.
  bool isHere() const noexcept { return maker_ == &markOfThread; }
  // The failure came in time to be told by finish().
  bool fails(const CallError& why) {
    MutexLock lock(mutex_);
    if (isOver_) return false;
    error_ = why;
    return true;
  }
  std::optional<CallError> finish() {
    MutexLock lock(mutex_);
    isOver_ = true;
    return error_;
  }

 private:
  // Has another address in each thread.
  static inline constinit thread_local char markOfThread = 0;

  const void* const maker_ = &markOfThread;
  Mutex mutex_;
  bool isOver_ VELTO_GUARDED_BY(mutex_) = false;
  std::optional<CallError> error_ VELTO_GUARDED_BY(mutex_);
};

}  // namespace velto::calls
