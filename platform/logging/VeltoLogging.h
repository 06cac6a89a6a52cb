#pragma once

#include <atomic>
#include <cstdint>
#include <functional>

#include "platform/foundation/FormatArgument.h"
#include "platform/foundation/NSObject.h"
#include "platform/foundation/NSString.h"

namespace velto {

// A place in a source file; `current()` is the place that calls it. (The standard one needs newer compilers than ours.)
struct SourceLocation {
  const char* file;
  std::uint32_t line;
  const char* function;

  static constexpr SourceLocation current(const char* file = __builtin_FILE(), std::uint32_t line = __builtin_LINE(),
                                          const char* function = __builtin_FUNCTION()) noexcept {
    return {file, line, function};
  }
};

}  // namespace velto

// Where a log line was made: file, line and function. An anchor can travel in a message, when strict types are off and
// the receiving interface admits the class. See NSObject for nil and threads.
class VELTO_EXPORT VKTLogAnchor : public NSObject {
 public:
  VKTLogAnchor() noexcept = default;
  VKTLogAnchor(std::nullptr_t) noexcept {}
  explicit operator bool() const noexcept { return !isNil(); }

  static velto::Class classObject();
  static VKTLogAnchor anchorWithLocation(const velto::SourceLocation& location);
  static VKTLogAnchor anchorWithFile(const NSString& file, std::uint32_t line, const NSString& function);

  // "" and 0 for nil.
  NSString file() const;
  std::uint32_t line() const noexcept;
  NSString function() const;

 private:
  explicit VKTLogAnchor(velto::ObjectBody* body) noexcept : NSObject(body) {}
};

namespace velto {

// The anchor of one place, once it is made; never destroyed.
using AnchorPlace = std::atomic<const VKTLogAnchor*>;
VELTO_EXPORT const VKTLogAnchor& anchorOfPlace(AnchorPlace& place, const SourceLocation& location) noexcept;

}  // namespace velto

// The anchor of the line that calls it; made once per place, then only handed out. nil while there is no memory for it.
#define VKTLogGetAnchor()                                                             \
  ([](const ::velto::SourceLocation& veltoLocation) noexcept -> const VKTLogAnchor& { \
    static constinit ::velto::AnchorPlace veltoPlace{nullptr};                        \
    return ::velto::anchorOfPlace(veltoPlace, veltoLocation);                         \
  }(::velto::SourceLocation::current()))

// Levels: 0 marks failures, 2 progress. No line has the first.
inline constexpr int VKTLogLevelOff = -1;
inline constexpr int VKTLogLevelFailure = 0;
inline constexpr int VKTLogLevelProgress = 2;

// Where lines go. A sink is called on the thread that logs, possibly by several threads at once; what the library logs
// on a thread that may not wait for a sink, or under a lock, comes a little later on another, cut after 16 KiB. A sink
// must not raise: one that does loses its line. A line that a sink logs itself is dropped.
using VKTLogSink = std::function<void(const VKTLogAnchor& anchor, int level, const NSString& text)>;

// Replaces the sink; an empty one brings the default back. That writes a line to standard error and waits for nobody
// who should read there: lines without room are lost and their number is told; lines that a place in the source repeats
// within a second, and those beyond ten of a place in a second, are told in one. Below VKTLogLevelProgress it leaves
// out what tells of the end of a connection that ended in good order: closed here, or by the other end. Thread-safe.
// When it returns, no thread is inside the former sink any more (unless it is called from inside one).
VELTO_EXPORT void VKTLogSetSink(VKTLogSink sink);
// Lines above this level are dropped, before anything is formatted. Before it is set, the environment variable
// VELTO_LOG says which, as it is when the first line is logged: "off", "failures", "progress"; without it, and in a
// program that has more rights than whoever starts it, failures are seen and progress is not. Thread-safe.
VELTO_EXPORT void VKTLogSetLevel(int level);

namespace velto {

VELTO_EXPORT extern std::atomic<int> logLevel;
VELTO_EXPORT void writeLogLine(const VKTLogAnchor& anchor, int level, const char* format,
                               std::initializer_list<FormatArgument> arguments) noexcept;

}  // namespace velto

// Logs one line. `format` is printf's, with "%@" for an object's description. A line that nobody will see costs a
// comparison. Thread-safe; never raises.
template <class... Arguments>
void VKTLoggingLog(const VKTLogAnchor& anchor, int level, const char* format, const Arguments&... arguments) {
  if (level > velto::logLevel.load(std::memory_order_relaxed)) return;
  velto::writeLogLine(anchor, level, format, {velto::FormatArgument(arguments)...});
}
