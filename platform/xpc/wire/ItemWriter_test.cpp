#include "platform/xpc/wire/ItemWriter.h"

#include <functional>

#include <gtest/gtest.h>

#include "platform/xpc/testing/WireTesting.h"

namespace velto::wire {
namespace {

using namespace testing;

ByteBuffer written(const std::function<void(ItemWriter&)>& write) {
  ItemWriter writer;
  write(writer);
  return writer.finish();
}

ByteBuffer writtenSigned(std::int64_t value) {
  return written([value](ItemWriter& writer) { writer.addSigned(value); });
}

TEST(ItemWriter, NothingWrittenIsEmpty) {
  EXPECT_TRUE(written([](ItemWriter&) {}).empty());
}

TEST(ItemWriter, IntegersTakeTheirShortestForm) {
  EXPECT_EQ(writtenSigned(0), hex("00"));
  EXPECT_EQ(writtenSigned(23), hex("17"));
  EXPECT_EQ(writtenSigned(24), hex("18 18"));
  EXPECT_EQ(writtenSigned(256), hex("19 0100"));
  EXPECT_EQ(writtenSigned(65536), hex("1a 00010000"));
  EXPECT_EQ(writtenSigned(INT64_MAX), hex("1b 7fffffffffffffff"));
  EXPECT_EQ(writtenSigned(-1), hex("20"));
  EXPECT_EQ(writtenSigned(-25), hex("38 18"));
  EXPECT_EQ(writtenSigned(INT64_MIN), hex("3b 7fffffffffffffff"));
  EXPECT_EQ(written([](ItemWriter& writer) { writer.addUnsigned(UINT64_MAX); }), hex("1b ffffffffffffffff"));
}

TEST(ItemWriter, ADoubleAlwaysTakesEightBytes) {
  EXPECT_EQ(written([](ItemWriter& writer) { writer.addDouble(0); }), hex("fb 0000000000000000"));
  EXPECT_EQ(written([](ItemWriter& writer) { writer.addDouble(1.5); }), hex("fb 3ff8000000000000"));
}

TEST(ItemWriter, WritesEveryOtherKindOfItem) {
  const Bytes data = hex("0102");
  const ByteBuffer bytes = written([&data](ItemWriter& writer) {
    writer.addBool(false);
    writer.addBool(true);
    writer.addNull();
    writer.addUndefined();
    writer.addText("ok");
    writer.addBytes(data);
    writer.addArray(3);
    writer.addMap(25);
    writer.addTag(258);
  });
  EXPECT_EQ(bytes, hex("f4 f5 f6 f7 62 6f6b 42 0102 83 b8 19 d9 0102"));
}

TEST(ItemWriter, EmptyStringsAreHeadsAlone) {
  const ByteBuffer bytes = written([](ItemWriter& writer) {
    writer.addText("");
    writer.addBytes({});
  });
  EXPECT_EQ(bytes, hex("60 40"));
}

TEST(ItemWriter, GrowsOverItemsOfEveryLength) {
  // Lengths around the sizes at which room is made, each between two small items.
  for (std::size_t length = 0; length < 5000; length += length < 300 || length > 950 ? 1 : 100) {
    const std::size_t head = length < 24 ? 1 : length < 256 ? 2 : 3;
    const Bytes data(length, 0xAB);
    const Bytes all = written([&](ItemWriter& writer) {
      writer.addUnsigned(1);
      writer.addBytes(data);
      EXPECT_EQ(writer.written(), 1 + head + length);
      writer.addUnsigned(2);
    });
    ASSERT_EQ(all.size(), 2 + head + length);
    ASSERT_EQ(all.front(), 1);
    ASSERT_EQ(all.back(), 2);
    ASSERT_EQ(Bytes(all.end() - 1 - static_cast<std::ptrdiff_t>(length), all.end() - 1), data) << length;
  }
}

TEST(ItemWriter, ManySmallItemsStayInOrder) {
  Bytes expected;
  for (unsigned count = 0; count < 10'000; ++count) expected.push_back(static_cast<std::uint8_t>(count % 24));
  const ByteBuffer bytes = written([](ItemWriter& writer) {
    for (unsigned count = 0; count < 10'000; ++count) writer.addUnsigned(count % 24);
  });
  EXPECT_EQ(bytes, expected);
}

}  // namespace
}  // namespace velto::wire
