#include "platform/xpc/wire/ByteBuffer.h"

#include <gtest/gtest.h>

#include "platform/xpc/testing/WireTesting.h"

namespace velto::wire {
namespace {

using namespace testing;

TEST(ByteBuffer, GrowsAndKeepsWhatItHas) {
  ByteBuffer buffer;
  EXPECT_TRUE(buffer.empty());
  EXPECT_EQ(buffer.capacity(), 0U);
  Bytes expected;
  for (unsigned number = 0; number < 1000; ++number) {
    buffer.push_back(static_cast<std::uint8_t>(number));
    expected.push_back(static_cast<std::uint8_t>(number));
  }
  buffer.append(hex("0102"));
  expected.insert(expected.end(), {1, 2});
  EXPECT_EQ(buffer, ByteBuffer(expected));
  EXPECT_EQ(buffer.back(), 2);
}

TEST(ByteBuffer, ResizedHasZerosBehindWhatItHad) {
  ByteBuffer buffer{1, 2, 3};
  buffer.resize(5);
  EXPECT_EQ(buffer, (ByteBuffer{1, 2, 3, 0, 0}));
  buffer.resize(2);
  EXPECT_EQ(buffer, (ByteBuffer{1, 2}));
}

TEST(ByteBuffer, ACopyIsOfTheBytesAndAMoveOfTheBlock) {
  ByteBuffer buffer{1, 2, 3};
  ByteBuffer copy = buffer;
  copy[0] = 9;
  EXPECT_EQ(buffer[0], 1);
  const std::uint8_t* const place = buffer.data();
  const ByteBuffer moved = std::move(buffer);
  EXPECT_EQ(moved.data(), place);
}

TEST(ByteBuffer, GivesBackWhatItDoesNotUse) {
  ByteBuffer buffer;
  buffer.reserve(100'000);
  buffer.append(hex("010203"));
  buffer.releaseUnused();
  EXPECT_EQ(buffer.capacity(), 3U);
  EXPECT_EQ(buffer, (ByteBuffer{1, 2, 3}));
}

TEST(ByteBuffer, ItsBlockLivesOnWithWhoeverSharesIt) {
  ByteBlock* block = nullptr;
  {
    const ByteBuffer buffer{1, 2, 3};
    block = buffer.block();
    block->retain();
  }
  EXPECT_EQ(block->bytes()[2], 3);
  block->release();
}

}  // namespace
}  // namespace velto::wire
