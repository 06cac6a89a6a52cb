#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/foundation/Fifo.h"
#include "platform/xpc/connection/OutgoingCalls.h"
#include "platform/xpc/contract/Limits.h"
#include "platform/xpc/interface/NSXPCInterface.h"
#include "platform/xpc/interface/Protocol.h"
#include "platform/xpc/system/Descriptor.h"
#include "platform/xpc/wire/Frame.h"
#include "platform/xpc/wire/Messages.h"

namespace velto::xpc {

// What comes in: the calls of the other end, and the replies to this end's, as the bytes that came, until their turn in
// the queue; the credit that is to be given back for the calls; the replies that are owed for them. From resume() on
// the queue has a task for each call and each reply that is kept. Not synchronised: the connection's lock guards it.
class Arrivals {
 public:
  // What may be called, and on which object. The one before comes back, to be let go of where user code may run.
  void swapInterface(std::shared_ptr<NSXPCInterface>& interface) noexcept { std::swap(interface_, interface); }
  void swapObject(const Protocol& protocol, std::shared_ptr<void>& object) noexcept;
  std::shared_ptr<void> takeObject() noexcept { return std::exchange(object_, nullptr); }

  // How many descriptors a call may carry that anybody here claims follows from the interface, for replies it is given;
  // until then it is as many as there may be. Calls that have come before let go of theirs if nobody claims any.
  // Returns the greater of both.
  std::size_t learnClaimable(std::size_t byReplies, bool repliesHoldData = false);

  // A call has come. It is kept even when something is wrong with it, but for one that is over the credit: then none is
  // kept. What comes after silence() is not even looked at.
  struct CallArrival {
    bool isKept = false;
    // How the other end has broken the protocol; "" when it has not.
    std::string offence;
  };
  CallArrival callArrived(wire::Frame&& frame);
  // A call whose turn has come, with what it may be delivered to. It counts as one that is owed a reply.
  struct Turn {
    wire::Frame frame;
    // None when there is no object, or it is not of the interface's protocol.
    std::shared_ptr<NSXPCInterface> interface;
    std::shared_ptr<void> object;
    // With it.
    std::size_t owedReplies = 0;
    // It runs ahead of others, and is kept nowhere.
    bool isAhead = false;
  };
  // Nothing when the calls were dropped.
  std::optional<Turn> takeCall();
  // The call that came last, if it is one that does not wait for its turn.
  std::optional<Turn> takeAhead();
  // The call that came first, when none has been taken, if it is a prompt one.
  std::optional<Turn> takePrompt();
  // That call has been dealt with. If it is owed a reply, replySettled() is due later.
  struct Size {
    std::size_t credit = 0;
    std::size_t beyond = 0;  // what it counts for besides
    bool isAhead = false;
  };
  static Size sizeOf(const wire::Frame& call) noexcept { return {call.credit(), call.weight() - call.credit()}; }
  static Size sizeOf(const Turn& turn) noexcept {
    const Size size = sizeOf(turn.frame);
    return {size.credit, size.beyond, turn.isAhead};
  }
  void dealtWith(Size call, bool isOwedReply) noexcept;
  void replySettled() noexcept { --owedReplies_; }
  // The credit that is worth giving back to an end for which so many bytes wait to be sent; nothing while it is not.
  std::optional<wire::Credit> takeCredit(std::size_t waitingToBeSent) noexcept;

  // Lets go of the descriptors of a reply that nobody can claim. Says what only a peer that cheats sends; "" when
  // nothing is wrong.
  std::string keepClaimable(wire::Frame& reply) { return keepClaimable(reply, claimableByReplies_); }
  // A reply has come whose turn has not. Says what is over a limit; "" when nothing is: it is kept all the same.
  std::string replyArrived(OutgoingCall&& call, wire::Frame&& frame);
  // Without its frame when that was dropped.
  struct Reply {
    OutgoingCall call;
    std::optional<wire::Frame> frame;
  };
  // There is one.
  Reply takeReply();

  // The descriptors that nobody can claim, to be let go of without the lock: one may be the last of much memory.
  std::vector<system::SharedDescriptor> takeDropped() noexcept { return std::exchange(dropped_, {}); }

  // Calls are no longer delivered.
  void silence() noexcept { silenced_ = true; }
  void dropCalls() noexcept;
  // Drops the calls, and the bytes of the replies. Returns how many there were.
  std::size_t dropAll() noexcept;
  bool isEmpty() const noexcept { return calls_.empty() && replies_.empty(); }
  std::size_t waitingCalls() const noexcept { return calls_.size(); }
  std::uint64_t callsSoFar() const noexcept { return callsSoFar_; }
  // Whether no turn has come since the last look, and what is kept is too much to be left behind a callback that does
  // not return.
  bool isStuck() const noexcept;
  void look() noexcept { turnsAtLastLook_ = turns_; }

  // What this makes the process hold. A call counts until it has been dealt with.
  std::size_t heldByCalls() const noexcept;
  std::size_t heldByReplies() const noexcept;
  std::size_t heldDescriptors() const noexcept { return descriptors_; }

 private:
  Way wayOf(const wire::Frame& call) const;
  Turn turnOf(wire::Frame&& frame);
  void uncount(Size call) noexcept;
  struct Claimable {
    std::size_t descriptors = limits::kMaximumDescriptors;
    bool data = true;  // which may come in regions
  };
  std::string keepClaimable(wire::Frame& frame, const Claimable& most);
  void drop(std::vector<system::SharedDescriptor>& descriptors);
  // Leaves their places empty. Returns how many descriptors are left.
  std::size_t dropRegions(wire::Frame& frame);

  std::shared_ptr<NSXPCInterface> interface_;
  const Protocol* protocol_ = nullptr;
  std::shared_ptr<void> object_;
  bool silenced_ = false;

  Claimable claimableByCalls_;
  Claimable claimableByReplies_;
  std::vector<system::SharedDescriptor> dropped_;
  Fifo<wire::Frame> calls_;
  Fifo<Reply> replies_;
  std::size_t descriptors_ = 0;
  // Turns that have come, and their number at the last look.
  std::uint64_t turns_ = 0;
  std::uint64_t turnsAtLastLook_ = 0;
  // Of the calls that have not been dealt with: those that wait, and the one whose turn it is.
  std::size_t callBytes_ = 0;
  std::size_t callBytesBeyond_ = 0;  // of their credit
  std::size_t callCount_ = 0;
  std::uint64_t callsSoFar_ = 0;
  std::size_t replyBytes_ = 0;
  // Since the last credit.
  wire::Credit credit_;
  std::size_t owedReplies_ = 0;
};

}  // namespace velto::xpc
