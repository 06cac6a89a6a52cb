// Reader and writer are held to what libcbor makes of the same bytes.

#include "platform/xpc/testing/CBORJudge.h"

#include <array>
#include <bit>
#include <limits>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "platform/xpc/testing/WireTesting.h"
#include "platform/xpc/wire/ItemWriter.h"

namespace velto::wire::testing {
namespace {

// Reads heads, whatever they are of, as long as they are sound.
void expectAsJudged(const std::vector<std::uint8_t>& bytes) {
  ItemReader reader(bytes);
  for (std::size_t before = 0;; before = reader.position()) {
    ASSERT_STREQ(whyNotAsJudged(reader, bytes), "") << "at " << before << " of " << ::testing::PrintToString(bytes);
    if (reader.position() == before) return;
  }
}

TEST(CBORJudge, AgreesOnEveryFirstByteWithWhateverFollows) {
  std::mt19937 random(3);
  for (unsigned first = 0; first < 256; ++first) {
    for (int round = 0; round < 200; ++round) {
      std::vector<std::uint8_t> bytes{static_cast<std::uint8_t>(first)};
      for (auto left = random() % 24; left > 0; --left) bytes.push_back(static_cast<std::uint8_t>(random()));
      expectAsJudged(bytes);
    }
  }
}

TEST(CBORJudge, AgreesOnEveryHalf) {
  for (unsigned half = 0; half < 0x10000; ++half) {
    expectAsJudged({0xF9, static_cast<std::uint8_t>(half >> 8), static_cast<std::uint8_t>(half)});
  }
}

TEST(CBORJudge, AgreesOnRandomBytes) {
  std::mt19937 random(4);
  for (int round = 0; round < 100'000; ++round) {
    std::vector<std::uint8_t> bytes(random() % 40);
    for (std::uint8_t& byte : bytes) byte = static_cast<std::uint8_t>(random() % 4 == 0 ? random() : random() % 0x60);
    expectAsJudged(bytes);
  }
}

template <class Value>
std::vector<std::uint8_t> judged(std::size_t (*encode)(Value, unsigned char*, std::size_t), Value value) {
  std::vector<std::uint8_t> bytes(9);
  bytes.resize(encode(value, bytes.data(), bytes.size()));
  return bytes;
}

template <class Add>
ByteBuffer written(const Add& add) {
  ItemWriter writer;
  add(writer);
  return writer.finish();
}

TEST(CBORJudge, WritesEveryHeadAsItDoes) {
  std::mt19937_64 random(5);
  std::vector<std::uint64_t> numbers{0, 23, 24, 255, 256, 65535, 65536, UINT32_MAX, std::uint64_t{1} << 32, UINT64_MAX};
  for (int round = 0; round < 20'000; ++round) numbers.push_back(random() >> (random() % 64));
  for (const std::uint64_t number : numbers) {
    EXPECT_EQ(written([&](ItemWriter& writer) { writer.addUnsigned(number); }), judged(cbor_encode_uint, number));
    EXPECT_EQ(written([&](ItemWriter& writer) { writer.addTag(number); }), judged(cbor_encode_tag, number));
    const std::size_t count = number;
    EXPECT_EQ(written([&](ItemWriter& writer) { writer.addArray(count); }), judged(cbor_encode_array_start, count));
    EXPECT_EQ(written([&](ItemWriter& writer) { writer.addMap(count); }), judged(cbor_encode_map_start, count));
    const auto negative = static_cast<std::int64_t>(~(number >> 1));
    EXPECT_EQ(written([&](ItemWriter& writer) { writer.addSigned(negative); }),
              judged(cbor_encode_negint, std::uint64_t{number >> 1}));
    const auto real = std::bit_cast<double>(number);
    EXPECT_EQ(written([&](ItemWriter& writer) { writer.addDouble(real); }), judged(cbor_encode_double, real));
  }
  EXPECT_EQ(written([](ItemWriter& writer) { writer.addBool(true); }), judged(cbor_encode_bool, true));
  EXPECT_EQ(written([](ItemWriter& writer) { writer.addBool(false); }), judged(cbor_encode_bool, false));
}

TEST(CBORJudge, WritesStringsOfEveryLengthAsItDoes) {
  for (const std::size_t length : {0U, 1U, 23U, 24U, 255U, 256U, 1024U, 1025U, 65535U, 65536U, 1U << 20}) {
    const std::vector<std::uint8_t> content(length, 'x');
    std::vector<std::uint8_t> text = judged(cbor_encode_string_start, length);
    std::vector<std::uint8_t> bytes = judged(cbor_encode_bytestring_start, length);
    text.insert(text.end(), content.begin(), content.end());
    bytes.insert(bytes.end(), content.begin(), content.end());
    const std::string_view view(reinterpret_cast<const char*>(content.data()), length);
    EXPECT_EQ(written([&](ItemWriter& writer) { writer.addText(view); }), text) << length;
    EXPECT_EQ(written([&](ItemWriter& writer) { writer.addBytes(content); }), bytes) << length;
  }
}

}  // namespace
}  // namespace velto::wire::testing
