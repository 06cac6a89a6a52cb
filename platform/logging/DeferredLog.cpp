// The queue of lines for the process, and the two who meet at it: threads that may not wait for a sink, and the one
// that may. Whether somebody has to be told is decided when the outermost scope ends, since only then no lock is held
// that the drainer could want as well.
#include "platform/logging/DeferredLog.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <new>
#include <optional>
#include <string>
#include <utility>

#include <pthread.h>

#include "platform/foundation/UTF8.h"
#include "platform/logging/DeferredLines.h"
#include "platform/logging/LogSink.h"
#include "platform/logging/LostLines.h"

namespace velto {
namespace {

constinit std::atomic<void (*)()> installedDrainer{nullptr};

// Scopes alive on this thread, and whether one of them has deferred something.
constinit thread_local unsigned scopeCount = 0;
constinit thread_local bool hasDeferred = false;

// Never destroyed: threads may log until the very end.
DeferredLines& waitingLines() {
  alignas(DeferredLines) static constinit unsigned char place[sizeof(DeferredLines)] = {};
  static DeferredLines& made = *[] {
    pthread_atfork([] { waitingLines().beforeFork(); }, [] { waitingLines().afterForkInParent(); },
                   [] { waitingLines().afterForkInChild(); });
    return new (place) DeferredLines;
  }();
  return made;
}

void tellSomebody() noexcept {
  const auto drainer = installedDrainer.load(std::memory_order_acquire);
  if (drainer == nullptr) {
    drainDeferredLog();
  } else if (waitingLines().mustAsk(std::chrono::steady_clock::now())) {
    drainer();
  }
}

// False when there is no memory to say how many lines were lost.
bool writeLostCount() noexcept {
  const std::uint64_t lost = waitingLines().takeLostCount();
  if (lost == 0) return true;
  try {
    const NSString text(textOfLostLines(lost));
    LogSinkHolder::shared().writeText(LineOf::anything, VKTLogGetAnchor(), VKTLogLevelFailure, text);
    return true;
  } catch (...) {
    waitingLines().countLost(lost);
    return false;
  }
}

// Writes as many lines as there are now.
bool writeWaiting() noexcept {
  DeferredLines& waiting = waitingLines();
  for (std::size_t count = waiting.count(); count > 0; --count) {
    const std::optional<DeferredLine> line = waiting.take();
    if (line) LogSinkHolder::shared().writeText(line->what, line->anchor, line->level, line->text);
  }
  return writeLostCount();
}

NSString shownPartOf(const std::string& text) {
  return std::string_view(text).substr(0, lengthCutBetweenCharacters(text, kMaximumLogTextBytes));
}

}  // namespace

LogDeferral::LogDeferral() noexcept {
  ++scopeCount;
}

LogDeferral::~LogDeferral() {
  if (--scopeCount > 0) return;
  if (std::exchange(hasDeferred, false)) tellSomebody();
}

bool isLogDeferred() noexcept {
  return scopeCount > 0;
}

void setLogDrainer(void (*drainer)()) noexcept {
  installedDrainer.store(drainer, std::memory_order_release);
  // Whoever was asked before may never come.
  waitingLines().forgetAsking();
  if (drainer != nullptr) tellSomebody();
}

void deferLogLine(LineOf what, const VKTLogAnchor& anchor, int level, const char* format,
                  std::initializer_list<FormatArgument> arguments) noexcept {
  const int formerError = errno;
  if (InsideSink::isNow()) return;
  try {
    // A description that logs is dropped like a sink that does.
    const InsideSink inside;
    waitingLines().add({what, anchor, level, shownPartOf(formatText(format, arguments))});
  } catch (...) {
    waitingLines().countLost(1);
  }
  hasDeferred = true;
  errno = formerError;
}

void drainDeferredLog() noexcept {
  const int formerError = errno;
  DeferredLines& waiting = waitingLines();
  if (InsideSink::isNow()) return;
  bool mayContinue = true;
  while (mayContinue && !waiting.isEmpty() && waiting.begin()) {
    mayContinue = writeWaiting();
    waiting.finish();
    if (waiting.isEmpty()) continue;
    // Another turn is the drainer's to give, if there is one.
    if (installedDrainer.load(std::memory_order_acquire) == nullptr) continue;
    if (mayContinue) tellSomebody();
    mayContinue = false;
  }
  errno = formerError;
}

}  // namespace velto
