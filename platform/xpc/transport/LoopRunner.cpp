// The descriptor is written when the first queue comes, and read when the last is taken.

#include "platform/xpc/transport/LoopRunner.h"

#include <cstdint>
#include <utility>

#include "platform/xpc/system/SystemCalls.h"

namespace velto::transport {

namespace {

constinit thread_local bool dispatches = false;

}  // namespace

bool LoopRunner::isDispatching() noexcept {
  return dispatches;
}

std::shared_ptr<LoopRunner> LoopRunner::make() {
  system::Descriptor wakeUp(system::systemCalls().eventCounter());
  if (!wakeUp) return nullptr;
  const auto made = std::make_shared<LoopRunner>(std::move(wakeUp));
  return {made.get(), [made](LoopRunner* runner) { runner->abandon(); }};
}

void LoopRunner::schedule(std::shared_ptr<SerialQueue> queue) noexcept {
  {
    MutexLock lock(mutex_);
    if (!isAbandoned_) {
      waiting_.push(std::move(queue));
      if (count_++ > 0) return;
      const std::uint64_t one = 1;
      system::systemCalls().write(wakeUp_.get(), &one, sizeof(one));
      return;
    }
  }
  queue->abandon();
}

void LoopRunner::abandon() noexcept {
  {
    MutexLock lock(mutex_);
    isAbandoned_ = true;
  }
  while (const auto queue = takeNext()) queue->abandon();
}

std::shared_ptr<SerialQueue> LoopRunner::takeNext() {
  MutexLock lock(mutex_);
  auto queue = waiting_.pop();
  if (queue && --count_ == 0) {
    std::uint64_t written = 0;
    system::systemCalls().read(wakeUp_.get(), &written, sizeof(written));
  }
  return queue;
}

bool LoopRunner::othersWait() const noexcept {
  MutexLock lock(mutex_);
  return count_ > 0;
}

bool LoopRunner::dispatch() {
  std::size_t turns = 0;
  {
    MutexLock lock(mutex_);
    turns = count_;
  }
  const bool outer = std::exchange(dispatches, true);
  for (; turns > 0; --turns) {
    const auto queue = takeNext();
    if (!queue) break;
    queue->drain();
  }
  dispatches = outer;
  return othersWait();
}

}  // namespace velto::transport
