#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include "platform/foundation/KeyTable.h"
#include "platform/foundation/Region.h"

namespace velto {

class Demolition;

// The entries of an NSDictionary or NSSet that never changes: they follow, and then their index.
class KeyedBody final : public Body {
 public:
  // Empty, with room for so many entries. `tag`: dictionary or set.
  static KeyedBody& make(Tag tag, std::size_t capacity, Region* region = nullptr);

  // An entry that is not there yet, whose references it takes over; false, and nothing is taken, if there is one with
  // an equal key. There is room for it, and no key is a string that can change.
  bool add(const Value& key, const Value& value);
  // The same, but the last value of a key wins.
  void put(NSObject key, NSObject value);

  std::size_t count() const noexcept { return count_; }
  KeyTable table() const noexcept {
    return {const_cast<KeyedBody*>(this)->first(), count_, stride(), cells(), cellCount()};
  }
  void dismantle(Demolition& demolition) const noexcept;

 private:
  KeyedBody(Tag tag, std::uint32_t capacity, Region* region) noexcept : Body(tag, region), capacity_(capacity) {}
  std::size_t stride() const noexcept { return tag() == Tag::dictionary ? 2 : 1; }
  std::size_t cellCount() const noexcept { return KeyTable::cellsFor(capacity_); }
  NSObject* first() noexcept { return reinterpret_cast<NSObject*>(this + 1); }
  KeyTable::Cell* cells() const noexcept {
    NSObject* const end = const_cast<KeyedBody*>(this)->first() + capacity_ * stride();
    return reinterpret_cast<KeyTable::Cell*>(end);
  }
  void append(std::size_t hash, const Value& key, const Value& value) noexcept;

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
