#include "calls/Outbox.h"

#include <utility>

#include "platform/xpc/contract/Limits.h"

namespace velto::calls {

void Outbox::expect() {
  MutexLock lock(mutex_);
  state_ = State::expects;
}

bool Outbox::isExpected() const {
  MutexLock lock(mutex_);
  return state_ != State::silent;
}

void Outbox::open() {
  MutexLock lock(mutex_);
  state_ = State::open;
  sendWaiting();
}

bool Outbox::post(const NSDictionary& message) {
  MutexLock lock(mutex_);
  if (state_ == State::silent) return true;
  waiting_.push_back(message);
  sendWaiting();
  if (state_ == State::expects || waiting_.size() <= limits::kBroadcastBacklog) return true;
  waiting_.pop_back();
  return false;
}

void Outbox::flush() {
  MutexLock lock(mutex_);
  sendWaiting();
}

// With the lock held: sending does not block, and calls nobody who needs it.
void Outbox::sendWaiting() {
  while (state_ == State::open && !waiting_.empty() && peer_->isWritable()) {
    peer_->send(waiting_.front(), nullptr);
    waiting_.pop_front();
  }
}

}  // namespace velto::calls
