// The sink that a program has before it sets one of its own: a line to standard error, written at once so that the
// lines of several threads and processes do not mix, and never at the price of the process. Who reads standard error
// can be slow, stopped or gone, and the threads that log are those that serve everybody: a line that does not fit now
// is lost and counted. No lock is held while a line is written. Lines that repeat are counted too; what was counted is
// told with the next line, by a timer if there is one, and at exit.
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <string_view>

#include <pthread.h>
#include <unistd.h>

#include "platform/foundation/UTF8.h"
#include "platform/logging/LogSink.h"
#include "platform/logging/LogTimer.h"
#include "platform/logging/LostLines.h"
#include "platform/logging/RepeatedLines.h"
#include "platform/logging/WriteWithoutWaiting.h"

namespace velto {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr milliseconds kShortestDelay{1000};
// Whoever does not read for long is asked less and less often.
constexpr milliseconds kLongestDelay{64'000};

constinit RepeatedLines repeatedLines;
constinit std::atomic<std::uint64_t> lostLines{0};
// Standard error ends within a line: only a part of it found room.
constinit std::atomic<bool> endsWithinLine{false};
constinit std::atomic<bool> lacksRoom{false};
// Until when the timer's call is expected; one that never came is asked for again afterwards.
constinit std::atomic<Clock::rep> timerExpectedUntil{0};
constinit std::atomic<milliseconds::rep> delayForRoom{kShortestDelay.count()};

// Keeps a write from ending or stopping the process: a broken pipe's signal is blocked on this thread, and taken away
// if it came; while a terminal's for processes in the background is blocked, the terminal takes what is written.
class SignalGuard {
 public:
  SignalGuard() {
    sigemptyset(&brokenPipe_);
    sigaddset(&brokenPipe_, SIGPIPE);
    sigset_t pending;
    sigpending(&pending);
    wasPending_ = sigismember(&pending, SIGPIPE) == 1;
    sigset_t blocked = brokenPipe_;
    sigaddset(&blocked, SIGTTOU);
    pthread_sigmask(SIG_BLOCK, &blocked, &former_);
  }
  ~SignalGuard() {
    const timespec noWait{};
    if (!wasPending_) sigtimedwait(&brokenPipe_, nullptr, &noWait);
    pthread_sigmask(SIG_SETMASK, &former_, nullptr);
  }
  SignalGuard(const SignalGuard&) = delete;
  SignalGuard& operator=(const SignalGuard&) = delete;

 private:
  sigset_t brokenPipe_{};
  sigset_t former_{};
  bool wasPending_ = false;
};

class ErrorNumberGuard {
 public:
  ErrorNumberGuard() : former_(errno) {}
  ~ErrorNumberGuard() { errno = former_; }
  ErrorNumberGuard(const ErrorNumberGuard&) = delete;
  ErrorNumberGuard& operator=(const ErrorNumberGuard&) = delete;

 private:
  const int former_;
};

bool isControl(char character) {
  const auto code = static_cast<unsigned char>(character);
  return code < 0x20 || code == 0x7f;
}

// False: at least a part of the line is lost.
bool writeLine(std::string_view text) {
  std::string line = "\nVeltoIPC: ";
  const std::size_t begin = 1;
  line += text;
  // A text must not be able to fake further lines, nor to steer a terminal.
  std::replace_if(line.begin() + begin, line.end(), isControl, ' ');
  line += '\n';
  const bool startsAfresh = endsWithinLine.exchange(false);
  const std::string_view bytes = std::string_view(line).substr(startsAfresh ? 0 : begin);
  const SignalGuard signals;
  const std::size_t written = writeWithoutWaiting(STDERR_FILENO, bytes);
  if (written == bytes.size()) {
    lacksRoom = false;
    return true;
  }
  lacksRoom = errno == EAGAIN;
  if (written > 0 || startsAfresh) endsWithinLine = true;
  return false;
}

bool tellLostLines() {
  const std::uint64_t count = lostLines.exchange(0);
  if (count == 0) return true;
  bool isTold = false;
  try {
    isTold = writeLine(textOfLostLines(count));
  } catch (...) {
    // No memory for the text: as if there had been no room.
  }
  if (!isTold) lostLines += count;
  return isTold;
}

// Tells a text that stands for so many lines.
void tell(std::string_view text, std::uint64_t count) {
  if (!tellLostLines() || !writeLine(text)) lostLines += count;
}

void tell(const HeldLines& held) noexcept {
  try {
    tell(held.text(), held.count());
  } catch (...) {
    lostLines += held.count();
  }
}

void tellLater() noexcept;

// When the timer should come; nothing when there is nothing to tell.
std::optional<milliseconds> delayUntilSomethingIsToTell(Clock::time_point now) noexcept {
  std::optional<milliseconds> delay;
  if (lostLines > 0 && lacksRoom) delay = milliseconds(delayForRoom);
  if (const auto over = repeatedLines.nextOver()) {
    // Rounded up: a timer that came too early would be asked for twice.
    const milliseconds rest = std::max(std::chrono::ceil<milliseconds>(*over - now), milliseconds(1));
    if (!delay || rest < *delay) delay = rest;
  }
  return delay;
}

void askForTimer() noexcept {
  if (!hasLogTimer()) return;
  const Clock::time_point now = Clock::now();
  Clock::rep expected = timerExpectedUntil;
  if (now.time_since_epoch().count() < expected) return;
  const std::optional<milliseconds> delay = delayUntilSomethingIsToTell(now);
  if (!delay) return;
  const Clock::time_point until = now + *delay + kShortestDelay;
  if (!timerExpectedUntil.compare_exchange_strong(expected, until.time_since_epoch().count())) return;
  if (!askLogTimer(*delay, tellLater)) timerExpectedUntil = 0;
}

// What the timer calls.
void tellLater() noexcept {
  const ErrorNumberGuard errorNumber;
  timerExpectedUntil = 0;
  const Clock::time_point now = Clock::now();
  while (const auto held = repeatedLines.takeOver(now)) tell(*held);
  delayForRoom = tellLostLines() ? kShortestDelay.count() : std::min(delayForRoom * 2, kLongestDelay.count());
  askForTimer();
}

void tellAtExit() noexcept {
  // Counted, so that threads which still log cannot keep the process from ending.
  for (std::size_t turn = 0; turn <= RepeatedLines::kMaximumPlaces; ++turn) {
    if (const auto held = repeatedLines.takeAny()) tell(*held);
  }
}

// The child of a fork has nothing to tell of what its parent held back or lost, and no timer yet.
void forgetInChild() noexcept {
  repeatedLines.afterForkInChild();
  lostLines = 0;
  timerExpectedUntil = 0;
}

const struct Lifetime {
  Lifetime() {
    pthread_atfork([] { repeatedLines.beforeFork(); }, [] { repeatedLines.afterForkInParent(); }, forgetInChild);
  }
  ~Lifetime() { tellAtExit(); }
  Lifetime(const Lifetime&) = delete;
  Lifetime& operator=(const Lifetime&) = delete;
} lifetime;

void writeUnlessRepeated(const VKTLogAnchor& anchor, std::string_view text) {
  const RepeatedLines::Verdict verdict = repeatedLines.judge(anchor.hash(), text, Clock::now());
  if (verdict.former) tell(*verdict.former);
  if (verdict.isShown) tell(text, 1);
}

}  // namespace

void writeToStandardError(const VKTLogAnchor& anchor, int, const NSString& text) {
  const ErrorNumberGuard errorNumber;
  try {
    const std::string_view whole = text.view();
    writeUnlessRepeated(anchor, whole.substr(0, lengthCutBetweenCharacters(whole, kMaximumLogTextBytes)));
  } catch (...) {
    ++lostLines;
  }
  askForTimer();
}

}  // namespace velto
