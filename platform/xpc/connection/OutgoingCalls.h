#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/foundation/Fifo.h"
#include "platform/foundation/NSError.h"
#include "platform/xpc/connection/CallTable.h"
#include "platform/xpc/connection/OutgoingCall.h"
#include "platform/xpc/contract/Limits.h"
#include "platform/xpc/interface/NSXPCInterface.h"
#include "platform/xpc/wire/Frame.h"
#include "platform/xpc/wire/Messages.h"

namespace velto::xpc {

// What goes out: the calls of one end that are under way, what the other end has stated to take, and the credit that it
// has given. Calls go out in the order in which they were made; without credit they wait here, while replies, and calls
// that run ahead of others, pass them.
// Not synchronised: the connection's lock guards it.
class OutgoingCalls {
 public:
  // What may be called. The one before comes back, to be let go of where user code may run.
  void swapInterface(std::shared_ptr<NSXPCInterface>& interface) noexcept { std::swap(interface_, interface); }
  const std::shared_ptr<NSXPCInterface>& interface() const noexcept { return interface_; }

  // Whether the other end has said that it takes data in regions.
  bool peerTakesRegions() const noexcept { return peerMaximumRegionBytes_.value_or(0) > 0; }
  // What of a frame is more than the other end has stated to take; "" when nothing is. Before it has stated anything a
  // frame with regions waits.
  std::string overPeerLimits(const wire::Frame& frame) const;
  // Why a call cannot be kept until it may go, when the channel has so many bytes waiting; nil when it can.
  NSError refusalToKeep(const wire::Frame& frame, bool wantsReply, std::size_t waitingInChannel) const;
  // Raises std::bad_alloc, and changes nothing, when there is no memory.
  void add(OutgoingCall&& call, wire::Frame&& frame);
  // The next frame that the credit allows to send; nothing when none waits or none may go.
  struct Sendable {
    std::uint64_t identifier;
    wire::Frame frame;
  };
  std::optional<Sendable> takeSendable();
  void sent(std::uint64_t identifier, std::uint64_t frameNumber);

  // The regions of replies are on their way until the other end says that it has read so much of them. Says what is
  // over a limit with those of one more; "" when nothing is.
  std::string overUnread(const wire::Frame& reply) const;
  // How many bytes of regions the next reply may have, known before they are made.
  std::size_t roomForRegions() const noexcept;
  void replySent(std::size_t regionWeight) noexcept { unreadRegions_ += regionWeight; }

  // What the other end states counts up to what it would be allowed here. Returns, in order, the calls that wait here
  // and are over it, removed.
  struct Refused {
    OutgoingCall call;
    std::string objection;
  };
  std::vector<Refused> helloArrived(const wire::Hello& hello);
  // False when more is given back than was ever taken.
  bool creditArrived(const wire::Credit& credit);

  // Removes a call: one that waits for a reply, or any.
  std::optional<OutgoingCall> takeAwaitingReply(std::uint64_t identifier);
  std::optional<OutgoingCall> take(std::uint64_t identifier);
  // Forgets the replies: returns the calls that waited for one, in order. What waits to be sent stays.
  std::vector<OutgoingCall> takeAllAwaitingReply();
  // Nothing is heard of any of them any more.
  void forgetAll();
  // Removes everything; returns, in order, the calls that wait for a reply or were not written to the socket.
  std::vector<OutgoingCall> takeAllUnsettled(std::uint64_t framesWritten);

  // The calls that were settled by the way, to be let go of where user code may run: what they hold is the user's.
  std::vector<OutgoingCall> takeForgotten() noexcept { return std::exchange(forgotten_, {}); }

  bool hasWaiting() const noexcept { return !waiting_.empty() || !waitingAhead_.empty(); }
  std::size_t waitingBytes() const noexcept { return waitingBytes_; }
  // What those that wait here make the process hold: their bytes, and what is kept about each; and what has been made
  // for replies and is not read yet.
  std::size_t heldByWaiting() const noexcept {
    return waitingBytes_ + unreadRegions_ + (waiting_.size() + waitingAhead_.size()) * kKeepingBytes;
  }
  std::size_t pendingReplies() const noexcept { return pendingReplies_; }

 private:
  struct Waiting {
    std::uint64_t identifier;
    wire::Frame frame;
  };
  struct Uncredited {
    std::uint64_t identifier;
    std::size_t bytes;
  };

  static constexpr std::size_t kKeepingBytes = 256;

  std::vector<Refused> takeRefused();
  void takeRefused(Fifo<Waiting>& from, std::vector<Refused>& refused);
  Sendable takeFirst(Fifo<Waiting>& from);
  // Returns the bytes of so many of those that were sent first.
  std::uint64_t settle(Fifo<Uncredited>& sent, std::uint64_t calls);

  std::shared_ptr<NSXPCInterface> interface_;
  CallTable calls_;
  std::vector<OutgoingCall> forgotten_;
  Fifo<Waiting> waiting_;
  // Sent, and neither dealt with nor known to be.
  Fifo<Uncredited> uncredited_;
  // The same for calls that run ahead of others there. Nobody keeps them, so they need no credit; what is given back
  // says that they have been dealt with, and an end that never says so is sent no more than limits::kPendingReplies.
  Fifo<Waiting> waitingAhead_;
  Fifo<Uncredited> uncreditedAhead_;
  std::size_t waitingBytes_ = 0;
  std::size_t waitingRegions_ = 0;
  std::size_t pendingReplies_ = 0;
  std::size_t peerMaximumBytes_ = limits::kMaximumFrameBytes;
  std::optional<std::size_t> peerMaximumRegionBytes_;
  std::size_t unreadRegions_ = 0;
  std::size_t peerMaximumDescriptors_ = limits::kMaximumDescriptors;
  // What the other end keeps at most for a receiver that is busy: a call over it could never be sent.
  std::uint64_t windowBytes_ = limits::kInitialBytes;
  std::uint64_t windowCalls_ = limits::kInitialCalls;
  std::uint64_t usedBytes_ = 0;
};

}  // namespace velto::xpc
