#pragma once

#include <cstdint>

namespace velto::wire {

// What it may cost to compare an object with another, in units of about the time that it takes to visit a plain object.
struct ComparisonCost {
  std::uint64_t work = 1;
  // Found by comparing alone: its hash may be any other's too.
  bool hasPoorHash = false;
};

// The same of a container, added up while its contents come. Whatever they are, nothing wraps.
class ContainerCost {
 public:
  // `work`: what the container's own part costs beside what every container does. `items`: how much it will hold.
  explicit ContainerCost(std::uint64_t work = 0, std::uint64_t items = 0) noexcept;

  void addValue(const ComparisonCost& cost) noexcept;
  // A key of a dictionary, or an element of a set.
  void addKey(const ComparisonCost& cost) noexcept;

  // The comparisons that making the container can take: each key with a poor hash with every other.
  std::uint64_t toMake() const noexcept;
  // What it costs to compare the container with another of its kind.
  ComparisonCost toCompare() const noexcept;

 private:
  std::uint64_t lookupFactor_;
  std::uint64_t work_;
  // The keys with poor hashes alone, and their number.
  std::uint64_t poorKeyWork_ = 0;
  std::uint64_t poorKeys_ = 0;
};

}  // namespace velto::wire
