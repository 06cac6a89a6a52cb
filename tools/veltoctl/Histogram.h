#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

namespace velto::ctl {

// Counts durations in classes that are a sixteenth of their size wide or less, so that percentiles are right to about 6
// parts in 100, and the least and the greatest exactly. Any number of threads may count at the same time.
class Histogram {
 public:
  void count(std::uint64_t nanoseconds) noexcept;

  std::uint64_t total() const noexcept;
  // The duration that so much of all (0 to 1) did not exceed; 0 when there is nothing.
  std::uint64_t percentile(double part) const noexcept;
  std::uint64_t least() const noexcept;
  std::uint64_t greatest() const noexcept { return greatest_.load(std::memory_order_relaxed); }
  // Upper bounds and counts, in their order, without the empty classes at both ends. Each is twice as wide as the last.
  std::vector<std::pair<std::uint64_t, std::uint64_t>> octaves() const;

 private:
  static constexpr unsigned kBits = 4;
  static constexpr std::size_t kPerOctave = std::size_t{1} << kBits;
  static constexpr std::size_t kClasses = (64 - kBits + 1) * kPerOctave;
  static std::size_t classOf(std::uint64_t nanoseconds) noexcept;
  // The greatest duration of a class.
  static std::uint64_t upperBoundOf(std::size_t index) noexcept;

  std::array<std::atomic<std::uint64_t>, kClasses> classes_{};
  std::atomic<std::uint64_t> greatest_{0};
  std::atomic<std::uint64_t> least_{UINT64_MAX};
};

}  // namespace velto::ctl
