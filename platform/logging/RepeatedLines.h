#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/foundation/ThreadAnnotations.h"

namespace velto {

// Lines of one place that were held back: the last of them, and how many they were.
class HeldLines {
 public:
  // Of a longer line only the beginning is kept.
  static constexpr std::size_t kMaximumTextBytes = 512;

  std::uint64_t count() const noexcept { return count_; }
  // "text", or "text (and 7 more like it)".
  std::string text() const;

  void add(std::string_view text) noexcept;
  void clear() noexcept { count_ = 0; }

 private:
  std::array<char, kMaximumTextBytes> text_{};
  std::size_t length_ = 0;
  bool isCut_ = false;
  std::uint64_t count_ = 0;
};

// Which lines are worth showing when a place in the source logs and logs: within a second, of each place, so many
// different ones, each once. The others are held back, and told in one when the second is over. Memory is fixed: places
// beyond those there is room for share one allowance.
//
// Thread-safe; the lock is held for a few comparisons.
class RepeatedLines {
 public:
  using Time = std::chrono::steady_clock::time_point;

  static constexpr std::chrono::seconds kWindow{1};
  static constexpr std::size_t kMaximumLinesPerWindow = 10;
  static constexpr std::size_t kMaximumPlaces = 64;

  struct Verdict {
    bool isShown;
    // What is to be shown before: the lines held back in a second that is over.
    std::optional<HeldLines> former;
  };
  // Whether a line of this place (any number that stands for it) is shown.
  Verdict judge(std::uint64_t place, std::string_view text, Time now) noexcept;
  // What was held back in some second that is over; nothing when there is no more.
  std::optional<HeldLines> takeOver(Time now) noexcept;
  // The lines held back by now, whether their second is over or not.
  std::optional<HeldLines> takeAny() noexcept;
  // When the first second will be over in which something was held back.
  std::optional<Time> nextOver() const noexcept;

  // Around a fork the lock is held. The child begins with nothing: what was held back is its parent's to tell.
  void beforeFork() noexcept VELTO_NO_THREAD_SAFETY_ANALYSIS { mutex_.lock(); }
  void afterForkInParent() noexcept VELTO_NO_THREAD_SAFETY_ANALYSIS { mutex_.unlock(); }
  void afterForkInChild() noexcept;

 private:
  struct Place {
    std::uint64_t identity = 0;
    bool isUsed = false;
    Time begin{};
    std::size_t shownCount = 0;
    std::array<std::size_t, kMaximumLinesPerWindow> shown{};
    HeldLines held;

    bool isOver(Time now) const noexcept { return !isUsed || now - begin >= kWindow; }
    bool wasShown(std::size_t line) const noexcept;
  };

  Place& placeFor(std::uint64_t identity, Time now) noexcept VELTO_REQUIRES(mutex_);

  mutable Mutex mutex_;
  // The last one is for all that find no room.
  std::array<Place, kMaximumPlaces + 1> places_ VELTO_GUARDED_BY(mutex_){};
};

}  // namespace velto
