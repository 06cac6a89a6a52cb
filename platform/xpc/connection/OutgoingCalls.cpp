// Credit counts what the other end holds: a call takes its bytes when it is sent, and gives them back when the other
// end says that it has dealt with it. Calls are dealt with in order, and those that run ahead of others are so among
// themselves: a count is enough to say which.

#include "platform/xpc/connection/OutgoingCalls.h"

#include <algorithm>
#include <bit>
#include <utility>

#include "platform/xpc/interface/Errors.h"

namespace velto::xpc {

std::string OutgoingCalls::overPeerLimits(const wire::Frame& frame) const {
  if (frame.size() > peerMaximumBytes_) {
    return overLimit("bytes of a frame to this peer", frame.size(), peerMaximumBytes_);
  }
  const std::size_t regions = frame.regions == 0 ? 0 : std::size_t{1} << frame.regions;
  if (regions > peerMaximumRegionBytes_.value_or(limits::kMaximumRegionBytes)) {
    return overLimit("bytes of a frame with its data to this peer", frame.size() + regions,
                     peerMaximumBytes_ + *peerMaximumRegionBytes_);
  }
  if (frame.descriptors.size() > peerMaximumDescriptors_) {
    return overLimit("descriptors of a frame to this peer", frame.descriptors.size(), peerMaximumDescriptors_);
  }
  if (frame.type != wire::FrameType::call) return {};
  if (frame.credit() > windowBytes_) {
    return overLimit("bytes of a call that this peer keeps", frame.credit(), windowBytes_);
  }
  return windowCalls_ == 0 ? overLimit("calls that this peer keeps", 1, 0) : std::string();
}

NSError OutgoingCalls::refusalToKeep(const wire::Frame& frame, bool wantsReply, std::size_t waitingInChannel) const {
  if (const std::string excess = overPeerLimits(frame); !excess.empty()) return makeError(NSXPCLimitExceeded, excess);
  if (wantsReply && pendingReplies_ >= limits::kPendingReplies) {
    return makeError(NSXPCLimitExceeded,
                     overLimit("calls that wait for their replies", pendingReplies_ + 1, limits::kPendingReplies));
  }
  const std::size_t before = waitingBytes_ + waitingInChannel;
  const std::size_t waiting = before + frame.weight();
  // Of regions, as much as one call may have can always wait.
  const bool isAlone = frame.regions != 0 && before + frame.size() <= limits::kWaitingBytes && waitingRegions_ == 0;
  if (waiting <= limits::kWaitingBytes || isAlone) return nil;
  return makeError(NSXPCLimitExceeded, overLimit("bytes that wait to be sent", waiting, limits::kWaitingBytes));
}

void OutgoingCalls::add(OutgoingCall&& call, wire::Frame&& frame) {
  const std::uint64_t identifier = call.identifier;
  const bool wantsReply = static_cast<bool>(call.reply);
  const std::size_t bytes = frame.weight();
  const std::size_t regions = frame.regionWeight();
  Fifo<Waiting>& waiting = call.method->way == Way::ahead ? waitingAhead_ : waiting_;
  waiting.push_back({identifier, std::move(frame)});
  try {
    calls_.add(std::move(call));
  } catch (...) {
    waiting.pop_back();
    throw;
  }
  if (wantsReply) ++pendingReplies_;
  waitingBytes_ += bytes;
  waitingRegions_ += regions;
}

std::optional<OutgoingCalls::Sendable> OutgoingCalls::takeSendable() {
  const auto mayGo = [this](const wire::Frame& frame) { return frame.regions == 0 || peerMaximumRegionBytes_; };
  if (!waitingAhead_.empty() && uncreditedAhead_.size() < limits::kPendingReplies &&
      mayGo(waitingAhead_.front().frame)) {
    Sendable sendable = takeFirst(waitingAhead_);
    uncreditedAhead_.push_back({sendable.identifier, sendable.frame.credit()});
    return sendable;
  }
  if (waiting_.empty() || uncredited_.size() >= windowCalls_ || !mayGo(waiting_.front().frame)) return std::nullopt;
  const std::size_t bytes = waiting_.front().frame.credit();
  if (usedBytes_ + bytes > windowBytes_) return std::nullopt;
  Sendable sendable = takeFirst(waiting_);
  usedBytes_ += bytes;
  uncredited_.push_back({sendable.identifier, bytes});
  return sendable;
}

OutgoingCalls::Sendable OutgoingCalls::takeFirst(Fifo<Waiting>& from) {
  Waiting& first = from.front();
  waitingBytes_ -= first.frame.weight();
  waitingRegions_ -= first.frame.regionWeight();
  Sendable sendable{first.identifier, std::move(first.frame)};
  from.pop_front();
  return sendable;
}

void OutgoingCalls::sent(std::uint64_t identifier, std::uint64_t frameNumber) {
  if (OutgoingCall* found = calls_.find(identifier)) found->frameNumber = frameNumber;
}

std::vector<OutgoingCalls::Refused> OutgoingCalls::helloArrived(const wire::Hello& hello) {
  peerMaximumBytes_ = std::min<std::uint64_t>(hello.maximumFrameBytes, limits::kMaximumFrameBytes);
  const std::uint64_t beyond = hello.maximumFrameBytes - peerMaximumBytes_;
  peerMaximumRegionBytes_ = std::min<std::uint64_t>(beyond, limits::kMaximumRegionBytes);
  peerMaximumDescriptors_ = std::min<std::uint64_t>(hello.maximumDescriptors, limits::kMaximumDescriptors);
  windowBytes_ = std::min<std::uint64_t>(hello.undeliveredBytes, limits::kUndeliveredBytes);
  windowCalls_ = std::min<std::uint64_t>(hello.undeliveredCalls, limits::kUndeliveredCalls);
  return takeRefused();
}

std::string OutgoingCalls::overUnread(const wire::Frame& reply) const {
  const std::size_t unread = unreadRegions_ + reply.regionWeight();
  // One may always go.
  if (reply.regions == 0 || unreadRegions_ == 0 || unread <= limits::kWaitingBytes) return {};
  return overLimit("bytes that wait to be sent", unread, limits::kWaitingBytes);
}

std::size_t OutgoingCalls::roomForRegions() const noexcept {
  if (unreadRegions_ == 0) return limits::kMaximumRegionBytes;
  if (unreadRegions_ >= limits::kWaitingBytes) return 0;
  // They will count for the power of two that they do not exceed.
  return std::bit_floor((limits::kWaitingBytes - unreadRegions_) * limits::kRegionBytesPerByte);
}

bool OutgoingCalls::creditArrived(const wire::Credit& credit) {
  if (credit.aheadCalls > uncreditedAhead_.size()) return false;
  if (settle(uncreditedAhead_, credit.aheadCalls) != credit.aheadBytes) return false;
  if (credit.calls == 0) {
    if (credit.bytes > unreadRegions_) return false;
    unreadRegions_ -= credit.bytes;
    return true;
  }
  if (credit.calls > uncredited_.size() || credit.bytes > usedBytes_) return false;
  const std::uint64_t bytes = settle(uncredited_, credit.calls);
  usedBytes_ -= bytes;
  return bytes == credit.bytes;
}

std::uint64_t OutgoingCalls::settle(Fifo<Uncredited>& sent, std::uint64_t calls) {
  std::uint64_t bytes = 0;
  for (; calls > 0; --calls) {
    const Uncredited dealtWith = sent.front();
    sent.pop_front();
    bytes += dealtWith.bytes;
    OutgoingCall* found = calls_.find(dealtWith.identifier);
    if (found != nullptr && !found->reply) forgotten_.push_back(calls_.take(found));
  }
  return bytes;
}

std::optional<OutgoingCall> OutgoingCalls::take(std::uint64_t identifier) {
  OutgoingCall* found = calls_.find(identifier);
  if (found == nullptr) return std::nullopt;
  if (found->reply) --pendingReplies_;
  return calls_.take(found);
}

std::vector<OutgoingCalls::Refused> OutgoingCalls::takeRefused() {
  std::vector<Refused> refused;
  takeRefused(waitingAhead_, refused);
  takeRefused(waiting_, refused);
  return refused;
}

void OutgoingCalls::takeRefused(Fifo<Waiting>& from, std::vector<Refused>& refused) {
  from.eraseIf([&](const Waiting& waiting) {
    std::string objection = overPeerLimits(waiting.frame);
    if (objection.empty()) return false;
    waitingBytes_ -= waiting.frame.weight();
    waitingRegions_ -= waiting.frame.regionWeight();
    if (auto call = take(waiting.identifier)) refused.push_back({std::move(*call), std::move(objection)});
    return true;
  });
}

std::optional<OutgoingCall> OutgoingCalls::takeAwaitingReply(std::uint64_t identifier) {
  OutgoingCall* found = calls_.find(identifier);
  if (found == nullptr || !found->reply) return std::nullopt;
  --pendingReplies_;
  return calls_.take(found);
}

std::vector<OutgoingCall> OutgoingCalls::takeAllAwaitingReply() {
  std::vector<OutgoingCall> taken;
  calls_.forEach([&taken](OutgoingCall& call) {
    if (!call.reply) return;
    taken.push_back({call.identifier, call.method, std::exchange(call.reply, {}),
                     std::exchange(call.errorHandler, nullptr), call.frameNumber});
  });
  pendingReplies_ = 0;
  std::ranges::sort(taken, {}, &OutgoingCall::identifier);
  return taken;
}

void OutgoingCalls::forgetAll() {
  for (OutgoingCall& call : calls_.takeAll()) forgotten_.push_back(std::move(call));
  waiting_.clear();
  waitingAhead_.clear();
  waitingBytes_ = 0;
  waitingRegions_ = 0;
  pendingReplies_ = 0;
}

std::vector<OutgoingCall> OutgoingCalls::takeAllUnsettled(std::uint64_t framesWritten) {
  std::vector<OutgoingCall> taken;
  std::vector<OutgoingCall> forgotten = takeForgotten();
  for (OutgoingCall& call : calls_.takeAll()) {
    const bool unwritten = call.frameNumber == 0 || call.frameNumber > framesWritten;
    (call.reply || unwritten ? taken : forgotten).push_back(std::move(call));
  }
  waiting_.clear();
  uncredited_.clear();
  waitingAhead_.clear();
  uncreditedAhead_.clear();
  waitingBytes_ = 0;
  waitingRegions_ = 0;
  unreadRegions_ = 0;
  pendingReplies_ = 0;
  usedBytes_ = 0;
  forgotten_ = std::move(forgotten);
  return taken;
}

}  // namespace velto::xpc
