#pragma once

#include <condition_variable>
#include <cstddef>
#include <memory>

#include "platform/foundation/ThreadAnnotations.h"
#include "platform/logging/VeltoLogging.h"

namespace velto {

// What a line tells of: the default sink leaves out some.
enum class LineOf { anything, orderlyEnd };

// This thread is inside a sink, or asks an object for its description on the way there: what it logs meanwhile is
// dropped. (So there is no such thing within another.)
class InsideSink {
 public:
  InsideSink() noexcept { isInside = true; }
  ~InsideSink() { isInside = false; }
  InsideSink(const InsideSink&) = delete;
  InsideSink& operator=(const InsideSink&) = delete;

  static bool isNow() noexcept { return isInside; }

 private:
  static thread_local bool isInside;
};

// The sink in use, and who is inside it. One for the process, never destroyed.
//
// Thread-safe.
class LogSinkHolder {
 public:
  static LogSinkHolder& shared();

  // Hands a line to the sink, unless this thread is inside a sink already, or it is the default one, which leaves the
  // line out. What the sink raises goes no further.
  void write(LineOf what, const VKTLogAnchor& anchor, int level, const char* format,
             std::initializer_list<FormatArgument> arguments) noexcept;
  void writeText(LineOf what, const VKTLogAnchor& anchor, int level, const NSString& text) noexcept;
  // Returns once no thread is inside the former sink; at once if this thread is inside one.
  void replace(VKTLogSink sink);

 private:
  // A sink, and the number of threads inside it.
  struct Slot {
    VKTLogSink sink;
    bool isDefault = false;
    std::size_t threadsInside = 0;
    bool isAbandoned = false;  // replaced from inside a sink: the last thread to leave disposes of it
  };
  class Visit;

  LogSinkHolder();
  // Around a fork the lock is held, so that the child finds everything whole; there only its own thread is inside.
  static void beforeFork() noexcept;
  static void afterForkInParent() noexcept;
  static void afterForkInChild() noexcept;
  template <class Write>
  void visit(LineOf what, Write write) noexcept;
  Slot* enter();
  void leave(Slot* slot);

  Mutex mutex_;
  std::condition_variable left_;
  std::unique_ptr<Slot> current_ VELTO_GUARDED_BY(mutex_);
};

// The default sink: writes "VeltoIPC: text" and a line end to standard error, in one write, and never waits for
// anybody. What does not fit is lost and counted; lines that a place in the source repeats, or logs too many of in a
// second, are held back and told in one.
void writeToStandardError(const VKTLogAnchor& anchor, int level, const NSString& text);

}  // namespace velto
