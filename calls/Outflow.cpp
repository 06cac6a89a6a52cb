#include "calls/Outflow.h"

#include <algorithm>
#include <limits>
#include <utility>

#include "calls/ItemSize.h"
#include "platform/foundation/NSDate.h"
#include "platform/xpc/DelayedCall.h"
#include "platform/xpc/contract/Delivery.h"
#include "platform/xpc/contract/Limits.h"

namespace velto::calls {

void Outflow::setSend(Send send) {
  const ConditionLock lock(condition_);
  send_ = std::move(send);
}

void Outflow::allow(std::uint64_t items, std::uint64_t bytes) {
  // No more than any end keeps, whatever is said.
  constexpr std::uint64_t kMostItems = 2 * limits::kStreamItems;
  constexpr std::uint64_t kMostBytes = 2 * (limits::kStreamBytes + limits::kMaximumFrameBytes);
  {
    const ConditionLock lock(condition_);
    allowedItems_ = std::min(kMostItems, allowedItems_ + std::min(kMostItems, items));
    const auto more = static_cast<std::int64_t>(std::min(kMostBytes, bytes));
    allowedBytes_ = std::min(static_cast<std::int64_t>(kMostBytes), allowedBytes_ + more);
    condition_.signal();
  }
  sendWaiting();
}

std::optional<CallError> Outflow::write(const NSDictionary& item, std::optional<SteadyTime> deadline, bool waits) {
  const std::size_t bytes = sizeOfItem(item);
  {
    const bool maySleep = waits && !xpc::isThreadOfThePlatform() && !Loop::isDispatching();
    const ConditionLock lock(condition_);
    while (!ended_ && (!hasRoom() || !waiting_.empty() || sendsWaiting_)) {
      if (!maySleep) return CallError(Failure::full, "the other end is behind");
      const auto now = SteadyTime::clock::now();
      if (deadline && now >= *deadline) {
        return CallError(Failure::timedOut, "the other end was behind all the time");
      }
      if (deadline) {
        const double left = std::chrono::duration<double>(*deadline - now).count();
        condition_.waitUntilDate(NSDate::dateWithTimeIntervalSinceNow(left));
      } else {
        condition_.wait();
      }
    }
    // A signal wakes one; there may be room for others.
    condition_.signal();
    if (ended_) return ended_;
    --allowedItems_;
    allowedBytes_ -= static_cast<std::int64_t>(bytes);
  }
  return sendNow(item, bytes);
}

// The room has been taken; it is given back for an item that does not go.
std::optional<CallError> Outflow::sendNow(const NSDictionary& item, std::size_t bytes) {
  Send send;
  {
    const ConditionLock lock(condition_);
    if (ended_) return ended_;
    send = send_;
  }
  auto error = send(item);
  const ConditionLock lock(condition_);
  if (error) {
    ++allowedItems_;
    allowedBytes_ += static_cast<std::int64_t>(bytes);
    condition_.signal();
  } else {
    ++count_;
  }
  // Why the stream has ended meanwhile says more than that it has.
  return error && ended_ ? ended_ : error;
}

void Outflow::writeLater(NSDictionary item, Written written) {
  const std::size_t bytes = sizeOfItem(item);
  std::optional<CallError> ended;
  {
    const ConditionLock lock(condition_);
    ended = ended_;
    if (!ended) waiting_.push_back({std::move(item), bytes, std::exchange(written, nullptr)});
  }
  if (ended) return written(std::move(ended));
  sendWaiting();
}

// One at a time, so that the order stays.
void Outflow::sendWaiting() {
  for (;;) {
    Waiting next;
    {
      const ConditionLock lock(condition_);
      if (sendsWaiting_ || waiting_.empty() || !hasRoom()) return;
      sendsWaiting_ = true;
      next = std::move(waiting_.front());
      waiting_.pop_front();
      --allowedItems_;
      allowedBytes_ -= static_cast<std::int64_t>(next.bytes);
    }
    auto error = sendNow(next.item, next.bytes);
    {
      const ConditionLock lock(condition_);
      sendsWaiting_ = false;
      condition_.signal();
    }
    next.written(std::move(error));
  }
}

void Outflow::end(const CallError& reason) {
  std::deque<Waiting> waiting;
  Send send;
  {
    const ConditionLock lock(condition_);
    if (ended_) return;
    ended_ = reason;
    waiting.swap(waiting_);
    send.swap(send_);
    condition_.signal();
  }
  for (Waiting& each : waiting) each.written(reason);
}

std::uint64_t Outflow::count() const {
  const ConditionLock lock(condition_);
  return count_;
}

}  // namespace velto::calls
