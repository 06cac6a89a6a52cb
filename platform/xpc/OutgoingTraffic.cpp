// What this end asks: calls on their way out, and what comes back for them. A call is encoded before the lock is taken,
// so that a large message holds up nobody but its sender.

#include <string>
#include <utility>

#include "VeltoIPC/Limits.h"
#include "platform/logging/VeltoLogging.h"
#include "platform/xpc/ConnectionCore.h"
#include "platform/xpc/Errors.h"
#include "platform/xpc/wire/Messages.h"
#include "platform/xpc/wire/ValueDecoder.h"
#include "platform/xpc/wire/ValueEncoder.h"

namespace velto::xpc {

void ConnectionCore::call(const Method& method, std::vector<NSObject> arguments, ReplyBlock reply,
                          ErrorHandler errorHandler) {
  if (isInherited()) return;
  const std::uint64_t identifier = ++lastIdentifier_;
  wire::ValueEncoder encoder(wire::FrameType::call);
  wire::encodeCallHeader(encoder, {identifier, method.selector, static_cast<bool>(reply)});
  for (std::size_t index = 0; index < arguments.size() && !encoder.failed(); ++index) {
    encoder.add(arguments[index]);
    if (!encoder.failed()) continue;
    const std::string text =
        method.selector + " was not sent: argument " + std::to_string(index) + ": " + encoder.reason();
    postFailure(errorHandler, makeError(encoder.exceededLimit() ? NSXPCLimitExceeded : NSXPCCallRefused, text));
    return;
  }
  wire::Frame frame = encoder.take();
  NSError failure;
  {
    MutexLock lock(mutex_);
    failure = refusalToKeep(frame.body.size(), static_cast<bool>(reply));
    if (!failure) {
      outgoing_.add({identifier, &method, std::move(reply), errorHandler, 0}, std::move(frame));
      if (phase_ == Phase::open && resumed_) sendWaiting();
    }
  }
  if (!failure) return;
  const std::string text = method.selector + " was not sent: " + failure.localizedDescription().string();
  postFailure(errorHandler, makeError(static_cast<NSXPCErrorCode>(failure.code()), text));
}

NSError ConnectionCore::refusalToKeep(std::size_t bytes, bool wantsReply) {
  if (phase_ == Phase::closing || phase_ == Phase::ended) return endError_;
  if (bytes > peerMaximumBytes_) {
    return makeError(NSXPCLimitExceeded, overLimit("bytes of a call to this peer", bytes, peerMaximumBytes_));
  }
  if (wantsReply && outgoing_.pendingReplies() >= limits::kPendingReplies) {
    return makeError(NSXPCLimitExceeded, overLimit("calls that wait for their replies", outgoing_.pendingReplies() + 1,
                                                   limits::kPendingReplies));
  }
  const std::size_t waiting = outgoing_.waitingBytes() + (channel_ ? channel_->waitingBytes() : 0);
  if (waiting + bytes > limits::kWaitingBytes) {
    return makeError(NSXPCLimitExceeded,
                     overLimit("bytes that wait to be sent", waiting + bytes, limits::kWaitingBytes));
  }
  return nil;
}

void ConnectionCore::sendWaiting() {
  if (!channel_) return;
  while (auto sendable = outgoing_.takeSendable()) {
    outgoing_.sent(sendable->identifier, channel_->send(std::move(sendable->frame)));
  }
}

ConnectionCore::Sent ConnectionCore::sendControl(wire::Frame frame) {
  MutexLock lock(mutex_);
  if (!channel_ || phase_ != Phase::open) return Sent::over;
  if (channel_->waitingBytes() + frame.body.size() > limits::kWaitingBytes) return Sent::full;
  channel_->send(std::move(frame));
  return Sent::yes;
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
  MutexLock lock(mutex_);
  peerMaximumBytes_ = std::min<std::uint64_t>(hello->maximumFrameBytes, limits::kMaximumFrameBytes);
  outgoing_.helloArrived(*hello);
  if (phase_ == Phase::closing) sayFarewell();
  if (phase_ == Phase::open && resumed_) sendWaiting();
}

void ConnectionCore::creditArrived(const wire::Frame& frame) {
  std::string reason;
  const auto credit = wire::Credit::decode(frame, reason);
  if (!credit) return breakProtocol(reason);
  bool valid = false;
  {
    MutexLock lock(mutex_);
    valid = outgoing_.creditArrived(*credit);
    if (valid && phase_ == Phase::closing) sayFarewell();
    if (valid && phase_ == Phase::open && resumed_) sendWaiting();
  }
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
  std::optional<OutgoingCall> call;
  std::size_t undelivered = 0;
  {
    MutexLock lock(mutex_);
    // What was asked before invalidate() may be answered after it.
    if (phase_ == Phase::closing) return;
    call = outgoing_.takeAwaitingReply(*identifier);
    if (call && !call->reply.neverBlocks) undeliveredReplyBytes_ += frame.body.size();
    undelivered = undeliveredReplyBytes_;
  }
  if (!call) return breakProtocol("a reply to no call: " + std::to_string(*identifier));
  if (call->reply.neverBlocks) return finishCall(*call, frame);
  post([self = shared_from_this(), call = std::move(*call), frame = std::move(frame)] {
    {
      MutexLock lock(self->mutex_);
      self->undeliveredReplyBytes_ -= frame.body.size();
    }
    self->finishCall(call, frame);
  });
  if (undelivered > limits::kUndeliveredReplyBytes) {
    breakProtocol(overLimit("bytes of undelivered replies", undelivered, limits::kUndeliveredReplyBytes));
  }
}

void ConnectionCore::finishCall(const OutgoingCall& call, const wire::Frame& frame) {
  const auto interface = remoteInterface();
  wire::ValueDecoder decoder(frame);
  decoder.nextUnsigned();
  NSObject value;
  auto outcome = decoder.next(interface->admitted(*call.method, 0, true), value);
  std::string reason = decoder.reason();
  if (outcome == wire::ValueDecoder::Outcome::value && !decoder.atEnd()) {
    outcome = wire::ValueDecoder::Outcome::broken;
    reason = "bytes after the value of a reply";
  }
  if (outcome == wire::ValueDecoder::Outcome::value &&
      !isOfKind(value, call.method->replyParameters.front().classObject)) {
    outcome = wire::ValueDecoder::Outcome::refused;
    reason = wrongKind(value, call.method->replyParameters.front().classObject);
  }
  if (outcome == wire::ValueDecoder::Outcome::value) return call.reply.block(value);
  const std::string text = "the reply to " + call.method->selector + " was refused: " + reason;
  postFailure(call.errorHandler, makeError(NSXPCReplyRefused, text));
  if (outcome == wire::ValueDecoder::Outcome::broken) breakProtocol(text);
}

void ConnectionCore::replyDroppedArrived(const wire::Frame& frame) {
  std::string reason;
  const auto identifier = wire::decodeReplyDropped(frame, reason);
  if (!identifier) return breakProtocol(reason);
  std::optional<OutgoingCall> forgotten;  // let go of after the lock
  bool known = false;
  {
    MutexLock lock(mutex_);
    forgotten = outgoing_.takeAwaitingReply(*identifier);
    known = forgotten.has_value() || phase_ == Phase::closing;
  }
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
}

}  // namespace velto::xpc
