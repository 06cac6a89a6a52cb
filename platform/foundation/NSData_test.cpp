#include "platform/foundation/NSData.h"

#include <cstdint>
#include <cstring>
#include <vector>

#include <gtest/gtest.h>

#include "platform/foundation/Foundation.h"

namespace {

TEST(NSData, CopiesBytes) {
  char bytes[] = "abc";
  const NSData data = NSData::dataWithBytes(bytes, 3);
  bytes[0] = 'x';
  EXPECT_EQ(data.view(), "abc");
  EXPECT_EQ(data.length(), 3u);
  EXPECT_EQ(data.span().size(), 3u);
  EXPECT_EQ(data.bytes()[2], 'c');
}

TEST(NSData, TakesVectors) {
  std::vector<std::uint8_t> bytes{1, 2, 3};
  const std::uint8_t* place = bytes.data();
  EXPECT_EQ(NSData(bytes).length(), 3u);
  const NSData taken = NSData::dataWithVector(std::move(bytes));
  EXPECT_EQ(taken.bytes(), place);
}

TEST(NSData, BorrowsUntilTheLastHandleGoes) {
  const char bytes[] = "abc";
  int deleted = 0;
  NSData data = NSData::dataWithBytesNoCopy(bytes, 3, [&] { ++deleted; });
  NSData other = data;
  EXPECT_EQ(static_cast<const void*>(data.bytes()), bytes);
  data = nil;
  EXPECT_EQ(deleted, 0);
  EXPECT_EQ(other.view(), "abc");
  other = nil;
  EXPECT_EQ(deleted, 1);
}

TEST(NSData, BorrowsWithoutADeleter) {
  static const char bytes[] = "abc";
  EXPECT_EQ(NSData::dataWithBytesNoCopy(bytes, 3, nullptr).view(), "abc");
}

TEST(NSData, MayBeEmpty) {
  EXPECT_EQ(NSData::dataWithBytes(nullptr, 0).length(), 0u);
  EXPECT_FALSE(NSData::dataWithVector({}).isNil());
  int deleted = 0;
  EXPECT_EQ(NSData::dataWithBytesNoCopy(nullptr, 0, [&] { ++deleted; }).length(), 0u);
  EXPECT_EQ(deleted, 1);
  EXPECT_EQ(NSData::dataWithBytes(nullptr, 0), NSData::dataWithVector({}));
}

TEST(NSData, BytesAtANullPointerRaise) {
  int deleted = 0;
  EXPECT_THROW(static_cast<void>(NSData::dataWithBytes(nullptr, 1)), NSException);
  EXPECT_THROW(static_cast<void>(NSData::dataWithBytesNoCopy(nullptr, 1, [&] { ++deleted; })), NSException);
  EXPECT_EQ(deleted, 0);
}

TEST(NSData, NilAnswersNothing) {
  const NSData none;
  EXPECT_EQ(none.bytes(), nullptr);
  EXPECT_EQ(none.length(), 0u);
  EXPECT_TRUE(none.span().empty());
  EXPECT_TRUE(none.view().empty());
}

TEST(NSData, EqualsByBytes) {
  const NSData owned = NSData::dataWithBytes("abc", 3);
  const NSData borrowed = NSData::dataWithBytesNoCopy("abc", 3, nullptr);
  EXPECT_EQ(owned, borrowed);
  EXPECT_EQ(owned.hash(), borrowed.hash());
  EXPECT_EQ(owned, NSMutableData::dataWithData(owned));
  EXPECT_NE(owned, NSData::dataWithBytes("abd", 3));
  EXPECT_NE(owned, NSData::dataWithBytes("ab", 2));
}

TEST(NSMutableData, ChangesUnderEveryHandle) {
  NSMutableData data = NSMutableData::data();
  const NSData same = data;
  data.appendBytes("abc", 3);
  data.mutableBytes()[1] = 'x';
  EXPECT_EQ(same.view(), "axc");
  data.setLength(1);
  data.setLength(3);
  EXPECT_EQ(same.view(), std::string_view("a\0\0", 3));
}

TEST(NSMutableData, AppendsItsOwnBytes) {
  NSMutableData data = NSMutableData::dataWithData(NSData::dataWithBytes("abc", 3));
  for (int round = 0; round < 5; ++round) data.appendBytes(data.bytes(), data.length());
  EXPECT_EQ(data.length(), 96u);
  EXPECT_EQ(data.view().substr(93), "abc");
}

TEST(NSMutableData, AppendingBytesAtANullPointerRaises) {
  NSMutableData data = NSMutableData::data();
  data.appendBytes(nullptr, 0);
  EXPECT_THROW(data.appendBytes(nullptr, 1), NSException);
  EXPECT_EQ(data.length(), 0u);
}

TEST(NSMutableData, ChangingNilDoesNothing) {
  NSMutableData none;
  none.appendBytes("abc", 3);
  none.setLength(5);
  EXPECT_EQ(none.mutableBytes(), nullptr);
  EXPECT_TRUE(none.isNil());
  EXPECT_EQ(NSMutableData::dataWithData(nil).length(), 0u);
}

}  // namespace
