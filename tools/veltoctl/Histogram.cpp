#include "tools/veltoctl/Histogram.h"

#include <algorithm>
#include <bit>
#include <cmath>

namespace velto::ctl {

// Small ones have a class each; of all others the class is told by the highest bit and the four behind it.
std::size_t Histogram::classOf(std::uint64_t nanoseconds) noexcept {
  if (nanoseconds < kPerOctave) return nanoseconds;
  const auto shift = static_cast<unsigned>(std::bit_width(nanoseconds)) - 1 - kBits;
  return (shift + 1) * kPerOctave + ((nanoseconds >> shift) & (kPerOctave - 1));
}

std::uint64_t Histogram::upperBoundOf(std::size_t index) noexcept {
  if (index < kPerOctave) return index;
  const std::size_t shift = index / kPerOctave - 1;
  const std::uint64_t first = (kPerOctave + index % kPerOctave) << shift;
  return first + ((std::uint64_t{1} << shift) - 1);
}

void Histogram::count(std::uint64_t nanoseconds) noexcept {
  classes_[classOf(nanoseconds)].fetch_add(1, std::memory_order_relaxed);
  for (auto seen = greatest_.load(); nanoseconds > seen && !greatest_.compare_exchange_weak(seen, nanoseconds);) {
  }
  for (auto seen = least_.load(); nanoseconds < seen && !least_.compare_exchange_weak(seen, nanoseconds);) {
  }
}

std::uint64_t Histogram::total() const noexcept {
  std::uint64_t sum = 0;
  for (const auto& each : classes_) sum += each.load(std::memory_order_relaxed);
  return sum;
}

std::uint64_t Histogram::least() const noexcept {
  const std::uint64_t least = least_.load(std::memory_order_relaxed);
  return least == UINT64_MAX ? 0 : least;
}

std::uint64_t Histogram::percentile(double part) const noexcept {
  const std::uint64_t all = total();
  if (all == 0) return 0;
  const auto wanted =
      std::clamp<std::uint64_t>(static_cast<std::uint64_t>(std::ceil(part * static_cast<double>(all))), 1, all);
  std::uint64_t sum = 0;
  for (std::size_t each = 0; each < kClasses; ++each) {
    sum += classes_[each].load(std::memory_order_relaxed);
    if (sum >= wanted) return std::clamp(upperBoundOf(each), least(), greatest());
  }
  return greatest();
}

std::vector<std::pair<std::uint64_t, std::uint64_t>> Histogram::octaves() const {
  std::vector<std::pair<std::uint64_t, std::uint64_t>> octaves;
  std::size_t filled = 0;
  for (std::size_t first = 0; first < kClasses; first += kPerOctave) {
    std::uint64_t sum = 0;
    for (std::size_t each = first; each < first + kPerOctave; ++each)
      sum += classes_[each].load(std::memory_order_relaxed);
    if (sum == 0 && octaves.empty()) continue;
    octaves.emplace_back(upperBoundOf(first + kPerOctave - 1), sum);
    if (sum > 0) filled = octaves.size();
  }
  octaves.resize(filled);
  return octaves;
}

}  // namespace velto::ctl
