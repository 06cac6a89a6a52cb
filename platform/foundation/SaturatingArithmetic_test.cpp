#include "platform/foundation/SaturatingArithmetic.h"

#include <cstdint>

#include <gtest/gtest.h>

namespace velto {
namespace {

TEST(SaturatingArithmetic, WhatFitsIsExact) {
  EXPECT_EQ(saturatingSum<std::uint64_t>(2, 3), 5u);
  EXPECT_EQ(saturatingSum<std::uint64_t>(UINT64_MAX - 1, 1), UINT64_MAX);
  EXPECT_EQ(saturatingProduct<std::uint64_t>(1ull << 31, 1ull << 32), 1ull << 63);
  EXPECT_EQ(saturatingProduct<std::uint64_t>(UINT64_MAX, 0), 0u);
  EXPECT_EQ(saturatingProduct<std::uint8_t>(15, 17), 255u);
}

TEST(SaturatingArithmetic, WhatWouldWrapStaysAtTheGreatestValue) {
  EXPECT_EQ(saturatingSum<std::uint64_t>(UINT64_MAX, 1), UINT64_MAX);
  EXPECT_EQ(saturatingSum<std::uint64_t>(1ull << 63, 1ull << 63), UINT64_MAX);
  EXPECT_EQ(saturatingProduct<std::uint64_t>(1ull << 32, 1ull << 32), UINT64_MAX);
  EXPECT_EQ(saturatingProduct<std::uint64_t>((1ull << 32) + 1, 1ull << 32), UINT64_MAX);
  EXPECT_EQ(saturatingSum<std::uint8_t>(200, 56), 255u);
  EXPECT_EQ(saturatingProduct<std::uint8_t>(16, 16), 255u);
}

}  // namespace
}  // namespace velto
