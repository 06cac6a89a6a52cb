// Logging: the entrance. Nothing that goes wrong while a line is made or written reaches whoever logs it.
#include "platform/logging/VeltoLogging.h"

#include <cerrno>
#include <utility>

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
  const int formerError = errno;
  try {
    LogSinkHolder::shared().write(anchor, level, format, arguments);
  } catch (...) {
    // A sink must not raise. One that does loses its line; the process goes on.
  }
  errno = formerError;
}

}  // namespace velto
