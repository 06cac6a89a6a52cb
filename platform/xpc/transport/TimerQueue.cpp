// Actions in order of time, and the kernel told of the first one only. Arming is done under the lock, so that the
// kernel's timer is never set for anything but the first.

#include "platform/xpc/transport/TimerQueue.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "platform/logging/DeferredLog.h"
#include "platform/logging/VeltoLogging.h"
#include "platform/xpc/system/SystemCalls.h"

namespace velto::transport {

TimerQueue::TimerQueue() {
  makeTimer();
}

bool TimerQueue::makeTimer() {
  const LogDeferral deferral;
  MutexLock lock(mutex_);
  if (timer_) return true;
  timer_ = system::Descriptor(system::systemCalls().timer());
  if (timer_ && !actions_.empty()) arm();
  return static_cast<bool>(timer_);
}

int TimerQueue::descriptor() {
  MutexLock lock(mutex_);
  return timer_.get();
}

void TimerQueue::arm() {
  if (!timer_) return;
  std::uint64_t nanoseconds = 0;
  if (!actions_.empty()) {
    const auto delay = actions_.begin()->first.first - Clock::now();
    // 0 would disarm; what is due already is due in a nanosecond.
    nanoseconds = static_cast<std::uint64_t>(
        std::max<std::int64_t>(1, std::chrono::duration_cast<std::chrono::nanoseconds>(delay).count()));
  }
  auto& calls = system::systemCalls();
  // The kernel has no reason to refuse this. If it does so once, what waits for its time must not wait for ever.
  if (calls.setTimer(timer_.get(), nanoseconds) == 0 || calls.setTimer(timer_.get(), nanoseconds) == 0) return;
  VKTLoggingLog(VKTLogGetAnchor(), VKTLogLevelFailure, "The timer cannot be set: %s", std::strerror(errno));
}

TimerQueue::Identifier TimerQueue::add(Clock::duration delay, Action action) {
  const LogDeferral deferral;
  MutexLock lock(mutex_);
  const Identifier identifier = ++last_;
  const auto now = Clock::now();
  const auto due = now + std::min(delay, Clock::time_point::max() - now);
  const auto place = actions_.emplace(std::pair(due, identifier), std::move(action)).first;
  dueTimes_.emplace(identifier, due);
  if (place == actions_.begin()) arm();
  return identifier;
}

void TimerQueue::cancel(Identifier identifier) {
  Action forgotten;  // destroyed after the lock is released
  const LogDeferral deferral;
  MutexLock lock(mutex_);
  const auto due = dueTimes_.find(identifier);
  if (due == dueTimes_.end()) return;
  const auto place = actions_.find(std::pair(due->second, identifier));
  const bool wasFirst = place == actions_.begin();
  forgotten = std::move(place->second);
  actions_.erase(place);
  dueTimes_.erase(due);
  if (wasFirst) arm();
}

std::vector<TimerQueue::Action> TimerQueue::takeDue() {
  std::vector<Action> due;
  const LogDeferral deferral;
  MutexLock lock(mutex_);
  while (!actions_.empty() && actions_.begin()->first.first <= Clock::now()) {
    dueTimes_.erase(actions_.begin()->first.second);
    due.push_back(std::move(actions_.begin()->second));
    actions_.erase(actions_.begin());
  }
  arm();
  return due;
}

}  // namespace velto::transport
