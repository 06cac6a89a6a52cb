#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <new>

#include "platform/foundation/BodyMemory.h"
#include "platform/foundation/Value.h"

namespace velto {

// Memory for all bodies of one small message, with one count for them all: it is dropped at once when nothing refers to
// any of them. Handles that lie in it and point into it count nothing. What they refer to outside of it has to be given
// to keep().
//
// Filled by one thread before anybody else sees it.
class Region {
 public:
  // With one reference. Room for `bytes`; more is added when that is used up.
  static Region* make(std::size_t bytes);
  Region(const Region&) = delete;
  Region& operator=(const Region&) = delete;

  void retain() noexcept { references_.fetch_add(1, std::memory_order_relaxed); }
  void release() noexcept {
    if (isLastReference(references_)) drop();
  }
  void drop() noexcept;

  // Lives as long as the region.
  void* allocate(std::size_t bytes) {
    bytes = (bytes + kAlignment - 1) & ~(kAlignment - 1);
    if (bytes > static_cast<std::size_t>(end_ - next_)) return allocateElsewhere(bytes);
    char* const room = next_;
    next_ += bytes;
    return room;
  }
  // Takes over the reference, and lets go of it with the region.
  void keep(const Value& value);

 private:
  static constexpr std::size_t kAlignment = 8;

  struct Chunk {
    Chunk* next;
  };
  struct Kept {
    Kept* next;
    Value value;
  };

  Region(char* next, char* end, std::size_t bytes) noexcept : next_(next), end_(end), bytes_(bytes) {}
  ~Region() = default;
  void* allocateElsewhere(std::size_t bytes);

  // The first thing in it, which its bodies count by.
  std::atomic<std::uint64_t> references_{1};
  char* next_;
  char* end_;
  // Of the first piece of memory, with the region itself.
  const std::size_t bytes_;
  Chunk* more_ = nullptr;
  Kept* kept_ = nullptr;
};

// Room for a body and what follows it: in the region, or on the heap if there is none.
inline void* allocateBody(std::size_t bytes, Region* region) {
  return region != nullptr ? region->allocate(bytes) : BodyMemory::allocate(bytes);
}
// Of a body on the heap, with the size that it was asked for with.
template <class Any>
void releaseBody(const Any& body, std::size_t bytes) noexcept {
  BodyMemory::release(const_cast<Any*>(&body), bytes);
}

}  // namespace velto
