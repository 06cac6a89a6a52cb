#include "platform/xpc/wire/ItemReader.h"

#include <cmath>

#include <gtest/gtest.h>

#include "platform/xpc/testing/WireTesting.h"

namespace velto::wire {
namespace {

using namespace testing;
using Type = Item::Type;

// The first item; the type `indefinite`, which read() never gives, when it is broken.
Item read(const Bytes& bytes) {
  ItemReader reader(bytes);
  Item item;
  if (reader.read(item)) return item;
  EXPECT_FALSE(reader.reason().empty());
  EXPECT_EQ(reader.position(), 0u);
  item.type = Type::indefinite;
  return item;
}

void expectNumber(const char* bytes, Type type, std::uint64_t number) {
  const Item item = read(hex(bytes));
  EXPECT_EQ(item.type, type) << bytes;
  EXPECT_EQ(item.number, number) << bytes;
}

bool skips(const Bytes& bytes) {
  ItemReader reader(bytes);
  return reader.skip() && reader.remaining() == 0;
}

void expectTruncated(const char* bytes) {
  const Bytes given = hex(bytes);
  ItemReader reader(given);
  Item item;
  EXPECT_FALSE(reader.read(item)) << bytes;
  EXPECT_TRUE(contains(reader.reason(), "truncated")) << reader.reason();
}

TEST(ItemReader, ReadsIntegersOfEveryLength) {
  expectNumber("00", Type::unsignedInteger, 0);
  expectNumber("17", Type::unsignedInteger, 23);
  expectNumber("18 ff", Type::unsignedInteger, 255);
  expectNumber("19 ffff", Type::unsignedInteger, 65535);
  expectNumber("1a ffffffff", Type::unsignedInteger, UINT32_MAX);
  expectNumber("1b ffffffffffffffff", Type::unsignedInteger, UINT64_MAX);
  expectNumber("20", Type::negativeInteger, 0);
  expectNumber("38 ff", Type::negativeInteger, 255);
  expectNumber("39 ffff", Type::negativeInteger, 65535);
  expectNumber("3a ffffffff", Type::negativeInteger, UINT32_MAX);
  expectNumber("3b ffffffffffffffff", Type::negativeInteger, UINT64_MAX);
}

TEST(ItemReader, ToleratesIntegersThatAreLongerThanTheyNeedBe) {
  expectNumber("18 00", Type::unsignedInteger, 0);
  expectNumber("1b 0000000000000001", Type::unsignedInteger, 1);
  expectNumber("3b 0000000000000001", Type::negativeInteger, 1);
}

TEST(ItemReader, ReadsStringsWhereTheyLie) {
  const Bytes bytes = hex("43 010203 62 6f6b");
  ItemReader reader(bytes);
  Item item;
  ASSERT_TRUE(reader.read(item));
  EXPECT_EQ(item.type, Type::bytes);
  EXPECT_EQ(item.start, bytes.data() + 1);
  EXPECT_EQ(item.number, 3u);
  ASSERT_TRUE(reader.read(item));
  EXPECT_EQ(item.type, Type::text);
  EXPECT_EQ(item.view(), "ok");
  EXPECT_EQ(reader.remaining(), 0u);
}

TEST(ItemReader, ReadsSimpleValuesAndFloats) {
  expectNumber("f4", Type::boolean, 0);
  expectNumber("f5", Type::boolean, 1);
  EXPECT_EQ(read(hex("f6")).type, Type::null);
  EXPECT_EQ(read(hex("f7")).type, Type::undefined);
  EXPECT_EQ(read(hex("f9 3e00")).real, 1.5);
  EXPECT_EQ(read(hex("fa 3fc00000")).real, 1.5);
  EXPECT_EQ(read(hex("fb 3ff8000000000000")).real, 1.5);
  EXPECT_TRUE(std::isnan(read(hex("f9 7e00")).real));
}

TEST(ItemReader, ReadsTagsOfEveryLength) {
  for (unsigned tag = 0; tag < 24; ++tag) {
    const Item item = read({static_cast<std::uint8_t>(0xC0 + tag), 0});
    EXPECT_EQ(item.type, Type::tag);
    EXPECT_EQ(item.number, tag);
  }
  expectNumber("d8 20 00", Type::tag, 32);
  expectNumber("d9 0102 00", Type::tag, 258);
  expectNumber("db ffffffffffffffff 00", Type::tag, UINT64_MAX);
}

TEST(ItemReader, IndefiniteLengthsAreBroken) {
  for (const char* bytes : {"5f 41 00 ff", "7f 61 61 ff", "9f 00 ff", "bf 00 00 ff", "ff"}) {
    EXPECT_EQ(read(hex(bytes)).type, Type::indefinite) << bytes;
    EXPECT_FALSE(skips(hex(bytes))) << bytes;
  }
}

TEST(ItemReader, ReservedBytesAreBroken) {
  for (const char* bytes : {"1c", "1d", "1e", "1f", "3c", "3f", "5c", "7d", "9e", "bc", "dc", "df", "e0", "f3", "f8 20",
                            "f8 ff", "fc", "fd", "fe"}) {
    EXPECT_EQ(read(hex(bytes) + Bytes(16, 0)).type, Type::indefinite) << bytes;
  }
}

TEST(ItemReader, CountsThatNoBytesBackAreTruncatedAtOnce) {
  for (const char* bytes : {"81", "82 00", "9a 80000000", "9a ffffffff 00", "9b ffffffffffffffff 00", "a1 00",
                            "b9 ffff 00 00", "bb 8000000000000000 00 00", "bb ffffffffffffffff"}) {
    expectTruncated(bytes);
  }
}

TEST(ItemReader, ACountThatIsJustBackedPasses) {
  EXPECT_EQ(read(hex("82 00 00")).type, Type::array);
  EXPECT_EQ(read(hex("a1 00 00")).type, Type::map);
}

TEST(ItemReader, StringsAndHeadsThatNoBytesBackAreTruncated) {
  for (const char* bytes : {"", "41", "5a 80000000 00", "5b ffffffffffffffff 00", "61", "7b ffffffffffffffff 61", "18",
                            "19 00", "1b 00000000000000", "fb 00"}) {
    expectTruncated(bytes);
  }
}

TEST(ItemReader, StepsOverOneItemWithEverythingInIt) {
  const Bytes bytes = hex("83 01 a1 61 61 82 00 c1 00 d8 64 43 000000") + hex("05");
  ItemReader reader(bytes);
  ASSERT_TRUE(reader.skip()) << reader.reason();
  EXPECT_EQ(reader.remaining(), 1u);
  reader.rewind(0);
  EXPECT_EQ(reader.remaining(), bytes.size());
}

TEST(ItemReader, StepsOverAMillionLevelsWithoutRecursion) {
  EXPECT_TRUE(skips(repeated(hex("81"), 1'000'000) + hex("00")));
  EXPECT_TRUE(skips(repeated(hex("c9"), 1'000'000) + hex("00")));
  EXPECT_FALSE(skips(repeated(hex("81"), 1'000'000)));
}

TEST(ItemReader, FindsWhatIsBrokenInWhatItStepsOver) {
  EXPECT_FALSE(skips(hex("82 00 61 ff")));
  EXPECT_FALSE(skips(hex("82 00 9f ff")));
  EXPECT_FALSE(skips(hex("a1 00")));
  EXPECT_FALSE(skips(hex("c1")));
  EXPECT_TRUE(skips(hex("82 00 61 61")));
}

}  // namespace
}  // namespace velto::wire
