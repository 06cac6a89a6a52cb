#include "platform/foundation/BodyMemory.h"

#include <cstring>
#include <set>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "platform/foundation/Foundation.h"

namespace velto {
namespace {

TEST(BodyMemory, PiecesOfEverySizeAreOnesOwn) {
  std::vector<std::pair<unsigned char*, std::size_t>> pieces;
  for (int round = 0; round < 3; ++round) {
    for (std::size_t size = 1; size <= BodyMemory::kLargest + 100; ++size) {
      auto* const piece = static_cast<unsigned char*>(BodyMemory::allocate(size));
      std::memset(piece, static_cast<int>(size % 251), size);
      pieces.emplace_back(piece, size);
    }
    for (const auto& [piece, size] : pieces) {
      EXPECT_EQ(piece[0], size % 251);
      EXPECT_EQ(piece[size - 1], size % 251);
      BodyMemory::release(piece, size);
    }
    pieces.clear();
  }
}

#if VELTO_BODY_POOL
TEST(BodyMemory, APieceThatWasLetGoOfIsTheNextOfItsSize) {
  for (const std::size_t size : {33u, 100u, 257u, 1024u}) {
    // The first that a thread lets go of only makes room.
    BodyMemory::release(BodyMemory::allocate(size), size);
    void* const piece = BodyMemory::allocate(size);
    BodyMemory::release(piece, size);
    EXPECT_EQ(BodyMemory::allocate(size), piece);
    BodyMemory::release(piece, size);
  }
}

TEST(BodyMemory, NoMoreThanAFewOfASizeAreKept) {
  constexpr std::size_t kSize = 500, kMost = 8;
  std::vector<void*> pieces;
  for (int count = 0; count < 100; ++count) pieces.push_back(BodyMemory::allocate(kSize));
  for (void* const piece : pieces) BodyMemory::release(piece, kSize);
  const std::set<void*> kept(pieces.begin(), pieces.begin() + kMost + 1);
  for (std::size_t count = 0; count < kMost; ++count) {
    void* const piece = BodyMemory::allocate(kSize);
    EXPECT_TRUE(kept.contains(piece));
    ::operator delete(piece);
  }
}
#endif

// Lets go of its value after the thread's pieces are gone, or before, as the order of their making has it.
TEST(BodyMemory, ValuesThatDieWithTheirThreadAreLetGoOf) {
  std::thread([] {
    static thread_local NSObject early = NSDictionary{{"a key", "a text that is too long for a handle"}};
    { const NSDictionary one{{"key", NSArray{1, 2, 3}}}; }
    static thread_local NSObject late = NSDictionary{{"a key", "a text that is too long for a handle"}};
    EXPECT_EQ(early, late);
  }).join();
}

TEST(BodyMemory, ValuesMadeOnOneThreadMayDieOnAnother) {
  for (int round = 0; round < 100; ++round) {
    std::vector<NSObject> made;
    for (int count = 0; count < 20; ++count) made.push_back(NSDictionary{{"round", round}, {"count", NSArray{count}}});
    std::thread([moved = std::move(made)]() mutable { moved.clear(); }).join();
  }
}

}  // namespace
}  // namespace velto
