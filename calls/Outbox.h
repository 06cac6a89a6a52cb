#pragma once

#include <deque>
#include <memory>
#include <utility>

#include "calls/Peer.h"
#include "platform/foundation/NSDictionary.h"
#include "platform/foundation/ThreadAnnotations.h"

namespace velto::calls {

// Messages for one client, each sent as soon as it can be talked to and keeps up, in order.
//
// Thread-safe, and never blocks.
class Outbox {
 public:
  explicit Outbox(std::shared_ptr<Peer> peer) : peer_(std::move(peer)) {}

  // False, and nothing is kept, when limits::kBroadcastBacklog wait already.
  bool post(const NSDictionary& message);
  // The client can be talked to.
  void open();
  // It keeps up again.
  void flush();
  const std::shared_ptr<Peer>& peer() const noexcept { return peer_; }

 private:
  const std::shared_ptr<Peer> peer_;
  Mutex mutex_;
  std::deque<NSDictionary> waiting_ VELTO_GUARDED_BY(mutex_);
  bool isOpen_ VELTO_GUARDED_BY(mutex_) = false;
  bool isSending_ VELTO_GUARDED_BY(mutex_) = false;
};

}  // namespace velto::calls
