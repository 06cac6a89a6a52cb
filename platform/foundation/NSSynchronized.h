#pragma once

#include <mutex>

#include "platform/foundation/NSObject.h"

// Holds the monitor of an object, a recursive lock that belongs to the object itself, from construction to destruction.
// The object is kept alive meanwhile. The monitor of nil does nothing; what lies in handles themselves (numbers, short
// texts) has one monitor for all that is identical to it.
class VELTO_EXPORT NSSynchronized {
 public:
  explicit NSSynchronized(NSObject object);
  // Takes the monitor if no other thread holds it, and does not wait.
  NSSynchronized(NSObject object, std::try_to_lock_t);
  ~NSSynchronized();
  NSSynchronized(const NSSynchronized&) = delete;
  NSSynchronized& operator=(const NSSynchronized&) = delete;

  // False for nil, and when another thread held the monitor.
  [[nodiscard]] bool holdsMonitor() const noexcept { return monitor_ != nullptr; }

 private:
  std::recursive_mutex* enter() const;
  void leave() const noexcept;

  const NSObject object_;
  std::recursive_mutex* monitor_ = nullptr;
};
