#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/foundation/NSError.h"
#include "platform/xpc/contract/Limits.h"
#include "platform/xpc/interface/Protocol.h"
#include "platform/xpc/wire/Frame.h"
#include "platform/xpc/wire/Messages.h"

namespace velto::xpc {

using ErrorHandler = std::shared_ptr<const std::function<void(NSError)>>;

// A call that was made here and is not settled: it waits for credit, for its reply, or for the news that it was dealt
// with.
struct OutgoingCall {
  std::uint64_t identifier = 0;
  const Method* method = nullptr;
  ReplyBlock reply;  // none when no reply is wanted, or wanted any more
  ErrorHandler errorHandler;
  std::uint64_t frameNumber = 0;  // of the channel; 0 while the call waits here
};

// The calls of one end that are under way, and the credit that the other end has given. Calls go out in the order in
// which they were made; without credit they wait here, while replies pass them. Not synchronised: the connection's lock
// guards it.
class OutgoingCalls {
 public:
  // Raises std::bad_alloc, and changes nothing, when there is no memory.
  void add(OutgoingCall&& call, wire::Frame&& frame);
  // The next frame that the credit allows to send; nothing when none waits or none may go.
  struct Sendable {
    std::uint64_t identifier;
    wire::Frame frame;
  };
  std::optional<Sendable> takeSendable();
  void sent(std::uint64_t identifier, std::uint64_t frameNumber);

  // What the other end states counts up to what it would be allowed here.
  void helloArrived(const wire::Hello& hello);
  // What the other end keeps at most for a receiver that is busy: a call over it could never be sent.
  std::uint64_t windowBytes() const noexcept { return windowBytes_; }
  std::uint64_t windowCalls() const noexcept { return windowCalls_; }
  // False when more is given back than was ever taken.
  bool creditArrived(const wire::Credit& credit);

  // Removes a call: one that waits for a reply, or any.
  std::optional<OutgoingCall> takeAwaitingReply(std::uint64_t identifier);
  std::optional<OutgoingCall> take(std::uint64_t identifier);
  // Removes, in order, the calls that wait here to whose frames there is an objection.
  struct Refused {
    OutgoingCall call;
    std::string objection;
  };
  std::vector<Refused> takeRefused(const std::function<std::string(const wire::Frame&)>& objectionTo);
  // Forgets the replies: returns the calls that waited for one, in order. What waits to be sent stays.
  std::vector<OutgoingCall> takeAllAwaitingReply();
  // Removes everything; returns, in order, the calls that wait for a reply or were not written to the socket.
  std::vector<OutgoingCall> takeAllUnsettled(std::uint64_t framesWritten);

  // The calls that were settled by the way, to be let go of where user code may run: what they hold is the user's.
  std::vector<OutgoingCall> takeForgotten() noexcept { return std::exchange(forgotten_, {}); }

  bool hasWaiting() const noexcept { return !waiting_.empty(); }
  std::size_t waitingBytes() const noexcept { return waitingBytes_; }
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

  std::map<std::uint64_t, OutgoingCall> calls_;
  std::vector<OutgoingCall> forgotten_;
  std::deque<Waiting> waiting_;
  // Sent, and neither dealt with nor known to be.
  std::deque<Uncredited> uncredited_;
  std::size_t waitingBytes_ = 0;
  std::size_t pendingReplies_ = 0;
  std::uint64_t windowBytes_ = limits::kInitialBytes;
  std::uint64_t windowCalls_ = limits::kInitialCalls;
  std::uint64_t usedBytes_ = 0;
};

}  // namespace velto::xpc
