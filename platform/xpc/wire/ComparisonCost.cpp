// The weights are measured on the values that take longest for what they cost: a unit stands for ten nanoseconds at the
// most, whatever is compared, and so the limit for well below a second.

#include "platform/xpc/wire/ComparisonCost.h"

namespace velto::wire {

std::uint64_t ContainerCost::timesHashed() const noexcept {
  return std::clamp<std::uint64_t>(items_, 1, kHashedElements);
}

void ContainerCost::addKey(const ComparisonCost& cost) noexcept {
  noteHash(cost);
  if (!cost.hasPoorHash) {
    const std::uint64_t factor = lookupFactor() + (cost.hashedLevels > 0 ? timesHashed() : 0);
    work_ = saturatingSum(work_, saturatingProduct(cost.work, factor));
    if (cost.hashedLevels > 0) hashing_ = saturatingSum(hashing_, saturatingProduct(cost.work, timesHashed()));
    return;
  }
  work_ = saturatingSum(work_, lookupFactor());
  poorKeyWork_ = saturatingSum(poorKeyWork_, cost.work);
  ++poorKeys_;
}

std::uint64_t ContainerCost::toMake() const noexcept {
  return saturatingSum(hashing_, poorKeys_ < 2 ? 0 : saturatingProduct(poorKeys_ - 1, poorKeyWork_));
}

}  // namespace velto::wire
