#include "platform/xpc/transport/LaterTurns.h"

#include <cstdint>
#include <utility>

#include "platform/xpc/system/SystemCalls.h"

namespace velto::transport {

bool LaterTurns::makeBell() {
  MutexLock lock(mutex_);
  if (bell_) return true;
  bell_ = system::Descriptor(system::systemCalls().eventCounter());
  if (!bell_) return false;
  if (first_) ring();
  return true;
}

int LaterTurns::descriptor() {
  MutexLock lock(mutex_);
  return bell_.get();
}

void LaterTurns::add(std::shared_ptr<TurnTaker> taker) noexcept {
  bool isAlone = false;
  {
    MutexLock lock(mutex_);
    isAlone = first_ == nullptr;
    (isAlone ? first_ : last_->next_) = taker;
    last_ = taker.get();
  }
  if (isAlone && taker->remind()) return;
  MutexLock lock(mutex_);
  ring();
}

void LaterTurns::takeNext() {
  std::shared_ptr<TurnTaker> next;
  {
    MutexLock lock(mutex_);
    if (!first_) return;
    next = takeFirst();
    // Before the turn, which others need not wait for.
    if (first_) ring();
  }
  next->takeTurn();
}

bool LaterTurns::takeOut(const TurnTaker& taker) noexcept {
  std::shared_ptr<TurnTaker> taken;  // let go of after the lock
  MutexLock lock(mutex_);
  if (first_.get() != &taker || last_ != &taker) return false;
  taken = takeFirst();
  return true;
}

std::shared_ptr<TurnTaker> LaterTurns::takeFirst() noexcept {
  return std::exchange(first_, std::move(first_->next_));
}

void LaterTurns::ring() noexcept {
  const std::uint64_t one = 1;
  if (bell_) system::systemCalls().write(bell_.get(), &one, sizeof(one));
}

}  // namespace velto::transport
