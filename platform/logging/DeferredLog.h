#pragma once

#include "platform/logging/LogSink.h"
#include "platform/logging/VeltoLogging.h"

namespace velto {

// Logging where no user code may run: on a thread that reads, and under locks. A sink is user code, and a slow one
// would stop whoever waits for that thread or lock. While such a scope is alive on a thread, the lines that the thread
// logs are formatted at once and put into a queue of the process, from which they are handed to the sink later, on a
// thread where user code may run: one at a time, in the order in which they came. A line that another thread, or this
// one after the scope, logs directly may pass them. The queue is bounded; what does not fit, or finds no memory, is
// counted, and the number is logged in its place.
//
// Make the scope before the lock is taken, so that it ends after it: at the end of the outermost scope the drainer is
// told, and without a drainer the queue is written there. (Descriptions of objects are asked for at once, so a line
// under a lock should name no object whose description is user code.)
class LogDeferral {
 public:
  LogDeferral() noexcept;
  ~LogDeferral();
  LogDeferral(const LogDeferral&) = delete;
  LogDeferral& operator=(const LogDeferral&) = delete;
};

// By this a higher layer that has threads offers to call drainDeferredLog() soon, on a thread where user code may run;
// nullptr: nobody does. It is told once for all lines that come until the draining begins, and again when a second has
// gone by without one, on a thread that logs, with no lock of logging held. It must not raise and should not allocate:
// it is also called where neither can be borne. Thread-safe.
void setLogDrainer(void (*drainer)()) noexcept;

// Hands the lines that wait now to the sink, and whatever the sink raises goes no further. When more have come
// meanwhile, the drainer is told again, so that a flood keeps nobody here; without a drainer all are written. Returns
// at once when another thread is at it, or when this one is inside a sink. Thread-safe.
void drainDeferredLog() noexcept;

// A line that its level lets pass, always later.
void deferLogLine(LineOf what, const VKTLogAnchor& anchor, int level, const char* format,
                  std::initializer_list<FormatArgument> arguments) noexcept;
// Whether a scope is alive on this thread.
bool isLogDeferred() noexcept;

// As VKTLoggingLog for one line inside a LogDeferral. Outside of a scope the drainer is told at once, or without one
// the line is written at once: under a lock that the drainer or a sink could want, use a scope around the lock.
template <class... Arguments>
void logLater(const VKTLogAnchor& anchor, int level, const char* format, const Arguments&... arguments) {
  if (level > logLevel.load(std::memory_order_relaxed)) return;
  const LogDeferral deferral;
  writeLogLine(anchor, level, format, {FormatArgument(arguments)...});
}

}  // namespace velto
