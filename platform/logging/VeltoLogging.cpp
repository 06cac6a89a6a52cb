// Logging: the entrance. Nothing that goes wrong while a line is made or written reaches whoever logs it.
#include "platform/logging/VeltoLogging.h"

#include <cerrno>
#include <memory>
#include <utility>

#include "platform/logging/DeferredLog.h"
#include "platform/logging/LogLevel.h"
#include "platform/logging/LogSink.h"
#include "platform/logging/OrderlyEnd.h"

void VKTLogSetSink(VKTLogSink sink) {
  velto::LogSinkHolder::shared().replace(std::move(sink));
}

void VKTLogSetLevel(int level) {
  velto::setLogLevel(level);
}

namespace velto {

namespace {

void writeLine(LineOf what, const VKTLogAnchor& anchor, int level, const char* format,
               std::initializer_list<FormatArgument> arguments) noexcept {
  // Whoever made the line may not have known the level yet.
  if (level > logLevelInForce()) return;
  if (isLogDeferred()) return deferLogLine(what, anchor, level, format, arguments);
  const int formerError = errno;
  try {
    LogSinkHolder::shared().write(what, anchor, level, format, arguments);
  } catch (...) {
    // No memory for the first sink: there is none to write to.
  }
  errno = formerError;
}

// What this thread tells of; nothing in good order at first.
constinit thread_local bool endIsOrderly = false;

}  // namespace

void writeLogLine(const VKTLogAnchor& anchor, int level, const char* format,
                  std::initializer_list<FormatArgument> arguments) noexcept {
  writeLine(LineOf::anything, anchor, level, format, arguments);
}

OrderlyEnd::OrderlyEnd(bool isOrderly) noexcept : outer_(std::exchange(endIsOrderly, isOrderly)) {}

OrderlyEnd::~OrderlyEnd() {
  endIsOrderly = outer_;
}

bool OrderlyEnd::isToldNow() noexcept {
  return endIsOrderly;
}

void writeLineOfEnd(const VKTLogAnchor& anchor, int level, const char* format,
                    std::initializer_list<FormatArgument> arguments) noexcept {
  writeLine(endIsOrderly ? LineOf::orderlyEnd : LineOf::anything, anchor, level, format, arguments);
}

const VKTLogAnchor& anchorOfPlace(AnchorPlace& place, const SourceLocation& location) noexcept {
  static const VKTLogAnchor none;
  if (const VKTLogAnchor* const made = place.load(std::memory_order_acquire)) return *made;
  try {
    auto made = std::make_unique<const VKTLogAnchor>(VKTLogAnchor::anchorWithLocation(location));
    const VKTLogAnchor* first = nullptr;
    // Of several threads that come here for the first time, one makes the anchor of all.
    if (!place.compare_exchange_strong(first, made.get(), std::memory_order_acq_rel)) return *first;
    return *made.release();
  } catch (...) {
    return none;
  }
}

}  // namespace velto
