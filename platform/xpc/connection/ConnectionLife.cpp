// A connection is idle, connecting, open, closing and ended, in this order, and may leave out any of them but the last.
// What happens to one that nobody has resumed is kept until somebody does.

#include "platform/xpc/connection/ConnectionLife.h"

#include "platform/xpc/contract/Limits.h"

namespace velto::xpc {

bool ConnectionLife::resume(Clock::time_point now) {
  if (std::exchange(resumed_, true)) return false;
  patientUntil_ = now + limits::kConnectPatience;
  if (phase_ == Phase::idle) phase_ = Phase::connecting;
  return true;
}

void ConnectionLife::channelOpened() noexcept {
  if (!isOver()) phase_ = Phase::open;
}

std::string_view ConnectionLife::disorder(bool isHello) noexcept {
  const bool inOrder = greeted_ != isHello;
  greeted_ = true;
  if (inOrder) return "";
  return isHello ? "a second hello" : "the first frame is not a hello";
}

void ConnectionLife::invalidate(bool hasChannel, NSError told) noexcept {
  phase_ = hasChannel || phase_ == Phase::connecting ? Phase::closing : Phase::ended;
  endError_ = std::move(told);
  endedInGoodOrder_ = true;
}

ConnectionLife::Telling ConnectionLife::end(const Ending& ending) {
  // Whoever has said goodbye was told of the end when he did.
  if (isClosing()) finish();
  if (hasEnded() || keptEnding_) return Telling::never;
  if (!resumed_) {
    keptEnding_ = ending;
    return Telling::later;
  }
  phase_ = Phase::ended;
  endError_ = ending.error;
  endedInGoodOrder_ = ending.cause == Ending::Cause::goodbye;
  return Telling::now;
}

ConnectionLife::LastWill ConnectionLife::takeLastWill() noexcept {
  return {std::exchange(interruptionHandler_, nullptr), std::exchange(invalidationHandler_, nullptr),
          std::exchange(hooks_, {})};
}

}  // namespace velto::xpc
