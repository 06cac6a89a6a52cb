#pragma once

#include <initializer_list>

#include "platform/logging/VeltoLogging.h"

namespace velto {

// While such a scope is alive on a thread, the handlers that run there hear of the end of a connection: of one in good
// order (this end's own doing, or announced by the other end) or of another. The innermost counts.
class VELTO_EXPORT OrderlyEnd {
 public:
  explicit OrderlyEnd(bool isOrderly) noexcept;
  ~OrderlyEnd();
  OrderlyEnd(const OrderlyEnd&) = delete;
  OrderlyEnd& operator=(const OrderlyEnd&) = delete;

  static bool isToldNow() noexcept;

 private:
  const bool outer_;
};

VELTO_EXPORT void writeLineOfEnd(const VKTLogAnchor& anchor, int level, const char* format,
                                 std::initializer_list<FormatArgument> arguments) noexcept;

// As VKTLoggingLog, for what such a handler was told. Every sink gets the line but the default one, which leaves it out
// after an end in good order, below VKTLogLevelProgress. (Lines that a user's code logs meanwhile are as always.)
template <class... Arguments>
void logEnd(const VKTLogAnchor& anchor, int level, const char* format, const Arguments&... arguments) {
  if (level > logLevel.load(std::memory_order_relaxed)) return;
  writeLineOfEnd(anchor, level, format, {FormatArgument(arguments)...});
}

}  // namespace velto
