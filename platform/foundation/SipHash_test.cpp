#include "platform/foundation/SipHash.h"

#include <array>
#include <cstdint>
#include <numeric>

#include <gtest/gtest.h>

namespace velto {
namespace {

constexpr SipHashKey kKey{0x0706050403020100, 0x0f0e0d0c0b0a0908};

std::array<unsigned char, 64> countingBytes() {
  std::array<unsigned char, 64> bytes{};
  std::iota(bytes.begin(), bytes.end(), static_cast<unsigned char>(0));
  return bytes;
}

TEST(SipHash, WithTwoAndFourRoundsGivesThePublishedValues) {
  const auto bytes = countingBytes();
  EXPECT_EQ((SipHash<2, 4>(kKey)(bytes.data(), 0)), 0x726fdb47dd0e0e31);
  EXPECT_EQ((SipHash<2, 4>(kKey)(bytes.data(), 8)), 0x93f5f5799a932462);
  EXPECT_EQ((SipHash<2, 4>(kKey)(bytes.data(), 15)), 0xa129ca6149be45e5);
}

TEST(SipHash, WithOneAndThreeRoundsGivesThePublishedValue) {
  EXPECT_EQ(sipHash13(kKey, nullptr, 0), 0xabac0158050fc4dc);
}

TEST(SipHash, DependsOnEveryByteAndOnTheLength) {
  auto bytes = countingBytes();
  for (std::size_t length = 0; length < bytes.size(); ++length) {
    const std::uint64_t before = sipHash13(kKey, bytes.data(), length);
    EXPECT_NE(before, sipHash13(kKey, bytes.data(), length + 1));
    if (length == 0) continue;
    bytes[length - 1] ^= 1;
    EXPECT_NE(before, sipHash13(kKey, bytes.data(), length));
    bytes[length - 1] ^= 1;
  }
}

TEST(SipHash, TheProcessHashesWithAKeyThatItKeeps) {
  EXPECT_EQ(hashOfText("key"), hashOfText("key"));
  EXPECT_NE(hashOfText("key"), hashOfText("kez"));
  EXPECT_NE(hashOfText("key"), sipHash13({0, 0}, "key", 3));
}

}  // namespace
}  // namespace velto
