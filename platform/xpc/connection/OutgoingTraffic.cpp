// What this end asks: calls on their way out, and what comes back for them. A call is encoded before the lock is taken,
// so that a large message holds up nobody but its sender.

#include <new>
#include <string>
#include <utility>

#include "platform/logging/VeltoLogging.h"
#include "platform/xpc/connection/ConnectionCore.h"
#include "platform/xpc/contract/Limits.h"
#include "platform/xpc/interface/Errors.h"
#include "platform/xpc/transport/LongWork.h"
#include "platform/xpc/wire/Messages.h"
#include "platform/xpc/wire/ValueDecoder.h"
#include "platform/xpc/wire/ValueEncoder.h"

namespace velto::xpc {

namespace {

using Outcome = wire::ValueDecoder::Outcome;

// Bytes of a reply that can hold what is dear to make.
constexpr std::size_t kMayTakeLong = 256;

struct DecodedReply {
  Outcome outcome = Outcome::refused;
  NSObject value;
  std::string reason;
};

DecodedReply decodeReply(const NSXPCInterface& interface, const Method& method, const wire::Frame& frame) {
  DecodedReply reply;
  const transport::LongWork turn(frame.size());
  wire::ValueDecoder decoder(frame);
  decoder.nextUnsigned();
  reply.outcome = decoder.next(interface.admitted(method, 0, true), reply.value);
  reply.reason = decoder.reason();
  if (reply.outcome != Outcome::value) return reply;
  const Class& declared = method.replyParameters.front().classObject;
  if (!decoder.atEnd()) return {Outcome::broken, nil, "bytes after the value of a reply"};
  if (!isOfKind(reply.value, declared)) return {Outcome::refused, nil, wrongKind(reply.value, declared)};
  return reply;
}

}  // namespace

void ConnectionCore::call(const Method& method, std::vector<NSObject> arguments, ReplyBlock reply,
                          ErrorHandler errorHandler) {
  if (isInherited()) return;
  const std::uint64_t identifier = ++lastIdentifier_;
  wire::ValueEncoder encoder(wire::FrameType::call);
  wire::encodeCallHeader(encoder, {identifier, method.selector, static_cast<bool>(reply)});
  std::string where;
  for (std::size_t index = 0; index < arguments.size() && !encoder.failed(); ++index) {
    encoder.add(arguments[index]);
    if (encoder.failed()) where = "argument " + std::to_string(index) + ": ";
  }
  encoder.finish();
  if (encoder.failed()) {
    const auto code = encoder.exceededLimit() ? NSXPCLimitExceeded : NSXPCCallRefused;
    return postNotSent(errorHandler, method, makeError(code, where + encoder.reason()));
  }
  wire::Frame frame = encoder.take();
  OutgoingCall outgoing{identifier, &method, std::move(reply), errorHandler, 0};
  NSError failure;
  {
    MutexLock lock(mutex_);
    failure = refusalToKeep(frame, static_cast<bool>(outgoing.reply));
    if (!failure) {
      outgoing_.add(std::move(outgoing), std::move(frame));
      if (phase_ == Phase::open && resumed_) sendWaiting();
      stateWaiting();
    }
  }
  if (failure) postNotSent(errorHandler, method, failure);
}

void ConnectionCore::postNotSent(const ErrorHandler& handler, const Method& method, const NSError& reason) {
  const std::string text = method.selector + " was not sent: " + reason.localizedDescription().string();
  postFailure(handler, makeError(static_cast<NSXPCErrorCode>(reason.code()), text));
}

NSError ConnectionCore::refusalToKeep(const wire::Frame& frame, bool wantsReply) {
  if (phase_ == Phase::closing || phase_ == Phase::ended) return endError_;
  if (const std::string excess = overPeerLimits(frame); !excess.empty()) return makeError(NSXPCLimitExceeded, excess);
  if (wantsReply && outgoing_.pendingReplies() >= limits::kPendingReplies) {
    return makeError(NSXPCLimitExceeded, overLimit("calls that wait for their replies", outgoing_.pendingReplies() + 1,
                                                   limits::kPendingReplies));
  }
  const std::size_t bytes = frame.size();
  const std::size_t waiting = outgoing_.waitingBytes() + (channel_ ? channel_->waitingBytes() : 0);
  if (waiting + bytes > limits::kWaitingBytes) {
    return makeError(NSXPCLimitExceeded,
                     overLimit("bytes that wait to be sent", waiting + bytes, limits::kWaitingBytes));
  }
  return nil;
}

std::string ConnectionCore::overPeerLimits(const wire::Frame& frame) {
  if (frame.size() > peerMaximumBytes_) {
    return overLimit("bytes of a frame to this peer", frame.size(), peerMaximumBytes_);
  }
  if (frame.descriptors.size() > peerMaximumDescriptors_) {
    return overLimit("descriptors of a frame to this peer", frame.descriptors.size(), peerMaximumDescriptors_);
  }
  if (frame.type != wire::FrameType::call) return {};
  if (frame.size() > outgoing_.windowBytes()) {
    return overLimit("bytes of a call that this peer keeps", frame.size(), outgoing_.windowBytes());
  }
  return outgoing_.windowCalls() == 0 ? overLimit("calls that this peer keeps", 1, 0) : std::string();
}

void ConnectionCore::sendWaiting() {
  if (!channel_) return;
  try {
    while (auto sendable = outgoing_.takeSendable()) {
      outgoing_.sent(sendable->identifier, channel_->send(std::move(sendable->frame)));
    }
  } catch (const std::bad_alloc&) {
    // A call between here and the socket is lost. Everybody hears of it when the stream ends.
    channel_->giveUp();
  }
}

std::size_t ConnectionCore::sendControl(wire::Frame frame) {
  MutexLock lock(mutex_);
  if (!channel_ || phase_ != Phase::open) return 0;
  const std::size_t waiting = channel_->waitingBytes() + frame.size();
  if (waiting > limits::kWaitingBytes) return waiting;
  channel_->send(std::move(frame));
  return 0;
}

void ConnectionCore::frameArrived(wire::Frame frame) {
  const bool isHello = frame.type == wire::FrameType::hello;
  bool inOrder = false;
  {
    MutexLock lock(mutex_);
    if (phase_ == Phase::ended || !channel_) return;
    inOrder = greeted_ != isHello;
    greeted_ = true;
  }
  if (!inOrder) {
    breakProtocol(isHello ? "a second hello" : "the first frame is not a hello");
    return;
  }
  switch (frame.type) {
    case wire::FrameType::hello:
      return helloArrived(frame);
    case wire::FrameType::call:
      return callArrived(std::move(frame));
    case wire::FrameType::reply:
      return replyArrived(std::move(frame));
    case wire::FrameType::replyDropped:
      return replyDroppedArrived(frame);
    case wire::FrameType::refusal:
    case wire::FrameType::replyRefusal:
      return refusalArrived(frame);
    case wire::FrameType::credit:
      return creditArrived(frame);
    case wire::FrameType::goodbye:
      return goodbyeArrived(frame);
  }
}

void ConnectionCore::helloArrived(const wire::Frame& frame) {
  std::string reason;
  const auto hello = wire::Hello::decode(frame, reason);
  if (!hello) return breakProtocol(reason);
  if (hello->version != wire::kProtocolVersion) {
    cutOff(NSXPCVersionMismatch, "the other end speaks version " + std::to_string(hello->version) +
                                     " of the protocol, this one version " + std::to_string(wire::kProtocolVersion));
    return;
  }
  std::vector<OutgoingCalls::Refused> refused;
  {
    MutexLock lock(mutex_);
    peerMaximumBytes_ = std::min<std::uint64_t>(hello->maximumFrameBytes, limits::kMaximumFrameBytes);
    peerMaximumDescriptors_ = std::min<std::uint64_t>(hello->maximumDescriptors, limits::kMaximumDescriptors);
    outgoing_.helloArrived(*hello);
    refused = outgoing_.takeRefused([this](const wire::Frame& waiting)
                                        VELTO_REQUIRES(mutex_) { return overPeerLimits(waiting); });
    if (phase_ == Phase::closing) sayFarewell();
    if (phase_ == Phase::open && resumed_) sendWaiting();
    stateWaiting();
  }
  for (const auto& [call, objection] : refused) {
    postNotSent(call.errorHandler, *call.method, makeError(NSXPCLimitExceeded, objection));
  }
}

void ConnectionCore::creditArrived(const wire::Frame& frame) {
  std::string reason;
  const auto credit = wire::Credit::decode(frame, reason);
  if (!credit) return breakProtocol(reason);
  if (credit->calls == 0) return breakProtocol("credit for nothing");
  bool valid = false;
  std::vector<OutgoingCall> forgotten;
  {
    MutexLock lock(mutex_);
    valid = outgoing_.creditArrived(*credit);
    forgotten = outgoing_.takeForgotten();
    if (valid && phase_ == Phase::closing) sayFarewell();
    if (valid && phase_ == Phase::open && resumed_) sendWaiting();
    stateWaiting();
  }
  letGo(std::move(forgotten));
  if (!valid) breakProtocol("credit for calls that were never sent");
}

void ConnectionCore::goodbyeArrived(const wire::Frame& frame) {
  std::string reason;
  if (!wire::decodeGoodbye(frame, reason)) return breakProtocol(reason);
  if (const auto channel = currentChannel()) channel->abort();
  end({makeError(NSXPCConnectionInvalid, name_ + " was invalidated by the other end"), false});
}

void ConnectionCore::replyArrived(wire::Frame frame) {
  wire::ValueDecoder decoder(frame);
  const auto identifier = decoder.nextUnsigned();
  if (!identifier) return breakProtocol("a reply without the number of its call");
  // A reply for a block that never blocks: dealt with here and now.
  std::optional<ArrivedReply> here;
  std::size_t undelivered = 0;
  bool isClaimable = true;
  bool isKnown = false;
  {
    MutexLock lock(mutex_);
    // What was asked before invalidate() may be answered after it.
    if (phase_ == Phase::closing) return;
    isClaimable = keepClaimable(frame, claimable_.byReplies);
    std::optional<OutgoingCall> call = outgoing_.takeAwaitingReply(*identifier);
    isKnown = call.has_value();
    if (call && call->reply.neverBlocks) {
      here = ArrivedReply{std::move(*call), std::move(frame)};
    } else if (call) {
      undeliveredReplyBytes_ += frame.size();
      arrivedDescriptors_ += frame.descriptors.size();
      arrivedReplies_.push_back({std::move(*call), std::move(frame)});
      stateArrived();
    }
    undelivered = undeliveredReplyBytes_;
  }
  if (!isKnown) return breakProtocol("a reply to no call: " + std::to_string(*identifier));
  if (here) {
    if (isClaimable) return finishOnReader(here->call, *here->frame);
    postFailure(here->call.errorHandler,
                makeError(NSXPCReplyRefused, "the reply to " + here->call.method->selector +
                                                 " was refused: more descriptors than any takes"));
  } else {
    post([self = shared_from_this()] { self->deliverReply(); });
  }
  if (!isClaimable) return breakProtocol("a reply with more descriptors than any takes");
  if (undelivered > limits::kUndeliveredReplyBytes) {
    breakProtocol(overLimit("bytes of undelivered replies", undelivered, limits::kUndeliveredReplyBytes));
  }
}

void ConnectionCore::deliverReply() {
  ArrivedReply reply;
  {
    MutexLock lock(mutex_);
    ++turns_;
    reply = std::move(arrivedReplies_.front());
    arrivedReplies_.pop_front();
    if (reply.frame) {
      undeliveredReplyBytes_ -= reply.frame->size();
      arrivedDescriptors_ -= reply.frame->descriptors.size();
    }
    stateArrived();
  }
  if (reply.frame) return finishCall(reply.call, *reply.frame);
  if (!reply.call.errorHandler || !*reply.call.errorHandler) return;
  (*reply.call.errorHandler)(makeError(NSXPCConnectionInterrupted, "the reply to " + reply.call.method->selector +
                                                                       " came, but was let go of: its connection has "
                                                                       "ended, and a callback was in its way"));
}

// The reply block never blocks, but what a peer sends may take its time to be read.
void ConnectionCore::finishOnReader(const OutgoingCall& call, const wire::Frame& frame) {
  if (frame.size() >= kMayTakeLong) transport::Reactor::shared().standIn();
  try {
    finishCall(call, frame);
  } catch (const std::exception& exception) {
    VKTLoggingLog(VKTLogGetAnchor(), VKTLogLevelFailure, "A reply block raised an exception, which is ignored: %s",
                  exception.what());
  } catch (...) {
    VKTLoggingLog(VKTLogGetAnchor(), VKTLogLevelFailure, "A reply block raised an unknown exception, which is ignored");
  }
}

void ConnectionCore::stateWaiting() {
  holding_->setBytes(transport::Holding::Place::waiting, outgoing_.waitingBytes());
}

void ConnectionCore::finishCall(const OutgoingCall& call, const wire::Frame& frame) {
  DecodedReply reply;
  try {
    reply = decodeReply(*remoteInterface(), *call.method, frame);
  } catch (const std::bad_alloc&) {
    reply = {Outcome::refused, nil, "there is no memory for it"};
  }
  if (reply.outcome == Outcome::value) return call.reply.block(reply.value);
  const std::string text = "the reply to " + call.method->selector + " was refused: " + reply.reason;
  postFailure(call.errorHandler, makeError(NSXPCReplyRefused, text));
  if (reply.outcome == Outcome::broken) breakProtocol(text);
}

void ConnectionCore::replyDroppedArrived(const wire::Frame& frame) {
  std::string reason;
  const auto identifier = wire::decodeReplyDropped(frame, reason);
  if (!identifier) return breakProtocol(reason);
  std::vector<OutgoingCall> forgotten;
  bool known = false;
  {
    MutexLock lock(mutex_);
    if (auto call = outgoing_.takeAwaitingReply(*identifier)) forgotten.push_back(std::move(*call));
    known = !forgotten.empty() || phase_ == Phase::closing;
  }
  letGo(std::move(forgotten));
  if (!known) breakProtocol("a dropped reply to no call: " + std::to_string(*identifier));
}

void ConnectionCore::refusalArrived(const wire::Frame& frame) {
  std::string reason;
  const auto refusal = wire::Refusal::decode(frame, reason);
  if (!refusal) return breakProtocol(reason);
  const bool ofReply = frame.type == wire::FrameType::replyRefusal;
  std::optional<OutgoingCall> call;
  {
    MutexLock lock(mutex_);
    call = ofReply ? outgoing_.takeAwaitingReply(refusal->identifier) : outgoing_.take(refusal->identifier);
    if (phase_ == Phase::closing) return;
  }
  if (!call) return breakProtocol("a refusal of no call: " + std::to_string(refusal->identifier));
  auto code = ofReply ? NSXPCReplyRefused : NSXPCCallRefused;
  if (refusal->code == wire::kLimitExceeded) code = NSXPCLimitExceeded;
  const std::string what = ofReply ? " could not be answered: " : " was refused by the other end: ";
  postFailure(call->errorHandler, makeError(code, call->method->selector + what + refusal->text));
  letGo({std::move(*call)});
}

}  // namespace velto::xpc
