#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <utility>
#include <vector>

#include "platform/foundation/ThreadAnnotations.h"
#include "platform/xpc/system/Descriptor.h"

namespace velto::transport {

// What is to be done later, on one kernel timer that is armed only while something is. Thread-safe.
class TimerQueue {
 public:
  using Clock = std::chrono::steady_clock;
  using Identifier = std::uint64_t;
  using Action = std::function<void()>;

  TimerQueue();

  // Makes the kernel's timer if that has failed before; until then actions are only kept. False, and errno, when the
  // kernel has none to give.
  bool makeTimer();
  // The descriptor becomes readable when something is due; borrowed.
  int descriptor();

  Identifier add(Clock::duration delay, Action action);
  // Forgets an action that has not been taken yet.
  void cancel(Identifier identifier);
  // Removes and returns what is due by now.
  std::vector<Action> takeDue();

 private:
  void arm() VELTO_REQUIRES(mutex_);

  Mutex mutex_;
  system::Descriptor timer_ VELTO_GUARDED_BY(mutex_);
  std::map<std::pair<Clock::time_point, Identifier>, Action> actions_ VELTO_GUARDED_BY(mutex_);
  std::map<Identifier, Clock::time_point> dueTimes_ VELTO_GUARDED_BY(mutex_);
  Identifier last_ VELTO_GUARDED_BY(mutex_) = 0;
};

}  // namespace velto::transport
