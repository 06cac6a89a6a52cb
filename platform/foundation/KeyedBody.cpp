// How dictionaries and sets keep their entries.
#include "platform/foundation/KeyedBody.h"

#include <cstring>
#include <stdexcept>

#include "platform/foundation/Demolition.h"
#include "platform/foundation/Ownership.h"
#include "platform/foundation/SipHash.h"

namespace velto {
namespace {

constexpr std::size_t kMaximumSlots = UINT32_MAX / 4;

void requireFewerThan(std::size_t slots) {
  if (slots >= kMaximumSlots) throw std::length_error("too many entries");
}

}  // namespace

KeyedBody& KeyedBody::make(Tag tag, std::size_t capacity, Region* region) {
  requireFewerThan(capacity);
  const std::size_t index = KeyTable::cellsFor(capacity) * sizeof(KeyTable::Cell);
  void* const memory = allocateBody(sizeFor(tag, capacity), region);
  auto* const made = new (memory) KeyedBody(tag, static_cast<std::uint32_t>(capacity), region);
  if (index > 0) std::memset(static_cast<void*>(made->cells()), 0, index);
  return *made;
}

void KeyedBody::appendIndexed(std::size_t hash, Value key, Value value) noexcept {
  if (const std::size_t cellCount = this->cellCount()) KeyTable::enter(cells(), cellCount, hash, count_);
  stride() == 2 ? append<2>(key, value) : append<1>(key, value);
}

// Looks for it and enters it in one go.
bool KeyedBody::addToMany(Value text, Value value) noexcept {
  const std::size_t mask = cellCount() - 1;
  const auto partOfHash = static_cast<std::uint32_t>(hashOfWords(text.bits(), text.high()));
  for (std::size_t place = partOfHash & mask;; place = (place + 1) & mask) {
    KeyTable::Cell& cell = cells()[place];
    if (cell.position == 0) {
      cell = {partOfHash, count_ + 1};
      stride() == 2 ? append<2>(text, value) : append<1>(text, value);
      return true;
    }
    if (cell.hash == partOfHash && first()[(cell.position - 1) * stride()].value() == text) return false;
  }
}

bool KeyedBody::addAny(Value key, Value value) {
  if (key.isText() && cellCount() > 0) return addToMany(key, value);
  WalkBound bound;
  // A second handle that counts nothing, and gives up before its end.
  NSObject sought = NSObject::adopt(key);
  try {
    const std::size_t hash = cellCount() == 0 ? 0 : sought.hash();
    const bool isNew = count_ == 0 || table().findHashed(sought, hash, bound) == nullptr;
    sought.giveUp();
    if (isNew) appendIndexed(hash, key, value);
    return isNew;
  } catch (...) {
    sought.giveUp();
    throw;
  }
}

void KeyedBody::putAny(NSObject key, NSObject value, TextFilter& filter) {
  if (isAmongFew(key.value()) && putIntoFew(key.value(), value)) return;
  if (key.value().tag() == Tag::mutableString) {
    filter = TextFilter::ofAnything();
    mayHaveChangingKey_ = true;
  }
  WalkBound bound;
  const std::size_t hash = cellCount() == 0 ? 0 : key.hash();
  if (const NSObject* found = table().findHashed(key, hash, bound)) {
    if (stride() == 2) const_cast<NSObject&>(found[1]) = std::move(value);
    return;
  }
  appendIndexed(hash, key.giveUp(), value.giveUp());
}

// Most keys are short texts and few: they are compared by their words, unless one that can change is among them.
bool KeyedBody::putIntoFew(Value text, NSObject& value) {
  const std::size_t step = stride();
  NSObject* const end = first() + count_ * step;
  for (NSObject* each = first(); each != end; each += step) {
    if (each->value().tag() == Tag::mutableString) return false;
    if (each->value() != text) continue;
    if (step == 2) each[1] = std::move(value);
    return true;
  }
  step == 2 ? append<2>(text, value.giveUp()) : append<1>(text, Value());
  return true;
}

void MutableKeyedBody::put(NSObject key, NSObject value) {
  WalkBound bound;
  const bool isIndexed = !cells_.empty();
  std::size_t hash = isIndexed ? key.hash() : 0;
  const NSObject* const found = table().findHashed(key, hash, bound);
  if (found != nullptr && stride() == 1) return;
  ++changes_;
  if (found != nullptr) {
    const_cast<NSObject&>(found[1]) = std::move(value);
    return;
  }
  makeRoom();
  if (!isIndexed && !cells_.empty()) hash = key.hash();
  // The value's place first: nothing may fail between the two.
  objects_.resize(objects_.size() + stride());
  NSObject* const place = &objects_[objects_.size() - stride()];
  place[0] = std::move(key);
  if (stride() == 2) place[1] = std::move(value);
  ++count_;
  if (!cells_.empty()) KeyTable::enter(cells_.data(), cells_.size(), hash, slots() - 1);
}

void MutableKeyedBody::remove(const NSObject& key) {
  auto* const found = const_cast<NSObject*>(table().find(key));
  if (found == nullptr) return;
  ++changes_;
  const NSObject removedKey = std::exchange(found[0], NSObject());
  const NSObject removedValue = stride() == 2 ? std::exchange(found[1], NSObject()) : NSObject();
  if (--count_ > 0) return;
  objects_.clear();
  cells_.clear();
}

void MutableKeyedBody::clear() noexcept {
  ++changes_;
  count_ = 0;
  cells_.clear();
  const std::vector<NSObject> removed = std::exchange(objects_, {});
}

void MutableKeyedBody::copy(const KeyTable& table) {
  objects_.reserve(table.slots() * stride());
  for (std::size_t slot = 0; slot < table.slots(); ++slot) {
    if (table.key(slot).isNil()) continue;
    objects_.push_back(owned(table.key(slot)));
    if (stride() == 2) objects_.push_back(owned(table.value(slot)));
  }
  count_ = slots();
  if (const std::size_t cellCount = KeyTable::cellsFor(count_)) rebuildIndex(cellCount);
}

void MutableKeyedBody::makeRoom() {
  const bool isMostlyEmpty = slots() > KeyTable::kSlotsWithoutIndex && count_ < slots() / 2;
  if (isMostlyEmpty) closeUp();
  const std::size_t needed = slots() + 1;
  requireFewerThan(needed);
  if (needed <= KeyTable::kSlotsWithoutIndex) return;
  if (cells_.size() < needed + needed / 2) rebuildIndex(KeyTable::cellsFor(2 * needed));
}

void MutableKeyedBody::closeUp() noexcept {
  std::size_t kept = 0;
  for (std::size_t index = 0; index < objects_.size(); index += stride()) {
    if (objects_[index].isNil()) continue;
    for (std::size_t part = 0; part < stride(); ++part) std::swap(objects_[kept++], objects_[index + part]);
  }
  objects_.resize(kept);
  cells_.clear();
}

void MutableKeyedBody::rebuildIndex(std::size_t cellCount) {
  std::vector<KeyTable::Cell> cells(cellCount);
  const KeyTable keys = table();
  for (std::size_t slot = 0; slot < keys.slots(); ++slot) {
    if (!keys.key(slot).isNil()) KeyTable::enter(cells.data(), cells.size(), keys.key(slot).hash(), slot);
  }
  cells_ = std::move(cells);
}

}  // namespace velto
