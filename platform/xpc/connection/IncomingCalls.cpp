// What the other end asks. A call is kept as the bytes that came until its turn has come in the queue, so that what a
// blocked receiver holds is exactly what the sender's credit counts; it is checked whole before the method is called.

#include <new>
#include <optional>
#include <string>
#include <utility>

#include "platform/logging/VeltoLogging.h"
#include "platform/xpc/connection/ConnectionCore.h"
#include "platform/xpc/connection/ReplyTicket.h"
#include "platform/xpc/contract/Limits.h"
#include "platform/xpc/interface/Errors.h"
#include "platform/xpc/transport/LongWork.h"
#include "platform/xpc/wire/Messages.h"
#include "platform/xpc/wire/ValueDecoder.h"
#include "platform/xpc/wire/ValueEncoder.h"

namespace velto::xpc {

namespace {

// Credit is given back in portions of this part of the whole, so that it costs few frames.
constexpr std::uint64_t kCreditPortion = 4;

}  // namespace

void ConnectionCore::callArrived(wire::Frame frame) {
  std::function<void(std::shared_ptr<ConnectionCore>)> accept;
  bool isDeliverable = false;
  bool isClaimable = true;
  Account account;
  {
    MutexLock lock(mutex_);
    if (silenced_) return;
    isClaimable = keepClaimable(frame, claimable_.byCalls);
    undelivered_.bytes += frame.size();
    undelivered_.calls += 1;
    account = undelivered_;
    arrivedDescriptors_ += frame.descriptors.size();
    arrivedCalls_.push_back(std::move(frame));
    stateArrived();
    accept = std::exchange(hooks_.accept, nullptr);
    isDeliverable = resumed_;
  }
  if (!isClaimable) return breakProtocol("a call with more descriptors than any method takes");
  if (account.bytes > limits::kUndeliveredBytes) {
    return breakCredit(overLimit("bytes of undelivered calls", account.bytes, limits::kUndeliveredBytes));
  }
  if (account.calls > limits::kUndeliveredCalls) {
    return breakCredit(overLimit("undelivered calls", account.calls, limits::kUndeliveredCalls));
  }
  tellListener();
  if (accept) post([self = shared_from_this(), accept = std::move(accept)] { accept(self); });
  if (isDeliverable) postDelivery();
}

// Who takes more than his credit has not earned that it is dealt with.
void ConnectionCore::breakCredit(const std::string& reason) {
  breakProtocol(reason);
  MutexLock lock(mutex_);
  dropCalls();
}

bool ConnectionCore::keepClaimable(wire::Frame& frame, std::size_t most) {
  if (most == 0) frame.descriptors.clear();
  return frame.descriptors.size() <= most;
}

void ConnectionCore::postDelivery() {
  post([self = shared_from_this()] { self->deliver(); });
}

std::optional<wire::Frame> ConnectionCore::takeCall() {
  MutexLock lock(mutex_);
  ++turns_;
  if (arrivedCalls_.empty()) return std::nullopt;
  std::optional<wire::Frame> frame(std::move(arrivedCalls_.front()));
  arrivedCalls_.pop_front();
  arrivedDescriptors_ -= frame->descriptors.size();
  return frame;
}

void ConnectionCore::deliver() {
  const auto taken = takeCall();
  if (!taken) return;
  const wire::Frame& frame = *taken;
  // Given back even if the callback raises.
  struct GiveBack {
    ConnectionCore& core;
    const std::size_t bytes;
    ~GiveBack() {
      try {
        core.giveBack(bytes);
      } catch (const std::bad_alloc&) {
        // The other end would wait for its credit for ever.
        core.giveUp();
      }
    }
  } giveBackAtEnd{*this, frame.size()};
  bool hasEnded = false;
  {
    MutexLock lock(mutex_);
    if (silenced_) return;
    hasEnded = phase_ == Phase::ended;
  }
  // The end is on its way, past a callback that sleeps, or through the last threads: nothing but it may pass there.
  if (hasEnded && (queue_->hasSleeper() || !transport::Reactor::shared().mayLinger())) return;
  bool called = false;
  try {
    dispatch(frame, called);
  } catch (const std::bad_alloc&) {
    if (called) throw;
    // The caller would wait for ever.
    giveUp();
  }
}

void ConnectionCore::dispatch(const wire::Frame& frame, bool& called) {
  std::shared_ptr<NSXPCInterface> interface;
  std::shared_ptr<void> object;
  {
    MutexLock lock(mutex_);
    interface = exportedInterface_;
    if (interface && exportedProtocol_ == &interface->protocol()) object = exportedObject_;
  }
  std::string reason;
  wire::ValueDecoder decoder(frame);
  const auto header = wire::decodeCallHeader(decoder, reason);
  if (!header) return breakProtocol(reason);
  const Method* method = object ? interface->protocol().methodForSelector(header->selector) : nullptr;
  if (method == nullptr) {
    return refuse(header->identifier, wire::kNoSuchMethod, object ? "it has no such method" : "it exports no object");
  }
  std::vector<NSObject> arguments(method->parameters.size());
  if (!decodeArguments(frame, *interface, *method, *header, decoder, arguments)) return;
  if (!decoder.atEnd()) return breakProtocol("bytes after the arguments of " + method->selector);
  invoke(*method, object.get(), arguments, *header, called);
}

bool ConnectionCore::decodeArguments(const wire::Frame& frame, const NSXPCInterface& interface, const Method& method,
                                     const wire::CallHeader& header, wire::ValueDecoder& decoder,
                                     std::vector<NSObject>& arguments) {
  const transport::LongWork turn(frame.size());
  for (std::size_t index = 0; index < arguments.size(); ++index) {
    auto outcome = decoder.next(interface.admitted(method, index, false), arguments[index]);
    std::string reason = decoder.reason();
    const Class& declared = method.parameters[index].classObject;
    if (outcome == wire::ValueDecoder::Outcome::value && !isOfKind(arguments[index], declared)) {
      outcome = wire::ValueDecoder::Outcome::refused;
      reason = wrongKind(arguments[index], declared);
    }
    if (outcome == wire::ValueDecoder::Outcome::value) continue;
    if (outcome == wire::ValueDecoder::Outcome::broken) {
      breakProtocol(reason);
    } else {
      refuse(header.identifier, wire::kArgumentRefused, "argument " + std::to_string(index) + " " + reason);
    }
    return false;
  }
  return true;
}

void ConnectionCore::invoke(const Method& method, void* object, const std::vector<NSObject>& arguments,
                            const wire::CallHeader& header, bool& called) {
  std::shared_ptr<ReplyTicket> ticket;
  ReplyBlock reply;
  if (method.hasReply()) reply.block = [](const NSObject&) {};
  if (method.hasReply() && header.wantsReply) {
    std::size_t owed = 0;
    {
      MutexLock lock(mutex_);
      owed = ++owedReplies_;
    }
    ticket = std::make_shared<ReplyTicket>(weak_from_this(), header.identifier, method);
    reply.block = [ticket](const NSObject& value) { ticket->answer(value); };
    if (owed > limits::kOwedReplies) return breakProtocol(overLimit("replies owed", owed, limits::kOwedReplies));
  }
  called = true;
  try {
    method.invoke(object, arguments, std::move(reply));
  } catch (const NSXPCUnrecognizedSelector& missing) {
    if (missing.selector() != method.selector) throw;
    if (ticket) ticket->settle();
    refuse(header.identifier, wire::kNoSuchMethod, "the object exported there does not implement it");
  } catch (const NSXPCRefusal& refusal) {
    if (ticket) ticket->settle();
    refuse(header.identifier, wire::kArgumentRefused, refusal.reason());
  }
}

void ConnectionCore::refuse(std::uint64_t identifier, std::uint64_t code, const std::string& reason) {
  VKTLoggingLog(VKTLogGetAnchor(), VKTLogLevelProgress, "%s: a call is refused: %s", name_, reason);
  sendOrCutOff(wire::Refusal{identifier, code, reason}.encode(wire::FrameType::refusal));
}

void ConnectionCore::sendOrCutOff(wire::Frame frame) {
  const std::size_t waiting = sendControl(std::move(frame));
  if (waiting == 0) return;
  breakProtocol(overLimit("the other end does not read: bytes that wait to be sent", waiting, limits::kWaitingBytes));
}

void ConnectionCore::giveBack(std::size_t bytes) {
  MutexLock lock(mutex_);
  undelivered_.bytes -= bytes;
  undelivered_.calls -= 1;
  dealtWith_.bytes += bytes;
  dealtWith_.calls += 1;
  stateArrived();
  giveCredit();
}

void ConnectionCore::giveCredit() {
  if (!channel_ || phase_ != Phase::open) return;
  const bool worthIt = dealtWith_.bytes >= limits::kUndeliveredBytes / kCreditPortion ||
                       dealtWith_.calls >= limits::kUndeliveredCalls / kCreditPortion;
  // An end that does not read its replies gets no credit for more calls.
  if (!worthIt || channel_->waitingBytes() > limits::kWaitingBytes / kCreditPortion) return;
  channel_->send(wire::Credit{dealtWith_.bytes, dealtWith_.calls}.encode());
  dealtWith_ = {};
}

void ConnectionCore::outputDrained() {
  MutexLock lock(mutex_);
  giveCredit();
}

void ConnectionCore::sendReply(std::uint64_t identifier, const Method& method, const NSObject& value) {
  replySettled();
  wire::ValueEncoder encoder(wire::FrameType::reply);
  encoder.addUnsigned(identifier);
  encoder.add(value);
  encoder.finish();
  std::string reason = encoder.reason();
  std::uint64_t code = encoder.exceededLimit() ? wire::kLimitExceeded : wire::kReplyRefused;
  if (!encoder.failed()) {
    wire::Frame frame = encoder.take();
    {
      MutexLock lock(mutex_);
      reason = overPeerLimits(frame);
    }
    const std::size_t waiting = reason.empty() ? sendControl(std::move(frame)) : 0;
    if (reason.empty() && waiting == 0) return;
    if (waiting > 0) reason = overLimit("bytes that wait to be sent", waiting, limits::kWaitingBytes);
    code = wire::kLimitExceeded;
  }
  VKTLoggingLog(VKTLogGetAnchor(), VKTLogLevelFailure, "%s: the reply to %s could not be sent: %s", name_,
                method.selector, reason);
  sendOrCutOff(wire::Refusal{identifier, code, reason}.encode(wire::FrameType::replyRefusal));
}

void ConnectionCore::dropReply(std::uint64_t identifier) {
  replySettled();
  sendOrCutOff(wire::encodeReplyDropped(identifier));
}

void ConnectionCore::replySettled() {
  MutexLock lock(mutex_);
  --owedReplies_;
}

}  // namespace velto::xpc
