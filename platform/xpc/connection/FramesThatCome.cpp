// Frames that come. What one brings about is noted under the lock, which is taken once, and done after it.

#include <exception>
#include <iterator>
#include <string>
#include <utility>

#include "platform/logging/VeltoLogging.h"
#include "platform/xpc/connection/ConnectionCore.h"
#include "platform/xpc/interface/Errors.h"
#include "platform/xpc/transport/Reactor.h"
#include "platform/xpc/wire/Messages.h"
#include "platform/xpc/wire/ValueDecoder.h"

namespace velto::xpc {

namespace {

// Bytes that can hold what is dear to make.
constexpr std::size_t kMayTakeLong = 256;
// About as many frames come together.
constexpr std::size_t kFewForgotten = 16;

bool mayTakeLong(const wire::Frame& frame) {
  return frame.weight() >= kMayTakeLong || !frame.descriptors.empty();
}

}  // namespace

// What a frame that has come brings about once the lock is let go of. What calls hold is the user's: it stays here.
struct ConnectionCore::Due {
  // The listener is told, and asked.
  std::function<void()> called;
  std::function<void(std::shared_ptr<ConnectionCore>)> accept;
  // A call that runs ahead of those that wait.
  std::optional<Arrivals::Turn> ahead;
  // Turns that the queue gets more.
  std::size_t calls = 0;
  std::size_t replies = 0;
  // A call that is settled, and what its error handler is told; nil when that is nothing.
  std::optional<OutgoingCall> settled;
  NSError error;
  // Its reply is for a block that never blocks: here and now, with what it may hold.
  std::shared_ptr<NSXPCInterface> answered;
  std::vector<OutgoingCalls::Refused> refused;
  std::vector<OutgoingCall> forgotten;
  std::vector<system::SharedDescriptor> dropped;
  // How the other end has broken the protocol; "" when it has not.
  std::string offence;
  NSXPCErrorCode code = NSXPCConnectionInterrupted;
  bool saidGoodbye = false;
  std::function<void()> writable;
  // One of those that are forgotten is to be told that no reply comes.
  bool dropsAReply = false;

  // Whether there is nothing but turns of one kind, and calls to be let go of.
  bool isPlain() const noexcept {
    return !called && !accept && !ahead && !settled && !answered && refused.empty() && offence.empty() && !saidGoodbye;
  }
  void forget(std::vector<OutgoingCall>&& more) {
    if (forgotten.empty()) return forgotten.swap(more);
    forgotten.insert(forgotten.end(), std::move_iterator(more.begin()), std::move_iterator(more.end()));
  }
};

void ConnectionCore::framesArrived(std::span<wire::Frame> frames) {
  while (!frames.empty()) {
    Due due;
    const auto before = frames;
    {
      MutexLock lock(mutex_);
      if (life_.hasEnded() || !channel_) return;
      frames = dispatchSome(frames, due);
      due.dropped = arrivals_.takeDropped();
      due.writable = writableAgain();
      stateArrived();
    }
    carryOut(due);
    if (due.answered) finishOnReader(*due.settled, before[before.size() - frames.size() - 1], *due.answered);
  }
}

// As many as can be dealt with at once. Returns those that are left.
std::span<wire::Frame> ConnectionCore::dispatchSome(std::span<wire::Frame> frames, Due& due) {
  do {
    // Turns are taken in the order in which the frames came.
    const wire::FrameType type = frames.front().type;
    if (type == wire::FrameType::call ? due.replies > 0 : type == wire::FrameType::reply && due.calls > 0) break;
    due.offence = life_.disorder(type == wire::FrameType::hello);
    if (due.offence.empty()) dispatch(frames.front(), due);
    frames = frames.subspan(1);
  } while (!frames.empty() && due.isPlain() && channel_);
  return frames;
}

void ConnectionCore::dispatch(wire::Frame& frame, Due& due) {
  switch (frame.type) {
    case wire::FrameType::hello:
      return helloArrived(frame, due);
    case wire::FrameType::call:
      return callArrived(frame, due);
    case wire::FrameType::reply:
      return replyArrived(frame, due);
    case wire::FrameType::replyDropped:
      return replyDroppedArrived(frame, due);
    case wire::FrameType::refusal:
    case wire::FrameType::replyRefusal:
      return refusalArrived(frame, due);
    case wire::FrameType::credit:
      return creditArrived(frame, due);
    case wire::FrameType::goodbye:
      due.saidGoodbye = wire::decodeGoodbye(frame, due.offence);
      return;
  }
}

void ConnectionCore::carryOut(Due& due) {
  if (due.called) due.called();
  if (due.accept) post([self = shared_from_this(), accept = std::move(due.accept)] { accept(self); });
  if (due.calls > 0) queue_->add(shared_from_this(), kCallsTurn, due.calls);
  if (due.replies > 0) queue_->add(shared_from_this(), kReplysTurn, due.replies);
  if (due.ahead) deliverAhead(*due.ahead);
  if (due.writable) runHere(due.writable);
  for (auto& [call, objection] : due.refused) {
    postNotSent(call.errorHandler, *call.method, makeError(NSXPCLimitExceeded, objection));
    observed_.refused(true, call.identifier, NSXPCLimitExceeded, objection.c_str());
    call.reply.tellDropped = nullptr;
    due.forgotten.push_back(std::move(call));
  }
  if (due.settled && !due.answered) {
    if (due.error) {
      observed_.refused(true, due.settled->identifier, due.error.code(), due.error.localizedDescription().UTF8String());
      postFailure(due.settled->errorHandler, due.error);
    }
    due.settled->reply.tellDropped = nullptr;
    due.forgotten.push_back(std::move(*due.settled));
  }
  if (due.dropsAReply) tellDropped(due.forgotten);
  letGo(std::move(due.forgotten));
  if (!due.offence.empty()) return cutOff(due.code, due.offence);
  if (!due.saidGoodbye) return;
  if (const auto channel = currentChannel()) channel->abort();
  end({makeError(NSXPCConnectionInvalid, name_ + " was invalidated by the other end"), Ending::Cause::goodbye});
}

void ConnectionCore::helloArrived(const wire::Frame& frame, Due& due) {
  const auto hello = wire::Hello::decode(frame, due.offence);
  if (!hello) return;
  if (hello->version != wire::kProtocolVersion) {
    due.code = NSXPCVersionMismatch;
    due.offence = "the other end speaks version " + std::to_string(hello->version) +
                  " of the protocol, this one version " + std::to_string(wire::kProtocolVersion);
    return;
  }
  due.refused = outgoing_.helloArrived(*hello);
  peerTakesRegions_ = outgoing_.peerTakesRegions();
  if (life_.isClosing()) sayFarewell();
  due.forget(outgoing_.takeForgotten());
  if (life_.maySendCalls()) sendWaiting();
  stateWaiting();
}

void ConnectionCore::creditArrived(const wire::Frame& frame, Due& due) {
  const auto credit = wire::Credit::decode(frame, due.offence);
  if (!credit) return;
  if (credit->isNothing()) {
    due.offence = "credit for nothing";
    return;
  }
  const bool isValid = outgoing_.creditArrived(*credit);
  if (!isValid) due.offence = "credit for calls that were never sent";
  if (isValid && life_.isClosing()) sayFarewell();
  due.forget(outgoing_.takeForgotten());
  if (isValid && life_.maySendCalls()) sendWaiting();
  stateWaiting();
}

void ConnectionCore::callArrived(wire::Frame& frame, Due& due) {
  auto arrival = arrivals_.callArrived(std::move(frame));
  if (!arrival.isKept && arrival.offence.empty()) return;
  due.accept = life_.takeAccept();
  due.offence = std::move(arrival.offence);
  if (!due.offence.empty()) return;
  due.called = life_.takeCalled();
  if (!life_.isResumed()) return;
  due.ahead = arrivals_.takeAhead();
  if (!due.ahead) ++due.calls;
}

void ConnectionCore::replyArrived(wire::Frame& frame, Due& due) {
  const auto identifier = wire::ValueDecoder(frame).nextUnsigned();
  if (!identifier) {
    due.offence = "a reply without the number of its call";
    return;
  }
  // What was asked before invalidate() may be answered after it.
  if (life_.isClosing()) return;
  const std::string problem = arrivals_.keepClaimable(frame);
  const bool isClaimable = problem.empty();
  due.settled = outgoing_.takeAwaitingReply(*identifier);
  if (!due.settled) {
    due.offence = "a reply to no call: " + std::to_string(*identifier);
    return;
  }
  OutgoingCall& call = *due.settled;
  if (!isClaimable) due.offence = "a reply with " + problem;
  if (call.reply.neverBlocks) acknowledgeRegions(frame);
  if (!call.reply.neverBlocks) {
    std::string excess = arrivals_.replyArrived(std::move(call), std::move(frame));
    due.settled.reset();
    ++due.replies;
    if (isClaimable) due.offence = std::move(excess);
  } else if (isClaimable) {
    due.answered = outgoing_.interface();
  } else {
    due.error = makeError(NSXPCReplyRefused, "the reply to " + call.method->selector + " was refused: " + problem);
  }
}

void ConnectionCore::replyDroppedArrived(const wire::Frame& frame, Due& due) {
  const auto identifier = wire::decodeReplyDropped(frame, due.offence);
  if (!identifier) return;
  if (due.forgotten.capacity() == due.forgotten.size()) due.forgotten.reserve(due.forgotten.size() + kFewForgotten);
  auto settled = outgoing_.takeAwaitingReply(*identifier);
  if (settled && settled->reply.tellDropped != nullptr) due.dropsAReply = true;
  if (settled) return due.forgotten.push_back(std::move(*settled));
  if (!life_.isClosing()) due.offence = "a dropped reply to no call: " + std::to_string(*identifier);
}

void ConnectionCore::refusalArrived(const wire::Frame& frame, Due& due) {
  const auto refusal = wire::Refusal::decode(frame, due.offence);
  if (!refusal) return;
  const bool ofReply = frame.type == wire::FrameType::replyRefusal;
  due.settled = ofReply ? outgoing_.takeAwaitingReply(refusal->identifier) : outgoing_.take(refusal->identifier);
  if (life_.isClosing()) return;
  if (!due.settled) {
    due.offence = "a refusal of no call: " + std::to_string(refusal->identifier);
    return;
  }
  auto code = ofReply ? NSXPCReplyRefused : NSXPCCallRefused;
  if (refusal->code == wire::kLimitExceeded) code = NSXPCLimitExceeded;
  const std::string what = ofReply ? " could not be answered: " : " was refused by the other end: ";
  due.error = makeError(code, due.settled->method->selector + what + refusal->text);
}

// Such a block never blocks.
void ConnectionCore::tellDropped(const std::vector<OutgoingCall>& calls) {
  for (const OutgoingCall& call : calls) {
    if (call.reply.tellDropped != nullptr) runHere([&call] { call.reply.tellDropped(call.reply.block); });
  }
}

// The reply block never blocks, but what a peer sends may take its time to be read.
void ConnectionCore::finishOnReader(const OutgoingCall& call, wire::Frame& frame, const NSXPCInterface& interface) {
  if (mayTakeLong(frame)) transport::Reactor::shared().standIn();
  runHere([&] { finishCall(call, frame, interface); });
}

void ConnectionCore::deliverAhead(Arrivals::Turn& turn) {
  if (mayTakeLong(turn.frame)) transport::Reactor::shared().standIn();
  runHere([&] { deliverOne(turn); });
}

void ConnectionCore::runHere(const std::function<void()>& block) {
  try {
    block();
  } catch (const std::exception& exception) {
    VKTLoggingLog(VKTLogGetAnchor(), VKTLogLevelFailure,
                  "What does not wait for its turn raised an exception, which is ignored: %s", exception.what());
  } catch (...) {
    VKTLoggingLog(VKTLogGetAnchor(), VKTLogLevelFailure,
                  "What does not wait for its turn raised an unknown exception, which is ignored");
  }
}

}  // namespace velto::xpc
