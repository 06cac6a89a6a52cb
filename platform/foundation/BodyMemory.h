#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <new>

// Whether small pieces are kept. Not where a tool is to see each of them come and go.
#ifndef VELTO_BODY_POOL
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define VELTO_BODY_POOL 0
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer) || __has_feature(memory_sanitizer)
#define VELTO_BODY_POOL 0
#endif
#endif
#endif
#ifndef VELTO_BODY_POOL
#define VELTO_BODY_POOL 1
#endif

namespace velto {

// Where bodies, regions and the bytes of frames have their memory from: the heap, but each thread keeps a few small
// pieces that it has let go of, since a message is made of much the same pieces as the one before it.
class BodyMemory {
 public:
  // The largest piece that is kept.
  static constexpr std::size_t kLargest = 1024;

  // Raises std::bad_alloc.
  static void* allocate(std::size_t bytes) {
    if (!isPooled(bytes)) return ::operator new(bytes);
    Shelf& shelf = shelves_[shelfOf(bytes)];
    if (shelf.first == nullptr) return ::operator new(sizeOn(shelfOf(bytes)));
    Piece* const taken = shelf.first;
    shelf.first = taken->next;
    --shelf.count;
    return taken;
  }
  // A piece of memory that was asked for with this size.
  static void release(void* memory, std::size_t bytes) noexcept {
    if (!isPooled(bytes) || shelves_[shelfOf(bytes)].count >= room_) return releaseElsewhere(memory, bytes);
    Shelf& shelf = shelves_[shelfOf(bytes)];
    shelf.first = new (memory) Piece{shelf.first};
    ++shelf.count;
  }

  // Gives back to the heap what this thread keeps.
  static void empty() noexcept;

 private:
  // Pieces differ by a little while they are small, so that swarms of them take no more than they need; the smallest
  // the heap deals with as quickly, and without rounding them up.
  static constexpr std::size_t kSmallStep = 16, kStep = 64;
  static constexpr std::size_t kSmallest = 32, kSmall = 256;
  static constexpr std::size_t kShelves = kSmall / kSmallStep + (kLargest - kSmall) / kStep;
  static constexpr std::uint32_t kPiecesOfOneShelf = 8;

  struct Piece {
    Piece* next;
  };
  struct Shelf {
    Piece* first = nullptr;
    std::uint32_t count = 0;
  };
  class Closing;

  static constexpr bool isPooled(std::size_t bytes) noexcept {
    return VELTO_BODY_POOL != 0 && bytes > kSmallest && bytes <= kLargest;
  }
  static constexpr std::size_t shelfOf(std::size_t bytes) noexcept {
    if (bytes <= kSmall) return (bytes - 1) / kSmallStep;
    return kSmall / kSmallStep + (bytes - kSmall - 1) / kStep;
  }
  // What is asked of the heap for a shelf's piece.
  static constexpr std::size_t sizeOn(std::size_t shelf) noexcept {
    if (shelf < kSmall / kSmallStep) return (shelf + 1) * kSmallStep;
    return kSmall + (shelf + 1 - kSmall / kSmallStep) * kStep;
  }
  static void releaseElsewhere(void* memory, std::size_t bytes) noexcept;

  // Trivially destroyed: they still serve when a thread ends and other thread-local objects let go of theirs. There is
  // room once the thread has something that empties them at its end, and none after that.
  [[gnu::tls_model("initial-exec")]] static thread_local constinit std::array<Shelf, kShelves> shelves_;
  [[gnu::tls_model("initial-exec")]] static thread_local constinit std::uint32_t room_;
};

}  // namespace velto
