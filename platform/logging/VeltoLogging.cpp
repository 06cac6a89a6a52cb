// Logging: the entrance. Nothing that goes wrong while a line is made or written reaches whoever logs it.
#include "platform/logging/VeltoLogging.h"

#include <cerrno>
#include <memory>
#include <utility>

#include "platform/logging/DeferredLog.h"
#include "platform/logging/LogSink.h"

void VKTLogSetSink(VKTLogSink sink) {
  velto::LogSinkHolder::shared().replace(std::move(sink));
}

void VKTLogSetLevel(int level) {
  velto::logLevel.store(level, std::memory_order_relaxed);
}

namespace velto {

constinit std::atomic<int> logLevel{VKTLogLevelFailure};

void writeLogLine(const VKTLogAnchor& anchor, int level, const char* format,
                  std::initializer_list<FormatArgument> arguments) noexcept {
  if (isLogDeferred()) {
    deferLogLine(anchor, level, format, arguments);
    return;
  }
  const int formerError = errno;
  try {
    LogSinkHolder::shared().write(anchor, level, format, arguments);
  } catch (...) {
    // No memory for the first sink: there is none to write to.
  }
  errno = formerError;
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
