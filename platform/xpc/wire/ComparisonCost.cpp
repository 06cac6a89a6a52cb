// The weights are measured on the values that take longest for what they cost: a unit stands for ten nanoseconds at the
// most, whatever is compared, and so the limit for well below a second.

#include "platform/xpc/wire/ComparisonCost.h"

#include "platform/foundation/Walk.h"

namespace velto::wire {
namespace {

// A container is a step down and back, mostly into memory that lies elsewhere.
constexpr std::uint64_t kContainerWork = 1;

// A key is looked up in the other container: hashed, or held against each of a few, and then compared. The larger the
// containers, the fewer of these steps find in a cache what they need.
constexpr std::uint64_t lookupFactor(std::uint64_t items) noexcept {
  if (items <= 16) return 5;
  return items <= 1024 ? 10 : 40;
}

}  // namespace

ContainerCost::ContainerCost(std::uint64_t work, std::uint64_t items, bool hasPoorHash) noexcept
    : lookupFactor_(lookupFactor(items)),
      timesHashed_(std::clamp<std::uint64_t>(items, 1, kHashedElements)),
      containerLookupFactor_(lookupFactor_ + timesHashed_),
      work_(saturatingSum(work, kContainerWork)),
      hasPoorHash_(hasPoorHash) {}

void ContainerCost::addKey(const ComparisonCost& cost) noexcept {
  noteHash(cost);
  if (!cost.hasPoorHash) {
    const std::uint64_t factor = cost.hashedLevels > 0 ? containerLookupFactor_ : lookupFactor_;
    work_ = saturatingSum(work_, saturatingProduct(cost.work, factor));
    if (cost.hashedLevels > 0) hashing_ = saturatingSum(hashing_, saturatingProduct(cost.work, timesHashed_));
    return;
  }
  work_ = saturatingSum(work_, lookupFactor_);
  poorKeyWork_ = saturatingSum(poorKeyWork_, cost.work);
  ++poorKeys_;
}

std::uint64_t ContainerCost::toMake() const noexcept {
  return saturatingSum(hashing_, poorKeys_ < 2 ? 0 : saturatingProduct(poorKeys_ - 1, poorKeyWork_));
}

ComparisonCost ContainerCost::toCompare() const noexcept {
  // Each key with a poor hash is held against all of the other's.
  const std::uint64_t work = saturatingSum(work_, saturatingProduct(poorKeys_, poorKeyWork_));
  return {work, hasPoorHash_ || hashedLevels_ >= kHashedLevels, static_cast<std::uint8_t>(hashedLevels_ + 1)};
}

}  // namespace velto::wire
