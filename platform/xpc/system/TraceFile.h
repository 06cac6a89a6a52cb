#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "platform/foundation/ThreadAnnotations.h"
#include "platform/xpc/system/Descriptor.h"
#include "platform/xpc/system/PerProcess.h"

namespace velto::system {

// Whether a trace is written, and where to: the variable VELTO_TRACE says, when it is asked for first.
enum class Tracing : unsigned char { unknown, off, on };
extern constinit std::atomic<Tracing> tracing;
bool findOutWhetherTraced() noexcept;
// One relaxed load while nothing is traced.
inline bool isTraced() noexcept {
  const Tracing now = tracing.load(std::memory_order_relaxed);
  return now != Tracing::off && (now == Tracing::on || findOutWhetherTraced());
}

// The file of the trace, to which several processes may write: the beginning of a JSON array, to which events are
// appended, each with the comma after it, whole events at a time and in one write. It is never closed by a bracket, so
// whoever is killed leaves what can be read.
//
// Events are gathered in a buffer that is written when it is full, when it is half a second old, and when the process
// ends in good order; from then on each is written at once. Whoever finds it full writes it, and others wait meanwhile:
// nothing is lost but for a file that cannot be written, which is told in the log and ends the trace.
//
// Thread-safe. Needs no memory but its own.
class TraceFile {
 public:
  static TraceFile& shared() { return perProcess<TraceFile>(); }

  // Events that stay together.
  void add(std::string_view events) noexcept;
  void flush() noexcept;

 private:
  friend TraceFile& perProcess<TraceFile>();

  static constexpr std::size_t kBufferBytes = std::size_t{64} << 10;

  TraceFile() noexcept;
  bool open() noexcept VELTO_REQUIRES(mutex_);
  // 0, or what is wrong.
  int begin() noexcept VELTO_REQUIRES(mutex_);
  int write(std::string_view bytes) noexcept VELTO_REQUIRES(mutex_);
  void writeBuffer() noexcept VELTO_REQUIRES(mutex_);
  // Told once the lock is let go of: a sink is user code.
  void tellFailure() noexcept;

  Mutex mutex_;
  Descriptor file_ VELTO_GUARDED_BY(mutex_);
  std::size_t used_ VELTO_GUARDED_BY(mutex_) = 0;
  bool willFlush_ VELTO_GUARDED_BY(mutex_) = false;
  int failure_ VELTO_GUARDED_BY(mutex_) = 0;
  std::array<char, kBufferBytes> buffer_ VELTO_GUARDED_BY(mutex_);
};

}  // namespace velto::system
