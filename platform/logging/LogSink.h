#pragma once

#include <condition_variable>
#include <cstddef>
#include <memory>

#include "platform/foundation/ThreadAnnotations.h"
#include "platform/logging/VeltoLogging.h"

namespace velto {

// The sink in use, and who is inside it. One for the process, never destroyed.
//
// Thread-safe.
class LogSinkHolder {
 public:
  static LogSinkHolder& shared();

  // Hands a line to the sink, unless this thread is inside a sink already.
  void write(const VKTLogAnchor& anchor, int level, const char* format,
             std::initializer_list<FormatArgument> arguments);
  // Returns once no thread is inside the former sink; at once if this thread is inside one.
  void replace(VKTLogSink sink);

 private:
  // A sink, and the number of threads inside it.
  struct Slot {
    VKTLogSink sink;
    std::size_t threadsInside = 0;
    bool isAbandoned = false;  // replaced from inside a sink: the last thread to leave disposes of it
  };
  class Visit;

  LogSinkHolder();
  Slot* enter();
  void leave(Slot* slot);

  Mutex mutex_;
  std::condition_variable left_;
  std::unique_ptr<Slot> current_ VELTO_GUARDED_BY(mutex_);
};

// Writes "VeltoIPC: text" and a line end to standard error, in one write.
void writeToStandardError(const VKTLogAnchor& anchor, int level, const NSString& text);

}  // namespace velto
