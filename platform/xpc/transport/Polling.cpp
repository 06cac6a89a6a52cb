#include "platform/xpc/transport/Polling.h"

#include <algorithm>

#include "platform/xpc/system/SystemCalls.h"

namespace velto::transport {

namespace {

// About what it costs to be woken on another processor.
constexpr std::chrono::microseconds kLongestLook{25};
// Who gets the processor back later than this shares it with somebody who works.
constexpr std::chrono::microseconds kLongestAway{200};
// Nobody wanted it who gave it back sooner.
constexpr std::chrono::microseconds kAway{3};
// Waits: after a look in vain, after the processor was gone, and at most.
constexpr unsigned kPause = 1;
constexpr unsigned kPauseWhenShared = 64;
constexpr unsigned kLongestPause = 8192;

}  // namespace

bool Polling::begin() noexcept {
  if (left_ > 0) {
    --left_;
    return false;
  }
  end_ = Clock::now() + kLongestLook;
  return true;
}

bool Polling::goOn() noexcept {
  const auto before = Clock::now();
  if (before >= end_) {
    giveUp(kPause);
    return false;
  }
  system::systemCalls().yield();
  const auto away = Clock::now() - before;
  sharesProcessor_ = away >= kAway;
  if (away < kLongestAway) return true;
  giveUp(kPauseWhenShared);
  return false;
}

void Polling::giveUp(unsigned leastPause) noexcept {
  pause_ = std::clamp(2 * pause_, leastPause, kLongestPause);
  left_ = pause_;
}

}  // namespace velto::transport
