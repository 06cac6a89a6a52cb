#include "platform/xpc/transport/OwnReading.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <exception>
#include <optional>
#include <thread>
#include <utility>

#include "platform/foundation/ThreadAnnotations.h"
#include "platform/logging/DeferredLog.h"
#include "platform/logging/VeltoLogging.h"
#include "platform/xpc/system/PerProcess.h"
#include "platform/xpc/system/SystemCalls.h"

namespace velto::transport {

namespace {

using Clock = std::chrono::steady_clock;

// What is not answered in this time is left to the reactor: for so long a wait one more wake-up is nothing.
constexpr std::chrono::milliseconds kLongest{50};
// The kernel is asked so often to ring a bell. It can refuse only where a test plays it.
constexpr int kTries = 1000;

// What wakes threads that sleep until a socket can be read. One is kept for whoever needs it next, from the beginning
// on, so that a process at rest has as many descriptors open as before.
class Bells {
 public:
  // Empty when there is no descriptor left.
  system::Descriptor take() {
    {
      MutexLock lock(mutex_);
      if (kept_) return std::move(kept_);
    }
    return make();
  }
  void giveBack(system::Descriptor bell) {
    MutexLock lock(mutex_);
    if (!kept_) std::swap(kept_, bell);
  }

 private:
  static system::Descriptor make() { return system::Descriptor(system::systemCalls().eventCounter()); }

  Mutex mutex_;
  system::Descriptor kept_ VELTO_GUARDED_BY(mutex_) = make();
};

Bells& bells() {
  return system::perProcess<Bells>();
}

constinit thread_local bool threadEnds = false;

// What the current thread reads, from construction to destruction.
class Reading {
 public:
  Reading(Channel& channel, SleepingReader& reader) : channel_(channel), isTaken_(channel.takeReading(reader)) {}
  ~Reading() {
    if (!isTaken_) return;
    try {
      channel_.giveReadingUp();
    } catch (const std::exception&) {
      // Nobody would read any more.
      channel_.giveUp();
    }
  }
  Reading(const Reading&) = delete;
  Reading& operator=(const Reading&) = delete;

  explicit operator bool() const noexcept { return isTaken_; }

 private:
  Channel& channel_;
  const bool isTaken_;
};

}  // namespace

// Null once the thread is ending, on which others that end with it may still ask and wait.
OwnReading* OwnReading::ofThread() noexcept {
  static thread_local OwnReading own;
  return threadEnds ? nullptr : &own;
}

OwnReading::~OwnReading() {
  threadEnds = true;
  WaitingWork::install(nullptr);
}

void OwnReading::prepare() {
  bells();
}

void OwnReading::expect(const std::shared_ptr<Channel>& channel) noexcept {
  OwnReading* const own = ofThread();
  if (own == nullptr) return;
  own->expected_ = channel;
  own->generation_ = system::forkGeneration();
  WaitingWork::install(own);
}

void OwnReading::work(const ConditionSleep& sleep) noexcept {
  WaitingWork::install(nullptr);
  const auto expected = std::exchange(expected_, {});
  if (generation_ != system::forkGeneration()) return;
  const auto channel = expected.lock();
  if (!channel) return;
  const LogDeferral deferral;
  try {
    read(*channel, sleep);
  } catch (const std::exception& exception) {
    VKTLoggingLog(VKTLogGetAnchor(), VKTLogLevelFailure, "What has come could not be dealt with: %s", exception.what());
  }
}

void OwnReading::read(Channel& channel, const ConditionSleep& sleep) {
  const Reading reading(channel, *this);
  if (!reading) return;
  auto end = Clock::now() + kLongest;
  if (sleep.deadline()) end = std::min(end, *sleep.deadline());
  bool looks = polling_.begin();
  while (!sleep.isOver()) {
    if (!looks && !await(channel, sleep, end)) break;
    if (!channel.readOwn()) break;
    if (looks && !sleep.isOver()) looks = polling_.goOn();
  }
  if (looks) polling_.hasPaid();
  if (bell_) bells().giveBack(std::move(bell_));
}

bool OwnReading::await(Channel& channel, const ConditionSleep& sleep, Clock::time_point end) {
  auto& calls = system::systemCalls();
  if (!bell_) bell_ = bells().take();
  const auto time = std::chrono::nanoseconds(end - Clock::now());
  if (!bell_ || time.count() <= 0) return false;
  state_ = State::asleep;
  // What comes before this is seen here, what comes later wakes.
  const auto socket = channel.mayAwait();
  int found = 1;
  if (socket && !sleep.isOver()) {
    found = calls.awaitReadable(socket->get(), bell_.get(), static_cast<std::uint64_t>(time.count()));
  }
  State asleep = State::asleep;
  if (state_.compare_exchange_strong(asleep, State::awake)) return found > 0;
  // Whoever wakes this thread has the bell in hand, and waits for nobody.
  while (state_ != State::awake) std::this_thread::yield();
  std::uint64_t rung = 0;
  calls.read(bell_.get(), &rung, sizeof(rung));
  return true;
}

void OwnReading::interrupt() noexcept {
  wakeUp();
}

void OwnReading::wakeUp() noexcept {
  State asleep = State::asleep;
  if (!state_.compare_exchange_strong(asleep, State::rung)) return;
  const std::uint64_t one = 1;
  for (int tries = 0; system::systemCalls().write(bell_.get(), &one, sizeof(one)) < 0 && tries < kTries; ++tries) {
    std::this_thread::yield();
  }
  state_ = State::awake;
}

}  // namespace velto::transport
