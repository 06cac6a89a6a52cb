#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>

#include "platform/foundation/ThreadAnnotations.h"
#include "platform/logging/LogSink.h"

namespace velto {

struct DeferredLine {
  LineOf what = LineOf::anything;
  VKTLogAnchor anchor;
  int level = 0;
  NSString text;
};

// Lines that wait for a thread on which a sink may run, in the order in which they came, and who is to write them. What
// finds no room is counted.
//
// Thread-safe. Nothing is allocated, and no line is destroyed, under the lock.
class DeferredLines {
 public:
  static constexpr std::size_t kMaximumLines = 1024;
  static constexpr std::size_t kMaximumTextBytes = std::size_t{1024} * 1024;
  // Whoever was asked to write the lines and has not begun after so long is asked again.
  static constexpr std::chrono::seconds kPatience{1};

  using Time = std::chrono::steady_clock::time_point;

  void add(DeferredLine line) noexcept;
  void countLost(std::uint64_t count) noexcept;

  // Whether somebody must be asked to write the lines; true once for all that come until then.
  bool mustAsk(Time now) noexcept;
  // There is somebody else to ask from now on.
  void forgetAsking() noexcept;
  // Makes the caller the only one that takes lines, until finish(). False: somebody is that already.
  bool begin() noexcept;
  void finish() noexcept;

  // Around a fork the lock is held. In the child nobody is writing, and nobody has been asked.
  void beforeFork() noexcept VELTO_NO_THREAD_SAFETY_ANALYSIS { mutex_.lock(); }
  void afterForkInParent() noexcept VELTO_NO_THREAD_SAFETY_ANALYSIS { mutex_.unlock(); }
  void afterForkInChild() noexcept;

  std::size_t count() const noexcept;
  bool isEmpty() const noexcept;
  std::optional<DeferredLine> take() noexcept;
  // How many lines were lost since this was asked last.
  std::uint64_t takeLostCount() noexcept;

 private:
  mutable Mutex mutex_;
  // A ring: `count_` lines from `first_` on.
  std::array<DeferredLine, kMaximumLines> lines_ VELTO_GUARDED_BY(mutex_);
  std::size_t first_ VELTO_GUARDED_BY(mutex_) = 0;
  std::size_t count_ VELTO_GUARDED_BY(mutex_) = 0;
  std::size_t textBytes_ VELTO_GUARDED_BY(mutex_) = 0;
  std::uint64_t lostCount_ VELTO_GUARDED_BY(mutex_) = 0;
  bool isBeingWritten_ VELTO_GUARDED_BY(mutex_) = false;
  std::optional<Time> asked_ VELTO_GUARDED_BY(mutex_);
};

}  // namespace velto
