#include "platform/xpc/transport/Polling.h"

#include <algorithm>
#include <thread>

namespace velto::transport {

namespace {

// About what it costs to be woken on another processor.
constexpr std::chrono::microseconds kLongest{25};
// Who gets the processor back later than this shares it with somebody who works.
constexpr std::chrono::microseconds kLongestAway{200};
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
  end_ = Clock::now() + kLongest;
  return true;
}

bool Polling::goOn() noexcept {
  const auto before = Clock::now();
  if (before >= end_) {
    giveUp(kPause);
    return false;
  }
  std::this_thread::yield();
  if (Clock::now() - before < kLongestAway) return true;
  giveUp(kPauseWhenShared);
  return false;
}

void Polling::giveUp(unsigned leastPause) noexcept {
  pause_ = std::clamp(2 * pause_, leastPause, kLongestPause);
  left_ = pause_;
}

}  // namespace velto::transport
