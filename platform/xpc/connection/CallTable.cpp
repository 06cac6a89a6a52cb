// A removed call leaves no trace: those behind it that had to give way to it move up.

#include "platform/xpc/connection/CallTable.h"

#include <algorithm>

#include "platform/foundation/RandomBytes.h"

namespace velto::xpc {

void CallTable::add(OutgoingCall&& call) {
  if (2 * (size_ + 1) > slots_.size()) grow();
  insert(std::move(call));
  ++size_;
}

void CallTable::insert(OutgoingCall&& call) noexcept {
  std::size_t slot = slotOf(call.identifier);
  while (slots_[slot].method != nullptr) slot = after(slot);
  slots_[slot] = std::move(call);
}

void CallTable::grow() {
  std::vector<OutgoingCall> before(std::max<std::size_t>(2 * slots_.size(), 4));
  before.swap(slots_);
  if (salt_ == 0) fillWithRandomBytes(&salt_, sizeof salt_);
  for (OutgoingCall& call : before) {
    if (call.method != nullptr) insert(std::move(call));
  }
}

OutgoingCall* CallTable::find(std::uint64_t identifier) noexcept {
  if (size_ == 0) return nullptr;
  for (std::size_t slot = slotOf(identifier); slots_[slot].method != nullptr; slot = after(slot)) {
    if (slots_[slot].identifier == identifier) return &slots_[slot];
  }
  return nullptr;
}

OutgoingCall CallTable::take(OutgoingCall* found) noexcept {
  OutgoingCall taken = std::exchange(*found, {});
  if (--size_ == 0) {
    if (slots_.size() > kKeptSlots) slots_ = {};
    return taken;
  }
  auto hole = static_cast<std::size_t>(found - slots_.data());
  for (std::size_t slot = after(hole); slots_[slot].method != nullptr; slot = after(slot)) {
    const std::size_t mask = slots_.size() - 1;
    const std::size_t home = slotOf(slots_[slot].identifier);
    // It may move up to the hole unless its home lies behind that.
    if (((slot - home) & mask) < ((slot - hole) & mask)) continue;
    slots_[hole] = std::exchange(slots_[slot], {});
    hole = slot;
  }
  return taken;
}

std::vector<OutgoingCall> CallTable::takeAll() {
  std::vector<OutgoingCall> taken;
  taken.reserve(size_);
  forEach([&taken](OutgoingCall& call) { taken.push_back(std::move(call)); });
  slots_ = {};
  size_ = 0;
  std::ranges::sort(taken, {}, &OutgoingCall::identifier);
  return taken;
}

}  // namespace velto::xpc
