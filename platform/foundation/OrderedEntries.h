#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

#include "platform/foundation/NSObject.h"
#include "platform/foundation/WalkBound.h"

namespace velto {

// The store of dictionaries and sets: entries in the order in which their keys were first put in, found by key. A few
// entries are searched one by one; more get a hash index of positions. Removal leaves an empty slot behind, so that it
// costs no more than a lookup; the slots are closed up when half of them are empty.
//
// Objects that a change removes are let go of after the store is whole again.
class OrderedEntries {
 public:
  struct Slot {
    NSObject key;  // nil: empty
    NSObject value;
  };

  std::size_t count() const noexcept { return count_; }
  const std::vector<Slot>& slots() const noexcept { return slots_; }

  // The slot of a key; null when there is none. Raises an NSException when comparing the keys exceeds the bound.
  const Slot* find(const NSObject& key, WalkBound& bound) const;
  const Slot* find(const NSObject& key) const;
  // The same for the key that is this valid UTF-8 text.
  const Slot* findText(std::string_view text) const;
  // nil when there is none.
  NSObject valueOf(const NSObject& key) const;
  NSObject valueOfText(std::string_view text) const;

  void reserve(std::size_t count);
  // The key is not nil. A key that is there already stays, and gets the value.
  void put(NSObject key, NSObject value);
  // Whether there was such a key.
  bool remove(const NSObject& key);
  // Returns the former slots.
  std::vector<Slot> clear() noexcept;

 private:
  // A place of the index: part of a hash, and a slot's position plus one (0: free).
  struct Cell {
    std::uint32_t hash = 0;
    std::uint32_t position = 0;
  };

  // With the hash of the key, which is not asked for while there is no index.
  const Slot* findHashed(const NSObject& key, std::size_t hash, WalkBound& bound) const;
  const Slot* findHashedText(std::string_view text, std::size_t hash) const;
  template <class Matches>
  const Slot* search(std::size_t hash, const Matches& matches) const;
  template <class Matches>
  const Slot* scan(const Matches& matches) const;
  void makeRoom();
  void closeUp() noexcept;
  void rebuildIndex(std::size_t cellCount);
  static void enter(std::vector<Cell>& cells, std::uint32_t hash, std::size_t position) noexcept;

  std::vector<Slot> slots_;
  std::vector<Cell> cells_;  // empty while the entries are few, else a power of two
  std::size_t count_ = 0;
};

}  // namespace velto
