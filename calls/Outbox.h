#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <utility>

#include "calls/Peer.h"
#include "platform/foundation/NSDictionary.h"
#include "platform/foundation/ThreadAnnotations.h"

namespace velto::calls {

// Messages for one client, each sent as soon as it keeps up, in order.
//
// Thread-safe, and never blocks.
class Outbox {
 public:
  explicit Outbox(std::shared_ptr<Peer> peer) : peer_(std::move(peer)) {}

  // From now on messages are for it, too; and from now on they may be sent, which is soon after: until then all are
  // kept.
  void expect();
  void open();
  bool isExpected() const;
  // False, and it is not kept, when limits::kBroadcastBacklog wait already.
  bool post(const NSDictionary& message);
  // The client keeps up again.
  void flush();
  const std::shared_ptr<Peer>& peer() const noexcept { return peer_; }

 private:
  enum class State : std::uint8_t { silent, expects, open };

  void sendWaiting() VELTO_REQUIRES(mutex_);

  const std::shared_ptr<Peer> peer_;
  mutable Mutex mutex_;
  std::deque<NSDictionary> waiting_ VELTO_GUARDED_BY(mutex_);
  State state_ VELTO_GUARDED_BY(mutex_) = State::silent;
};

}  // namespace velto::calls
