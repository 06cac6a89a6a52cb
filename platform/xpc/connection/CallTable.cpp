// A call that is removed leaves no trace in the index: entries behind it that had to give way to it move up.

#include "platform/xpc/connection/CallTable.h"

#include <algorithm>
#include <utility>

#include "platform/foundation/RandomBytes.h"

namespace velto::xpc {

std::uint32_t CallTable::hashOf(std::uint64_t identifier) const noexcept {
  std::uint64_t mixed = identifier ^ salt_;
  mixed = (mixed ^ mixed >> 33) * 0xFF51AFD7ED558CCD;
  mixed = (mixed ^ mixed >> 29) * 0xC4CEB9FE1A85EC53;
  return static_cast<std::uint32_t>(mixed >> 32);
}

void CallTable::add(OutgoingCall&& call) {
  if (free_.empty() && 2 * calls_.size() == index_.size()) grow();
  const std::uint32_t hash = hashOf(call.identifier);
  std::uint32_t number = 0;
  if (free_.empty()) {
    calls_.push_back(std::move(call));
    number = static_cast<std::uint32_t>(calls_.size());
  } else {
    number = free_.back();
    free_.pop_back();
    calls_[number - 1] = std::move(call);
  }
  enter({hash, number});
}

void CallTable::enter(Entry entry) noexcept {
  std::size_t slot = slotOf(entry.hash);
  while (index_[slot].number != 0) slot = after(slot);
  index_[slot] = entry;
}

void CallTable::grow() {
  const std::size_t most = std::max<std::size_t>(2 * calls_.size(), 4);
  std::vector<Entry> before(2 * most);
  free_.reserve(most);
  calls_.reserve(most);
  if (salt_ == 0) fillWithRandomBytes(&salt_, sizeof salt_);
  before.swap(index_);
  for (const Entry& each : before) {
    if (each.number != 0) enter(each);
  }
}

OutgoingCall* CallTable::find(std::uint64_t identifier) noexcept {
  if (size() == 0) return nullptr;
  const std::uint32_t hash = hashOf(identifier);
  for (std::size_t slot = slotOf(hash); index_[slot].number != 0; slot = after(slot)) {
    if (index_[slot].hash != hash) continue;
    OutgoingCall& found = calls_[index_[slot].number - 1];
    if (found.identifier == identifier) return &found;
  }
  return nullptr;
}

OutgoingCall CallTable::take(OutgoingCall* found) noexcept {
  OutgoingCall taken = std::exchange(*found, {});
  const auto number = static_cast<std::uint32_t>(found - calls_.data() + 1);
  std::size_t slot = slotOf(hashOf(taken.identifier));
  while (index_[slot].number != number) slot = after(slot);
  removeFromIndex(slot);
  free_.push_back(number);
  if (size() == 0 && calls_.size() > kKeptCalls) clear();
  return taken;
}

void CallTable::removeFromIndex(std::size_t hole) noexcept {
  const std::size_t mask = index_.size() - 1;
  for (std::size_t slot = after(hole); index_[slot].number != 0; slot = after(slot)) {
    const std::size_t home = slotOf(index_[slot].hash);
    // It may move up to the hole unless its home lies behind that.
    if (((slot - home) & mask) < ((slot - hole) & mask)) continue;
    index_[hole] = index_[slot];
    hole = slot;
  }
  index_[hole] = {};
}

std::vector<OutgoingCall> CallTable::takeAll() {
  std::vector<OutgoingCall> taken;
  taken.reserve(size());
  forEach([&taken](OutgoingCall& call) { taken.push_back(std::move(call)); });
  clear();
  std::ranges::sort(taken, {}, &OutgoingCall::identifier);
  return taken;
}

void CallTable::clear() noexcept {
  calls_ = {};
  free_ = {};
  index_ = {};
}

}  // namespace velto::xpc
