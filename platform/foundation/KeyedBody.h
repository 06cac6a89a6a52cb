#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include "platform/foundation/KeyTable.h"
#include "platform/foundation/Region.h"

namespace velto {

class Demolition;

// Which texts in handles may be among some keys: one that is not need not be looked for.
class TextFilter {
 public:
  // None yet.
  TextFilter() noexcept = default;
  static TextFilter ofAnything() noexcept {
    TextFilter filter;
    filter.bits_ = ~std::uint64_t{0};
    return filter;
  }

  // Whether it may be among those that have been asked for before.
  bool mayHave(Value text) noexcept {
    const std::uint64_t bit = std::uint64_t{1} << ((text.bits() * kSpread ^ text.high()) * kSpread >> 58);
    return std::exchange(bits_, bits_ | bit) & bit;
  }

 private:
  static constexpr std::uint64_t kSpread = 0x9E3779B97F4A7C15;

  std::uint64_t bits_ = 0;
};

// The entries of an NSDictionary or NSSet that never changes: they follow, and then their index.
class KeyedBody final : public Body {
 public:
  // Empty, with room for so many entries. `tag`: dictionary or set.
  static KeyedBody& make(Tag tag, std::size_t capacity, Region* region = nullptr);

  // An entry that is not there yet, whose references it takes over; false, and nothing is taken, if there is one with
  // an equal key. There is room for it, and no key is a string that can change. The filter knows all texts in handles
  // that have been added before, or says that it may.
  bool addPair(Value key, Value value, TextFilter& filter) { return add<2>(key, value, filter); }
  bool addMember(Value member, TextFilter& filter) { return add<1>(member, Value(), filter); }
  // The same of a dictionary, but the last value of a key wins, and keys may be strings that can change.
  void put(NSObject& key, NSObject& value, TextFilter& filter) {
    if (!isAmongFew(key.value()) || filter.mayHave(key.value()))
      return putAny(std::move(key), std::move(value), filter);
    append<2>(key.giveUp(), value.giveUp());
  }
  // The same of an entry whose key is known not to be there yet, which nobody looks for.
  void putNew(NSObject key, NSObject value) {
    if (key.value().tag() == Tag::mutableString) mayHaveChangingKey_ = true;
    const std::size_t hash = cellCount() == 0 ? 0 : key.hash();
    appendIndexed(hash, key.giveUp(), value.giveUp());
  }
  // The same of either, without a filter.
  void put(NSObject key, NSObject value) {
    TextFilter filter = TextFilter::ofAnything();
    putAny(std::move(key), std::move(value), filter);
  }

  // The entry's key in its place, as a KeyTable has it; null when there is none.
  const NSObject* find(const NSObject& key) const {
    if (!isAmongFew(key.value()) || mayHaveChangingKey_) return table().find(key);
    const std::size_t step = stride();
    const NSObject* const end = const_cast<KeyedBody*>(this)->first() + count_ * step;
    for (const NSObject* each = const_cast<KeyedBody*>(this)->first(); each != end; each += step) {
      if (each->value() == key.value()) return each;
    }
    return nullptr;
  }

  std::size_t count() const noexcept { return count_; }
  KeyTable table() const noexcept {
    return {const_cast<KeyedBody*>(this)->first(), count_, stride(), cells(), cellCount()};
  }
  void dismantle(Demolition& demolition) const noexcept;

 private:
  KeyedBody(Tag tag, std::uint32_t capacity, Region* region) noexcept : Body(tag, region), capacity_(capacity) {}
  static std::size_t sizeFor(Tag tag, std::size_t capacity) noexcept {
    const std::size_t objects = capacity * (tag == Tag::dictionary ? 2 : 1) * sizeof(NSObject);
    return sizeof(KeyedBody) + objects + KeyTable::cellsFor(capacity) * sizeof(KeyTable::Cell);
  }
  std::size_t stride() const noexcept { return tag() == Tag::dictionary ? 2 : 1; }
  std::size_t cellCount() const noexcept { return KeyTable::cellsFor(capacity_); }
  NSObject* first() noexcept { return reinterpret_cast<NSObject*>(this + 1); }
  KeyTable::Cell* cells() const noexcept {
    NSObject* const end = const_cast<KeyedBody*>(this)->first() + capacity_ * stride();
    return reinterpret_cast<KeyTable::Cell*>(end);
  }
  bool isAmongFew(Value key) const noexcept { return key.isText() && capacity_ <= KeyTable::kSlotsWithoutIndex; }
  template <std::size_t kStride>
  bool add(Value key, Value value, TextFilter& filter) {
    if (!isAmongFew(key)) return addAny(key, value);
    if (filter.mayHave(key)) {
      const NSObject* const end = first() + count_ * kStride;
      for (const NSObject* each = first(); each != end; each += kStride) {
        if (each->value() == key) return false;
      }
    }
    append<kStride>(key, value);
    return true;
  }
  template <std::size_t kStride>
  void append(Value key, Value value) noexcept {
    NSObject* const place = first() + count_ * kStride;
    new (place) NSObject(NSObject::adopt(key));
    if constexpr (kStride == 2) new (place + 1) NSObject(NSObject::adopt(value));
    ++count_;
  }
  bool addToMany(Value text, Value value) noexcept;
  bool addAny(Value key, Value value);
  void putAny(NSObject key, NSObject value, TextFilter& filter);
  bool putIntoFew(Value text, NSObject& value);
  void appendIndexed(std::size_t hash, Value key, Value value) noexcept;

  // First: it finds room in the base.
  bool mayHaveChangingKey_ = false;
  const std::uint32_t capacity_;
  std::uint32_t count_ = 0;
};

// The entries of an NSMutableDictionary or NSMutableSet. Removal leaves an empty slot behind, so that it costs no more
// than a lookup; the slots are closed up when half of them are empty. Objects that a change removes are let go of after
// the entries are whole again.
class MutableKeyedBody final : public Body {
 public:
  // `tag`: mutableDictionary or mutableSet.
  explicit MutableKeyedBody(Tag tag) noexcept : Body(tag, nullptr) {}

  std::size_t count() const noexcept { return count_; }
  KeyTable table() const noexcept { return {objects_.data(), slots(), stride(), cells_.data(), cells_.size()}; }
  const std::size_t& changes() const noexcept { return changes_; }

  // The key is not nil. A key that is there already stays, and gets the value; in a set, nothing changes then.
  void put(NSObject key, NSObject value);
  void remove(const NSObject& key);
  void clear() noexcept;
  // Copies those of a table; for a new body.
  void copy(const KeyTable& table);
  void dismantle(Demolition& demolition) const noexcept;

 private:
  std::size_t stride() const noexcept { return tag() == Tag::mutableDictionary ? 2 : 1; }
  std::size_t slots() const noexcept { return objects_.size() / stride(); }
  void makeRoom();
  void closeUp() noexcept;
  void rebuildIndex(std::size_t cellCount);

  std::size_t changes_ = 0;
  std::size_t count_ = 0;
  std::vector<NSObject> objects_;
  std::vector<KeyTable::Cell> cells_;  // empty while the entries are few
};

inline bool isDictionary(Tag tag) noexcept {
  return tag == Tag::dictionary || tag == Tag::mutableDictionary;
}
inline bool isSet(Tag tag) noexcept {
  return tag == Tag::set || tag == Tag::mutableSet;
}
// The entries of a dictionary or set of either kind; none for anything else.
inline KeyTable tableOf(const Value& value) noexcept {
  const Tag tag = value.tag();
  if (tag == Tag::dictionary || tag == Tag::set) return static_cast<const KeyedBody&>(value.body()).table();
  if (isDictionary(tag) || isSet(tag)) return static_cast<const MutableKeyedBody&>(value.body()).table();
  return {};
}
inline std::size_t entryCountOf(const Value& value) noexcept {
  const Tag tag = value.tag();
  if (tag == Tag::dictionary || tag == Tag::set) return static_cast<const KeyedBody&>(value.body()).count();
  if (isDictionary(tag) || isSet(tag)) return static_cast<const MutableKeyedBody&>(value.body()).count();
  return 0;
}

}  // namespace velto
