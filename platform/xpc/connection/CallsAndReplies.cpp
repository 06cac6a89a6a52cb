// Calls and replies of both ends, at the time at which they are made or have their turn. A call is encoded before the
// lock is taken, and decoded without it, so that a large message holds up nobody but its sender and its receiver.

#include <new>
#include <span>
#include <string>
#include <utility>

#include "platform/logging/VeltoLogging.h"
#include "platform/xpc/connection/CallCoding.h"
#include "platform/xpc/connection/ConnectionCore.h"
#include "platform/xpc/connection/ReplyTicket.h"
#include "platform/xpc/contract/Limits.h"
#include "platform/xpc/interface/Errors.h"
#include "platform/xpc/transport/OwnReading.h"
#include "platform/xpc/transport/Reactor.h"
#include "platform/xpc/wire/Messages.h"

namespace velto::xpc {

namespace {

// Calls under way of which the sender may await each.
constexpr std::size_t kFewAwaited = 4;

// By the thread that makes it, which then sleeps until it is answered.
bool mayBeAwaitedHere(const OutgoingCall& call) {
  return call.reply.neverBlocks && !call.reply.isIgnored;
}

}  // namespace

// Gives the credit of a call back even if its callback raises.
class ConnectionCore::CreditAtEnd {
 public:
  CreditAtEnd(ConnectionCore& core, Arrivals::Size call) : core_(core), call_(call) {}
  ~CreditAtEnd() {
    try {
      core_.dealtWith(call_, isOwedReply);
    } catch (const std::bad_alloc&) {
      // The other end would wait for its credit for ever.
      core_.giveUp();
    }
  }
  CreditAtEnd(const CreditAtEnd&) = delete;
  CreditAtEnd& operator=(const CreditAtEnd&) = delete;

  bool isOwedReply = false;

 private:
  ConnectionCore& core_;
  const Arrivals::Size call_;
};

void ConnectionCore::call(const Method& method, std::span<const NSObject> arguments, ReplyBlock reply,
                          const ErrorHandler& errorHandler) {
  if (isInherited()) return;
  const std::uint64_t identifier = ++lastIdentifier_;
  EncodedCall encoded = encodeCall(identifier, method, arguments, static_cast<bool>(reply), peerTakesRegions_);
  if (encoded.failure) return postNotSent(errorHandler, method, encoded.failure);
  OutgoingCall outgoing{identifier, &method, std::move(reply), errorHandler, 0};
  NSError failure;
  bool byOrderlyEnd = false;
  {
    MutexLock lock(mutex_);
    byOrderlyEnd = life_.isOverInGoodOrder();
    failure = life_.isOver()
                  ? life_.endError()
                  : outgoing_.refusalToKeep(encoded.frame, static_cast<bool>(outgoing.reply), waitingInChannel());
    if (!failure) {
      if (mayBeAwaitedHere(outgoing) && channel_) transport::OwnReading::expect(channel_);
      const auto haste = hasteOf(outgoing);
      outgoing_.add(std::move(outgoing), std::move(encoded.frame));
      if (life_.maySendCalls()) sendWaiting(haste);
      stateWaiting();
    }
  }
  if (failure) postNotSent(errorHandler, method, failure, byOrderlyEnd);
}

void ConnectionCore::postNotSent(const ErrorHandler& handler, const Method& method, const NSError& reason,
                                 bool byOrderlyEnd) {
  const std::string text = method.selector + " was not sent: " + reason.localizedDescription().string();
  postFailure(handler, makeError(static_cast<NSXPCErrorCode>(reason.code()), text), byOrderlyEnd);
}

transport::Channel::Haste ConnectionCore::hasteHere() {
  using Haste = transport::Channel::Haste;
  return channel_ && queue_->leaves(channel_) ? Haste::beforeFlush : Haste::now;
}

// Calls that follow each other closely are a burst only if their sender awaits none of them, nor an answer that comes
// as a call.
transport::Channel::Haste ConnectionCore::hasteOf(const OutgoingCall& call) {
  using Haste = transport::Channel::Haste;
  if (mayBeAwaitedHere(call)) return Haste::now;
  const std::uint64_t seen = std::exchange(callsSeen_, arrivals_.callsSoFar());
  const bool isAnswered = seen != callsSeen_;
  if (const Haste here = hasteHere(); here != Haste::now) return here;
  const bool isAwaited = call.reply && !call.reply.isIgnored ? outgoing_.pendingReplies() < kFewAwaited : isAnswered;
  return isAwaited ? Haste::now : Haste::inBurst;
}

void ConnectionCore::sendWaiting(transport::Channel::Haste haste) {
  if (!channel_) return;
  try {
    for (auto sendable = outgoing_.takeSendable(); sendable;) {
      auto next = outgoing_.takeSendable();
      const auto number =
          channel_->send(std::move(sendable->frame), next ? transport::Channel::Haste::afterNext : haste);
      outgoing_.sent(sendable->identifier, number);
      sendable = std::move(next);
    }
  } catch (const std::bad_alloc&) {
    // A call between here and the socket is lost. Everybody hears of it when the stream ends.
    channel_->giveUp();
  }
}

std::size_t ConnectionCore::sendControl(wire::Frame&& frame) {
  if (!channel_ || !life_.isOpen()) return 0;
  const std::size_t waiting = channel_->waitingBytes() + frame.size();
  if (waiting > limits::kWaitingBytes) return waiting;
  channel_->send(std::move(frame), hasteHere());
  return 0;
}

void ConnectionCore::sendOrCutOff(wire::Frame frame, bool settlesReply) {
  std::size_t waiting = 0;
  {
    MutexLock lock(mutex_);
    if (settlesReply) arrivals_.replySettled();
    waiting = sendControl(std::move(frame));
  }
  if (waiting == 0) return;
  breakProtocol(overLimit("the other end does not read: bytes that wait to be sent", waiting, limits::kWaitingBytes));
}

void ConnectionCore::stateWaiting() {
  holding_->setBytes(transport::Holding::Place::waiting, outgoing_.heldByWaiting());
  roomForRegions_ = outgoing_.roomForRegions();
}

void ConnectionCore::stateArrived() {
  using Place = transport::Holding::Place;
  holding_->setBytes(Place::calls, arrivals_.heldByCalls());
  holding_->setBytes(Place::replies, arrivals_.heldByReplies());
  holding_->setDescriptors(Place::calls, arrivals_.heldDescriptors());
}

void ConnectionCore::deliver() {
  std::optional<Arrivals::Turn> turn;
  bool hasEnded = false;
  {
    MutexLock lock(mutex_);
    turn = arrivals_.takeCall();
    hasEnded = life_.hasEnded();
  }
  if (!turn) return;
  // The end is on its way, past a callback that sleeps, or through the last threads: nothing but it may pass there.
  if (hasEnded && (queue_->hasSleeper() || !transport::Reactor::shared().mayLinger())) {
    const CreditAtEnd credit(*this, Arrivals::sizeOf(*turn));
    return;
  }
  deliverOne(*turn);
}

void ConnectionCore::deliverOne(Arrivals::Turn& turn) {
  CreditAtEnd credit(*this, Arrivals::sizeOf(turn));
  bool called = false;
  try {
    deliver(turn, credit.isOwedReply, called);
  } catch (const std::bad_alloc&) {
    if (called) throw;
    // The caller would wait for ever.
    giveUp();
  }
}

void ConnectionCore::deliver(Arrivals::Turn& turn, bool& isOwedReply, bool& called) {
  const auto interface = std::move(turn.interface);
  const auto object = std::move(turn.object);
  const DecodedCall call = decodeCall(turn.frame, interface.get());
  if (call.reading == Reading::broken) return breakProtocol(call.reason);
  if (call.reading == Reading::refused) return refuse(call.header.identifier, call.code, call.reason);
  // What is mapped needs them no more, and what runs now may take its time.
  turn.frame.descriptors.clear();
  invoke(call, object.get(), turn.owedReplies, isOwedReply, called);
}

void ConnectionCore::invoke(const DecodedCall& call, void* object, std::size_t owedReplies, bool& isOwedReply,
                            bool& called) {
  const Method& method = *call.method;
  std::shared_ptr<ReplyTicket> ticket;
  ReplyBlock reply;
  if (method.hasReply()) reply = ReplyBlock::ignored();
  if (method.hasReply() && call.header.wantsReply) {
    ticket = std::make_shared<ReplyTicket>(weak_from_this(), call.header.identifier, method);
    isOwedReply = true;
    reply = {[ticket](const NSObject& value) { ticket->answer(value); }};
    if (owedReplies > limits::kOwedReplies) {
      return breakProtocol(overLimit("replies owed", owedReplies, limits::kOwedReplies));
    }
  }
  called = true;
  try {
    method.invoke(object, call.arguments, std::move(reply));
  } catch (const NSXPCUnrecognizedSelector& missing) {
    if (missing.selector() != method.selector) throw;
    if (ticket) ticket->settle();
    refuse(call.header.identifier, wire::kNoSuchMethod, "the object exported there does not implement it");
  } catch (const NSXPCRefusal& refusal) {
    if (ticket) ticket->settle();
    refuse(call.header.identifier, wire::kArgumentRefused, refusal.reason());
  }
}

void ConnectionCore::refuse(std::uint64_t identifier, std::uint64_t code, const std::string& reason) {
  VKTLoggingLog(VKTLogGetAnchor(), VKTLogLevelProgress, "%s: a call is refused: %s", name_, reason);
  sendOrCutOff(wire::Refusal{identifier, code, reason}.encode(wire::FrameType::refusal), false);
}

void ConnectionCore::dealtWith(Arrivals::Size call, bool isOwedReply) {
  MutexLock lock(mutex_);
  arrivals_.dealtWith(call, isOwedReply);
  stateArrived();
  giveCredit();
}

void ConnectionCore::giveCredit() {
  if (!channel_ || !life_.isOpen()) return;
  if (const auto credit = arrivals_.takeCredit(channel_->waitingBytes())) {
    channel_->send(credit->encode(), hasteHere());
  }
}

void ConnectionCore::acknowledgeRegions(const wire::Frame& reply) {
  if (reply.regions == 0 || !channel_ || !life_.isOpen()) return;
  try {
    channel_->send(wire::Credit{reply.regionWeight(), 0}.encode(), hasteHere());
  } catch (const std::bad_alloc&) {
    channel_->giveUp();
  }
}

void ConnectionCore::takeTurn(unsigned kind) {
  kind == kCallsTurn ? deliver() : deliverReply();
}

void ConnectionCore::outputDrained() {
  std::function<void()> writable;
  {
    MutexLock lock(mutex_);
    giveCredit();
    writable = writableAgain();
  }
  if (writable) runHere(writable);
}

bool ConnectionCore::isBehind() const {
  return outgoing_.hasWaiting() || waitingInChannel() > limits::kWritableBytes ||
         outgoing_.pendingReplies() >= limits::kPendingReplies;
}

bool ConnectionCore::isWritable() {
  MutexLock lock(mutex_);
  if (life_.isOver() || !isBehind()) return true;
  // Until that has been told: another may have been told so before.
  awaitsWritable_ = true;
  return false;
}

void ConnectionCore::setWritableHandler(std::function<void()> handler) {
  MutexLock lock(mutex_);
  std::swap(writableHandler_, handler);
}

std::function<void()> ConnectionCore::writableAgain() {
  if (!awaitsWritable_ || (!life_.isOver() && isBehind())) return nullptr;
  awaitsWritable_ = false;
  return writableHandler_;
}

void ConnectionCore::deliverReply() {
  Arrivals::Reply reply;
  std::shared_ptr<NSXPCInterface> interface;
  {
    MutexLock lock(mutex_);
    reply = arrivals_.takeReply();
    if (reply.frame) acknowledgeRegions(*reply.frame);
    interface = outgoing_.interface();
    stateArrived();
  }
  if (reply.frame) return finishCall(reply.call, *reply.frame, *interface);
  if (!reply.call.errorHandler || !*reply.call.errorHandler) return;
  (*reply.call.errorHandler)(makeError(NSXPCConnectionInterrupted, "the reply to " + reply.call.method->selector +
                                                                       " came, but was let go of: its connection has "
                                                                       "ended, and a callback was in its way"));
}

void ConnectionCore::finishCall(const OutgoingCall& call, wire::Frame& frame, const NSXPCInterface& interface) {
  DecodedReply reply;
  try {
    reply = decodeReply(frame, interface, *call.method);
  } catch (const std::bad_alloc&) {
    reply = {Reading::refused, nil, "there is no memory for it"};
  }
  frame.descriptors.clear();
  if (reply.reading == Reading::ready) return call.reply.block(reply.value);
  const std::string text = "the reply to " + call.method->selector + " was refused: " + reply.reason;
  postFailure(call.errorHandler, makeError(NSXPCReplyRefused, text));
  if (reply.reading == Reading::broken) breakProtocol(text);
}

void ConnectionCore::sendReply(std::uint64_t identifier, const Method& method, const NSObject& value) {
  EncodedReply reply;
  try {
    reply = encodeReply(identifier, value, peerTakesRegions_, roomForRegions_);
  } catch (const std::bad_alloc&) {
    replySettled();
    throw;
  }
  {
    MutexLock lock(mutex_);
    arrivals_.replySettled();
    if (reply.reason.empty()) {
      reply.code = wire::kLimitExceeded;
      reply.reason = outgoing_.overPeerLimits(reply.frame);
      if (reply.reason.empty()) reply.reason = outgoing_.overUnread(reply.frame);
      const std::size_t regions = reply.frame.regionWeight();
      const std::size_t waiting = reply.reason.empty() ? sendControl(std::move(reply.frame)) : 0;
      if (waiting > 0) reply.reason = overLimit("bytes that wait to be sent", waiting, limits::kWaitingBytes);
      if (reply.reason.empty() && regions > 0) {
        outgoing_.replySent(regions);
        stateWaiting();
      }
    }
  }
  if (reply.reason.empty()) return;
  VKTLoggingLog(VKTLogGetAnchor(), VKTLogLevelFailure, "%s: the reply to %s could not be sent: %s", name_,
                method.selector, reply.reason);
  sendOrCutOff(wire::Refusal{identifier, reply.code, reply.reason}.encode(wire::FrameType::replyRefusal), false);
}

void ConnectionCore::dropReply(std::uint64_t identifier) {
  sendOrCutOff(wire::encodeReplyDropped(identifier), true);
}

void ConnectionCore::replySettled() {
  MutexLock lock(mutex_);
  arrivals_.replySettled();
}

}  // namespace velto::xpc
