// A call is kept as the bytes that came until its turn has come in the queue, so that what a blocked receiver holds is
// exactly what the sender's credit counts.

#include "platform/xpc/connection/Arrivals.h"

#include <algorithm>

#include "platform/xpc/interface/Errors.h"
#include "platform/xpc/wire/SharedMemory.h"
#include "platform/xpc/wire/ValueDecoder.h"

namespace velto::xpc {

namespace {

// What keeping a call or a reply costs besides its bytes.
constexpr std::size_t kKeepingBytes = 128;
// Credit is given back in portions of this part of the whole, so that it costs few frames.
constexpr std::uint64_t kCreditPortion = 4;

}  // namespace

void Arrivals::swapObject(const Protocol& protocol, std::shared_ptr<void>& object) noexcept {
  protocol_ = &protocol;
  std::swap(object_, object);
}

std::size_t Arrivals::learnClaimable(std::size_t byReplies, bool repliesHoldData) {
  claimableByCalls_ = {interface_ ? interface_->claimableDescriptors(false) : 0,
                       interface_ && interface_->admitsData(false)};
  claimableByReplies_ = {byReplies, repliesHoldData};
  for (wire::Frame& frame : calls_) {
    descriptors_ -= frame.descriptors.size();
    keepClaimable(frame, claimableByCalls_);
    descriptors_ += frame.descriptors.size();
  }
  return std::max(claimableByCalls_.descriptors, claimableByReplies_.descriptors);
}

std::string Arrivals::keepClaimable(wire::Frame& frame, const Claimable& most) {
  const bool mayHoldRegions = frame.regions != 0 && most.data;
  if (most.descriptors == 0 && !mayHoldRegions) drop(frame.descriptors);
  std::size_t others = frame.descriptors.size();
  std::string problem;
  if (mayHoldRegions) {
    problem = wire::problemOfRegions(frame, others);
  } else if (frame.regions != 0) {
    others = dropRegions(frame);
  }
  if (problem.empty() && others > most.descriptors) problem = "more descriptors than any method takes";
  // Who cheats is not even kept waiting.
  if (!problem.empty()) drop(frame.descriptors);
  return problem;
}

void Arrivals::drop(std::vector<system::SharedDescriptor>& descriptors) {
  if (dropped_.empty()) return dropped_.swap(descriptors);
  dropped_.insert(dropped_.end(), descriptors.begin(), descriptors.end());
  descriptors.clear();
}

std::size_t Arrivals::dropRegions(wire::Frame& frame) {
  std::size_t others = 0;
  for (system::SharedDescriptor& each : frame.descriptors) {
    if (wire::isRegion(each)) {
      dropped_.push_back(std::move(each));
    } else if (each) {
      ++others;
    }
  }
  return others;
}

Arrivals::CallArrival Arrivals::callArrived(wire::Frame&& frame) {
  if (silenced_) return {};
  const std::string problem = keepClaimable(frame, claimableByCalls_);
  const Size size = sizeOf(frame);
  const std::size_t descriptors = frame.descriptors.size();
  calls_.push_back(std::move(frame));
  callBytes_ += size.credit;
  callBytesBeyond_ += size.beyond;
  ++callCount_;
  ++callsSoFar_;
  descriptors_ += descriptors;
  if (!problem.empty()) return {true, "a call with " + problem};
  std::string excess;
  if (callBytes_ > limits::kUndeliveredBytes) {
    excess = overLimit("bytes of undelivered calls", callBytes_, limits::kUndeliveredBytes);
  } else if (callCount_ > limits::kUndeliveredCalls) {
    excess = overLimit("undelivered calls", callCount_, limits::kUndeliveredCalls);
  }
  if (excess.empty()) return {true, ""};
  // Who takes more than his credit has not earned that it is dealt with.
  dropCalls();
  return {false, std::move(excess)};
}

std::optional<Arrivals::Turn> Arrivals::takeCall() {
  ++turns_;
  if (calls_.empty()) return std::nullopt;
  std::optional<Turn> turn = turnOf(std::move(calls_.front()));
  calls_.pop_front();
  return turn;
}

Way Arrivals::wayOf(const wire::Frame& call) const {
  if (!interface_ || !interface_->protocol().hasAhead()) return Way::twoWay;
  std::string problem;
  wire::ValueDecoder decoder(call);
  const auto header = wire::decodeCallHeader(decoder, problem);
  const Method* const method = header ? interface_->protocol().methodForSelector(header->selector) : nullptr;
  return method != nullptr ? method->way : Way::twoWay;
}

std::optional<Arrivals::Turn> Arrivals::takeAhead() {
  if (calls_.empty()) return std::nullopt;
  const Way way = wayOf(calls_.back());
  const bool isAhead = way == Way::ahead;
  if (!isAhead && (way != Way::prompt || callCount_ > 1)) return std::nullopt;
  std::optional<Turn> turn = turnOf(std::move(calls_.back()));
  calls_.pop_back();
  turn->isAhead = isAhead;
  if (isAhead) uncount(sizeOf(turn->frame));
  return turn;
}

std::optional<Arrivals::Turn> Arrivals::takePrompt() {
  if (calls_.empty() || wayOf(calls_.front()) != Way::prompt) return std::nullopt;
  std::optional<Turn> turn = turnOf(std::move(calls_.front()));
  calls_.pop_front();
  return turn;
}

void Arrivals::uncount(Size call) noexcept {
  callBytes_ -= call.credit;
  callBytesBeyond_ -= call.beyond;
  --callCount_;
}

Arrivals::Turn Arrivals::turnOf(wire::Frame&& frame) {
  Turn turn;
  turn.frame = std::move(frame);
  descriptors_ -= turn.frame.descriptors.size();
  if (interface_ && object_ && protocol_ == &interface_->protocol()) {
    turn.interface = interface_;
    turn.object = object_;
  }
  turn.owedReplies = ++owedReplies_;
  return turn;
}

void Arrivals::dealtWith(Size call, bool isOwedReply) noexcept {
  if (!isOwedReply) replySettled();
  if (call.isAhead) {
    credit_.aheadBytes += call.credit;
    ++credit_.aheadCalls;
    return;
  }
  uncount(call);
  credit_.bytes += call.credit;
  ++credit_.calls;
}

std::optional<wire::Credit> Arrivals::takeCredit(std::size_t waitingToBeSent) noexcept {
  const bool worthIt = credit_.bytes >= limits::kUndeliveredBytes / kCreditPortion ||
                       credit_.calls >= limits::kUndeliveredCalls / kCreditPortion ||
                       credit_.aheadBytes >= limits::kUndeliveredBytes / kCreditPortion ||
                       credit_.aheadCalls >= limits::kUndeliveredCalls / kCreditPortion;
  // An end that does not read its replies gets no credit for more calls.
  if (!worthIt || waitingToBeSent > limits::kWaitingBytes / kCreditPortion) return std::nullopt;
  return std::exchange(credit_, {});
}

std::string Arrivals::replyArrived(OutgoingCall&& call, wire::Frame&& frame) {
  const std::size_t bytes = frame.weight();
  const std::size_t descriptors = frame.descriptors.size();
  // Without memory the call stays with the caller.
  Reply& reply = replies_.emplace_back();
  reply.call = std::move(call);
  reply.frame = std::move(frame);
  replyBytes_ += bytes;
  descriptors_ += descriptors;
  if (replyBytes_ <= limits::kUndeliveredReplyBytes) return {};
  return overLimit("bytes of undelivered replies", replyBytes_, limits::kUndeliveredReplyBytes);
}

Arrivals::Reply Arrivals::takeReply() {
  ++turns_;
  Reply reply = std::move(replies_.front());
  replies_.pop_front();
  if (reply.frame) {
    replyBytes_ -= reply.frame->weight();
    descriptors_ -= reply.frame->descriptors.size();
  }
  return reply;
}

void Arrivals::dropCalls() noexcept {
  for (const wire::Frame& frame : calls_) {
    callBytes_ -= frame.credit();
    callBytesBeyond_ -= sizeOf(frame).beyond;
    descriptors_ -= frame.descriptors.size();
  }
  callCount_ -= calls_.size();
  calls_.clear();
}

std::size_t Arrivals::dropAll() noexcept {
  const std::size_t dropped = calls_.size() + replies_.size();
  dropCalls();
  for (Reply& reply : replies_) {
    if (reply.frame) descriptors_ -= reply.frame->descriptors.size();
    reply.frame.reset();
  }
  replyBytes_ = 0;
  return dropped;
}

bool Arrivals::isStuck() const noexcept {
  return turns_ == turnsAtLastLook_ && (callBytes_ + replyBytes_ > limits::kLeftoverBytes || descriptors_ > 0);
}

std::size_t Arrivals::heldByCalls() const noexcept {
  return callBytes_ + callBytesBeyond_ + callCount_ * kKeepingBytes;
}

std::size_t Arrivals::heldByReplies() const noexcept {
  return replyBytes_ + replies_.size() * kKeepingBytes;
}

}  // namespace velto::xpc
