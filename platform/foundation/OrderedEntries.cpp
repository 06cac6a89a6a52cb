// Entries in order, with open addressing beside them: the index holds 32 bits of each hash and a position, so that a
// probe touches eight bytes and compares keys only when those bits agree. A slot that is emptied keeps its place in the
// index until that is rebuilt; a lookup that meets an empty slot goes on. Without an index, whatever the reason, a
// lookup scans: slower, but right.
#include "platform/foundation/OrderedEntries.h"

#include <algorithm>
#include <bit>
#include <stdexcept>
#include <utility>

#include "platform/foundation/SipHash.h"
#include "platform/foundation/StringBody.h"
#include "platform/foundation/Walk.h"

namespace velto {
namespace {

constexpr std::size_t kSlotsWithoutIndex = 8;
constexpr std::size_t kMaximumSlots = UINT32_MAX - 1;

// A power of two in which so many slots fill at most two thirds.
std::size_t cellCountFor(std::size_t slots) {
  return std::bit_ceil(slots + slots / 2 + 1);
}

}  // namespace

template <class Matches>
const OrderedEntries::Slot* OrderedEntries::search(std::size_t hash, const Matches& matches) const {
  const std::size_t mask = cells_.size() - 1;
  const auto partOfHash = static_cast<std::uint32_t>(hash);
  for (std::size_t place = partOfHash & mask; cells_[place].position != 0; place = (place + 1) & mask) {
    if (cells_[place].hash != partOfHash) continue;
    const Slot& slot = slots_[cells_[place].position - 1];
    if (!slot.key.isNil() && matches(slot.key)) return &slot;
  }
  return nullptr;
}

template <class Matches>
const OrderedEntries::Slot* OrderedEntries::scan(const Matches& matches) const {
  for (const Slot& slot : slots_) {
    if (!slot.key.isNil() && matches(slot.key)) return &slot;
  }
  return nullptr;
}

const OrderedEntries::Slot* OrderedEntries::find(const NSObject& key, WalkBound& bound) const {
  return key.isNil() ? nullptr : findHashed(key, cells_.empty() ? 0 : key.hash(), bound);
}

const OrderedEntries::Slot* OrderedEntries::findHashed(const NSObject& key, std::size_t hash, WalkBound& bound) const {
  if (const auto* string = bodyAs<StringBody>(key.body())) return findHashedText(string->text(), hash);
  const auto matches = [&](const NSObject& each) { return isEqualWithin(bound, each, key); };
  return cells_.empty() ? scan(matches) : search(hash, matches);
}

const OrderedEntries::Slot* OrderedEntries::find(const NSObject& key) const {
  WalkBound bound;
  return find(key, bound);
}

const OrderedEntries::Slot* OrderedEntries::findText(std::string_view text) const {
  return findHashedText(text, cells_.empty() ? 0 : hashOfText(text));
}

const OrderedEntries::Slot* OrderedEntries::findHashedText(std::string_view text, std::size_t hash) const {
  const auto matches = [text](const NSObject& each) {
    const auto* string = bodyAs<StringBody>(each.body());
    return string != nullptr && string->text() == text;
  };
  return cells_.empty() ? scan(matches) : search(hash, matches);
}

NSObject OrderedEntries::valueOf(const NSObject& key) const {
  const Slot* slot = find(key);
  return slot != nullptr ? slot->value : NSObject();
}

NSObject OrderedEntries::valueOfText(std::string_view text) const {
  const Slot* slot = findText(text);
  return slot != nullptr ? slot->value : NSObject();
}

void OrderedEntries::reserve(std::size_t count) {
  slots_.reserve(count);
  if (count > kSlotsWithoutIndex && cellCountFor(count) > cells_.size()) rebuildIndex(cellCountFor(count));
}

void OrderedEntries::put(NSObject key, NSObject value) {
  WalkBound bound;
  const bool isIndexed = !cells_.empty();
  std::size_t hash = isIndexed ? key.hash() : 0;
  if (const Slot* found = findHashed(key, hash, bound)) {
    const_cast<Slot*>(found)->value = std::move(value);
    return;
  }
  makeRoom();
  if (!isIndexed && !cells_.empty()) hash = key.hash();
  slots_.push_back({std::move(key), std::move(value)});
  ++count_;
  if (!cells_.empty()) enter(cells_, static_cast<std::uint32_t>(hash), slots_.size() - 1);
}

bool OrderedEntries::remove(const NSObject& key) {
  const Slot* found = find(key);
  if (found == nullptr) return false;
  const Slot removed = std::exchange(*const_cast<Slot*>(found), Slot());
  if (--count_ == 0) {
    slots_.clear();
    cells_.clear();
  }
  return true;
}

std::vector<OrderedEntries::Slot> OrderedEntries::clear() noexcept {
  count_ = 0;
  cells_.clear();
  return std::exchange(slots_, {});
}

void OrderedEntries::makeRoom() {
  const bool isMostlyEmpty = slots_.size() > kSlotsWithoutIndex && count_ < slots_.size() / 2;
  if (isMostlyEmpty) closeUp();
  if (slots_.size() >= kMaximumSlots) throw std::length_error("too many entries");
  const std::size_t needed = slots_.size() + 1;
  if (needed <= kSlotsWithoutIndex) return;
  if (cells_.size() < needed + needed / 2) rebuildIndex(cellCountFor(2 * needed));
}

void OrderedEntries::closeUp() noexcept {
  std::erase_if(slots_, [](const Slot& slot) { return slot.key.isNil(); });
  cells_.clear();
}

void OrderedEntries::rebuildIndex(std::size_t cellCount) {
  std::vector<Cell> cells(cellCount);
  for (std::size_t position = 0; position < slots_.size(); ++position) {
    const NSObject& key = slots_[position].key;
    if (!key.isNil()) enter(cells, static_cast<std::uint32_t>(key.hash()), position);
  }
  cells_ = std::move(cells);
}

void OrderedEntries::enter(std::vector<Cell>& cells, std::uint32_t hash, std::size_t position) noexcept {
  const std::size_t mask = cells.size() - 1;
  std::size_t place = hash & mask;
  while (cells[place].position != 0) place = (place + 1) & mask;
  cells[place] = {hash, static_cast<std::uint32_t>(position + 1)};
}

}  // namespace velto
