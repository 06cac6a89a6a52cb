#include "platform/xpc/transport/Traffic.h"

#include <utility>

namespace velto::transport {

xpc::ListenerTraffic Traffic::sum() const {
  MutexLock lock(mutex_);
  xpc::ListenerTraffic sum = past_;
  sum.connections = open_.size();
  for (const Share* const share : open_) {
    share->addTo(sum);
    const Holding& holding = *share->holding_;
    sum.undeliveredBytes += holding.bytes(Holding::Place::input) + holding.bytes(Holding::Place::calls) +
                            holding.bytes(Holding::Place::replies);
    sum.unsentBytes += holding.bytes(Holding::Place::waiting) + holding.bytes(Holding::Place::output);
  }
  return sum;
}

void Traffic::enter(const Share& share) {
  MutexLock lock(mutex_);
  open_.insert(&share);
  ++past_.accepted;
}

void Traffic::leave(const Share& share) {
  MutexLock lock(mutex_);
  open_.erase(&share);
  share.addTo(past_);
}

void Traffic::Share::open(std::shared_ptr<const Holding> holding) {
  holding_ = std::move(holding);
  traffic_->enter(*this);
  isOpen_ = true;
}

void Traffic::Share::close() noexcept {
  if (isOpen_.exchange(false)) traffic_->leave(*this);
}

void Traffic::Share::addTo(xpc::ListenerTraffic& sum) const noexcept {
  sum.messagesIn += messagesIn_.load(std::memory_order_relaxed);
  sum.messagesOut += messagesOut_.load(std::memory_order_relaxed);
  sum.bytesIn += bytesIn_.load(std::memory_order_relaxed);
  sum.bytesOut += bytesOut_.load(std::memory_order_relaxed);
}

}  // namespace velto::transport
