#include "platform/foundation/RandomBytes.h"

#include <array>
#include <set>

#include <gtest/gtest.h>

namespace velto {
namespace {

TEST(RandomBytes, DiffersFromDrawToDraw) {
  std::set<std::array<unsigned char, 16>> seen;
  for (int draw = 0; draw < 1000; ++draw) {
    std::array<unsigned char, 16> bytes{};
    fillWithRandomBytes(bytes.data(), bytes.size());
    EXPECT_TRUE(seen.insert(bytes).second);
  }
}

TEST(RandomBytes, WritesNoMoreThanItWasAskedFor) {
  std::array<unsigned char, 8> bytes{};
  for (int draw = 0; draw < 100; ++draw) fillWithRandomBytes(bytes.data(), 4);
  EXPECT_EQ(bytes[4] | bytes[5] | bytes[6] | bytes[7], 0);
  fillWithRandomBytes(bytes.data() + 4, 0);
  EXPECT_EQ(bytes[4], 0);
}

TEST(RandomBytes, FillsUpToAnyLength) {
  std::array<unsigned char, 256> sums{};
  for (int draw = 0; draw < 64; ++draw) {
    std::array<unsigned char, 256> bytes{};
    fillWithRandomBytes(bytes.data(), bytes.size());
    for (std::size_t index = 0; index < bytes.size(); ++index) sums[index] |= bytes[index];
  }
  for (const unsigned char sum : sums) EXPECT_NE(sum, 0);
}

}  // namespace
}  // namespace velto
