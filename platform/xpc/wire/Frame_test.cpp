#include "platform/xpc/wire/Frame.h"

#include <gtest/gtest.h>

#include "platform/xpc/contract/Limits.h"
#include "platform/xpc/testing/WireTesting.h"

namespace velto::wire {
namespace {

using namespace testing;

std::string problemOf(const Bytes& bytes) {
  std::string reason;
  return FrameHeader::decode(bytes.data(), reason) ? "" : reason;
}

TEST(FrameHeader, IsEightBytesLittleEndian) {
  const FrameHeader header{0x00040302, FrameType::reply, 0x0021};
  const auto bytes = header.encode();
  EXPECT_EQ(Bytes(bytes.begin(), bytes.end()), hex("02 03 04 00 03 00 21 00"));
}

TEST(FrameHeader, ComesBackAsItWas) {
  for (int type = 1; type <= 8; ++type) {
    std::string reason;
    const auto bytes = FrameHeader{77, static_cast<FrameType>(type), 0}.encode();
    const auto header = FrameHeader::decode(bytes.data(), reason);
    ASSERT_TRUE(header) << reason;
    EXPECT_EQ(header->bodyLength, 77u);
    EXPECT_EQ(header->type, static_cast<FrameType>(type));
    EXPECT_EQ(header->descriptorCount, 0);
  }
}

TEST(FrameHeader, AnUnknownTypeIsRefused) {
  EXPECT_EQ(problemOf(hex("00 00 00 00 00 00 00 00")), "a frame of unknown type 0");
  EXPECT_EQ(problemOf(hex("00 00 00 00 09 00 00 00")), "a frame of unknown type 9");
  EXPECT_EQ(problemOf(hex("00 00 00 00 ff 00 00 00")), "a frame of unknown type 255");
}

TEST(FrameHeader, RegionsHaveASizeBetweenTheLeastAndTheGreatestAndComeWithDescriptors) {
  for (const char* size : {"12", "18", "1e"}) {
    EXPECT_EQ(problemOf(hex("00 00 00 00 02") + hex(size) + hex("01 00")), "") << size;
  }
  for (const char* size : {"01", "11", "1f", "40", "80", "ff"}) {
    EXPECT_TRUE(contains(problemOf(hex("00 00 00 00 02") + hex(size) + hex("01 00")), "byte of regions is ")) << size;
  }
  EXPECT_EQ(problemOf(hex("00 00 00 00 02 80 00 00")), "a frame whose byte of regions is 128, with 0 descriptors");
  EXPECT_EQ(problemOf(hex("00 00 00 00 02 12 00 00")), "a frame whose byte of regions is 18, with 0 descriptors");
  EXPECT_NE(problemOf(hex("00 00 00 00 07 12 01 00")), "");
}

TEST(FrameHeader, RegionsCountForAnEighthAndACallTakesNoMoreCreditThanAGreatestFrame) {
  Frame frame{FrameType::call, Bytes(100), {}, {}, 20};
  EXPECT_EQ(frame.weight(), 100U + (1U << 17));
  EXPECT_EQ(frame.credit(), frame.weight());
  frame.regions = 30;
  EXPECT_EQ(frame.weight(), 100U + (1U << 27));
  EXPECT_EQ(frame.credit(), limits::kMaximumFrameBytes);
  frame.regions = 0;
  EXPECT_EQ(frame.weight(), 100U);
  EXPECT_EQ(frame.credit(), 100U);
}

TEST(FrameHeader, TheGreatestBodyPassesAndOneByteMoreDoesNot) {
  EXPECT_EQ(problemOf(hex("00 00 00 01 02 00 00 00")), "");
  EXPECT_EQ(problemOf(hex("01 00 00 01 02 00 00 00")), "bytes of a frame: 16777217, maximum 16777216");
}

TEST(FrameHeader, LengthsAtTheEdgesOfTheirTypesAreRefused) {
  EXPECT_EQ(problemOf(hex("00 00 00 80 02 00 00 00")), "bytes of a frame: 2147483648, maximum 16777216");
  EXPECT_EQ(problemOf(hex("ff ff ff ff 02 00 00 00")), "bytes of a frame: 4294967295, maximum 16777216");
}

TEST(FrameHeader, TheMostDescriptorsPassAndOneMoreDoesNot) {
  EXPECT_EQ(problemOf(hex("00 00 00 00 02 00 40 00")), "");
  EXPECT_EQ(problemOf(hex("00 00 00 00 03 00 40 00")), "");
  EXPECT_EQ(problemOf(hex("00 00 00 00 02 00 41 00")), "descriptors of a frame: 65, maximum 64");
  EXPECT_EQ(problemOf(hex("00 00 00 00 02 00 ff ff")), "descriptors of a frame: 65535, maximum 64");
}

TEST(FrameHeader, OnlyCallsAndRepliesCarryDescriptors) {
  for (const char* type : {"01", "04", "05", "06", "07", "08"}) {
    const std::string problem = problemOf(hex("00 00 00 00") + hex(type) + hex("00 01 00"));
    EXPECT_TRUE(contains(problem, "descriptors of a frame of type ")) << type << problem;
    EXPECT_TRUE(contains(problem, ": 1, maximum 0")) << problem;
  }
}

}  // namespace
}  // namespace velto::wire
