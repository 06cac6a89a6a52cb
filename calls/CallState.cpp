// What is let go of may be the user's, and a stop callback that is let go of waits for itself to return: neither
// happens with the lock held.

#include "calls/CallState.h"

#include <algorithm>
#include <string>
#include <utility>

namespace velto::calls {

namespace {

std::string timedOutText(std::chrono::nanoseconds timeout) {
  const auto milliseconds = std::chrono::duration_cast<std::chrono::milliseconds>(timeout).count();
  return "no answer came within " + std::to_string(milliseconds) + " ms";
}

}  // namespace

void CallState::begin(std::optional<std::chrono::nanoseconds> timeout, const std::stop_token& stop) {
  std::shared_ptr<xpc::DelayedCall> timer;
  std::shared_ptr<StopCallback> callback;
  if (timeout) {
    timer = xpc::DelayedCall::after(*timeout, [weak = weak_from_this(), time = *timeout] {
      if (const auto self = weak.lock()) self->endHere(CallError(Failure::timedOut, timedOutText(time)));
    });
  }
  {
    const ConditionLock lock(condition_);
    if (timeout) deadline_ = xpc::timeAfter(*timeout);
    if (!result_) timer_.swap(timer);
  }
  if (!stop.stop_possible()) return;
  callback = std::make_shared<StopCallback>(stop, [weak = weak_from_this()] {
    if (const auto self = weak.lock()) self->cancel();
  });
  const ConditionLock lock(condition_);
  if (!result_) stop_.swap(callback);
}

bool CallState::setTellOther(std::function<void()> tellOther) {
  const ConditionLock lock(condition_);
  if (result_) return false;
  tellOther_.swap(tellOther);
  return true;
}

void CallState::setMakeAgain(std::function<bool()> makeAgain) {
  const ConditionLock lock(condition_);
  makeAgain_ = std::move(makeAgain);
}

std::optional<std::chrono::nanoseconds> CallState::timeLeft() const {
  const ConditionLock lock(condition_);
  if (!deadline_) return std::nullopt;
  return std::max(std::chrono::nanoseconds(0), *deadline_ - std::chrono::steady_clock::now());
}

void CallState::cancel() {
  endHere(CallError(Failure::cancelled, "the call was taken back"));
}

void CallState::endHere(Result result) {
  std::function<void()> tellOther;
  {
    const ConditionLock lock(condition_);
    if (result_) return;
    tellOther = tellOther_;
  }
  if (end(std::move(result)) && tellOther) tellOther();
}

bool CallState::isMadeAgain(const Result& result) {
  if (result || result.error().failure() != Failure::peerGone) return false;
  std::function<bool()> makeAgain;
  {
    const ConditionLock lock(condition_);
    if (!result_) makeAgain = makeAgain_;
  }
  return makeAgain && makeAgain();
}

bool CallState::end(Result result) {
  if (isMadeAgain(result)) return true;
  Completion completion;
  bool neverBlocks = false;
  std::function<void()> tellOther;
  std::function<bool()> makeAgain;
  std::shared_ptr<xpc::DelayedCall> timer;
  std::shared_ptr<StopCallback> stop;
  {
    const ConditionLock lock(condition_);
    if (result_) return false;
    result_ = result;
    completion.swap(completion_);
    neverBlocks = neverBlocks_;
    tellOther.swap(tellOther_);
    makeAgain.swap(makeAgain_);
    timer.swap(timer_);
    stop.swap(stop_);
    condition_.signal();
  }
  if (completion) complete(std::move(completion), neverBlocks, std::move(result));
  return true;
}

void CallState::complete(Completion completion, bool neverBlocks, Result result) const {
  if (neverBlocks) return completion(std::move(result));
  perform_([completion = std::move(completion), result = std::move(result)] { completion(result); });
}

bool CallState::hasEnded() const {
  const ConditionLock lock(condition_);
  return result_.has_value();
}

CallState::Result CallState::wait() {
  const ConditionLock lock(condition_);
  while (!result_) condition_.wait();
  // A signal wakes one; what it told is true for all who wait.
  condition_.signal();
  return *result_;
}

void CallState::whenEnded(Completion completion, bool neverBlocks) {
  std::optional<Result> result;
  {
    const ConditionLock lock(condition_);
    if (!result_) {
      completion_ = std::move(completion);
      neverBlocks_ = neverBlocks;
      return;
    }
    result = result_;
  }
  complete(std::move(completion), neverBlocks, *std::move(result));
}

}  // namespace velto::calls
