#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>

#include "platform/foundation/NSObject.h"
#include "platform/foundation/WalkBound.h"

namespace velto {

// Keys in the order in which they were put in, as they lie in a dictionary (each with its value behind it) or a set
// (without). Up to kSlotsWithoutIndex of them are searched one by one; more have an index of positions beside them, by
// open addressing. It holds 32 bits of each hash, so that a probe touches eight bytes, and keys are compared only when
// those bits agree.
//
// A slot whose key is nil is empty: what was in it has been removed. A lookup that meets one goes on.
class KeyTable {
 public:
  static constexpr std::size_t kSlotsWithoutIndex = 16;

  // A place of the index: part of a hash, and a slot's position plus one (0: free).
  struct Cell {
    std::uint32_t hash = 0;
    std::uint32_t position = 0;
  };

  KeyTable() noexcept = default;
  // `stride`: objects from one key to the next. `cellCount`: 0 without an index, else a power of two.
  KeyTable(const NSObject* keys, std::size_t slots, std::size_t stride, const Cell* cells,
           std::size_t cellCount) noexcept
      : keys_(keys), slots_(slots), stride_(stride), cells_(cells), cellCount_(cellCount) {}

  std::size_t slots() const noexcept { return slots_; }
  std::size_t stride() const noexcept { return stride_; }
  const NSObject* keys() const noexcept { return keys_; }
  const NSObject& key(std::size_t slot) const noexcept { return keys_[slot * stride_]; }
  const NSObject& value(std::size_t slot) const noexcept { return keys_[slot * stride_ + 1]; }

  // The key in its place, with its value behind it; null when there is none. Raises an NSException when comparing the
  // keys exceeds the bound.
  const NSObject* find(const NSObject& key, WalkBound& bound) const;
  const NSObject* find(const NSObject& key) const;
  // The same for the key that is this valid UTF-8 text.
  const NSObject* findText(std::string_view text) const;
  // With the hash of the key, which is not asked for while there is no index.
  const NSObject* findHashed(const NSObject& key, std::size_t hash, WalkBound& bound) const;

  // A power of two in which so many slots fill at most two thirds; 0 if they are few.
  static std::size_t cellsFor(std::size_t slots) noexcept {
    return slots <= kSlotsWithoutIndex ? 0 : std::bit_ceil(slots + slots / 2 + 1);
  }
  static void enter(Cell* cells, std::size_t cellCount, std::size_t hash, std::size_t position) noexcept;

 private:
  template <class Matches>
  const NSObject* search(std::size_t hash, const Matches& matches) const;
  template <class Matches>
  const NSObject* scan(const Matches& matches) const;
  template <class Matches>
  const NSObject* lookUp(std::size_t hash, const Matches& matches) const {
    return cellCount_ == 0 ? scan(matches) : search(hash, matches);
  }

  const NSObject* keys_ = nullptr;
  std::size_t slots_ = 0;
  std::size_t stride_ = 1;
  const Cell* cells_ = nullptr;
  std::size_t cellCount_ = 0;
};

}  // namespace velto
