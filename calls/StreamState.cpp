#include "calls/StreamState.h"

#include "platform/xpc/contract/Limits.h"

namespace velto::calls {

namespace {

CallError over(const char* why) {
  return {Failure::closed, why};
}

}  // namespace

void StreamState::setWire(Wire wire) {
  in_.setGrant(wire.grant);
  out_.setSend(wire.send);
  std::function<void()> finish;
  {
    MutexLock lock(mutex_);
    if (isFinished_) finish = wire.finish;
    wire_ = std::move(wire);
  }
  if (finish) finish();
}

void StreamState::open() {
  Inflow::Grant grant;
  {
    MutexLock lock(mutex_);
    grant.swap(wire_.grant);
  }
  if (grant) grant(limits::kStreamItems, limits::kStreamBytes);
}

void StreamState::finish() {
  out_.end(over("nothing is written behind the end of a stream"));
  std::function<void()> finish;
  {
    MutexLock lock(mutex_);
    isFinished_ = true;
    finish.swap(wire_.finish);
  }
  if (finish) finish();
}

void StreamState::end(const Outcome<NSDictionary>& result) {
  in_.end(result);
  out_.end(result ? over("the call has ended") : result.error());
  Wire wire;
  {
    MutexLock lock(mutex_);
    std::swap(wire, wire_);
  }
  if (wire.forget) wire.forget();
}

void StreamState::fail(const CallError& why) {
  end(why);
  if (endCall_) endCall_(why);
}

void StreamState::cancel() {
  in_.discard();
  if (endCall_) endCall_(CallError(Failure::cancelled, "the call was taken back"));
}

}  // namespace velto::calls
