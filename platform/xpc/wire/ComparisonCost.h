#pragma once

#include <algorithm>
#include <cstdint>

#include "platform/foundation/SaturatingArithmetic.h"
#include "platform/foundation/Walk.h"

namespace velto::wire {

// What it may cost to compare an object with another, in units of about the time that it takes to visit a plain object.
struct ComparisonCost {
  std::uint64_t work = 1;
  // Found by comparing alone: its hash may be any other's too.
  bool hasPoorHash = false;
  // Containers within each other that its hash regards; 0 for a plain object.
  std::uint8_t hashedLevels = 0;
};

// The same of a container, added up while its contents come. Whatever they are, nothing wraps.
class ContainerCost {
 public:
  // `work`: what the container's own part costs beside what every container does. `items`: how many objects it will
  // hold. `hasPoorHash`: its hash does not regard all of them.
  explicit ContainerCost(std::uint64_t work = 0, std::uint64_t items = 0, bool hasPoorHash = false) noexcept
      : items_(items), work_(saturatingSum(work, kContainerWork)), hasPoorHash_(hasPoorHash) {}

  void addValue(const ComparisonCost& cost) noexcept {
    work_ = saturatingSum(work_, cost.work);
    noteHash(cost);
  }
  // Plain objects, as keys or elements of a set, and as others.
  void addPlain(std::uint64_t keyWork, std::uint64_t valueWork) noexcept {
    work_ = saturatingSum(work_, saturatingSum(saturatingProduct(keyWork, lookupFactor()), valueWork));
  }
  // A key of a dictionary, or an element of a set.
  void addKey(const ComparisonCost& cost) noexcept;

  // What making the container can take: each key with a poor hash is compared with every other, and each other key that
  // is a container is hashed for every one of a few.
  std::uint64_t toMake() const noexcept;
  // What it costs to compare the container with another of its kind.
  ComparisonCost toCompare() const noexcept {
    // Each key with a poor hash is held against all of the other's.
    const std::uint64_t poor = poorKeys_ == 0 ? 0 : saturatingProduct(poorKeys_, poorKeyWork_);
    return {saturatingSum(work_, poor), hasPoorHash_ || hashedLevels_ >= kHashedLevels,
            static_cast<std::uint8_t>(hashedLevels_ + 1)};
  }

 private:
  // A container is a step down and back, mostly into memory that lies elsewhere.
  static constexpr std::uint64_t kContainerWork = 1;

  void noteHash(const ComparisonCost& cost) noexcept {
    hasPoorHash_ = hasPoorHash_ || cost.hasPoorHash;
    hashedLevels_ = std::max(hashedLevels_, cost.hashedLevels);
  }

  // A key is looked up in the other container: hashed, or held against each of a few, and then compared. The larger the
  // containers, the fewer of these steps find in a cache what they need.
  std::uint64_t lookupFactor() const noexcept { return items_ <= 16 ? 5 : items_ <= 1024 ? 10 : 40; }
  // A container as a key is hashed, and so is each of a few that it is held against.
  std::uint64_t timesHashed() const noexcept;

  std::uint64_t items_;
  std::uint64_t hashing_ = 0;
  std::uint64_t work_;
  // The keys with poor hashes alone, and their number.
  std::uint64_t poorKeyWork_ = 0;
  std::uint64_t poorKeys_ = 0;
  bool hasPoorHash_;
  // Of what it holds.
  std::uint8_t hashedLevels_ = 0;
};

}  // namespace velto::wire
