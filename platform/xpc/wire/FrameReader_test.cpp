#include "platform/xpc/wire/FrameReader.h"

#include <algorithm>
#include <cstring>
#include <random>

#include <gtest/gtest.h>

#include "platform/xpc/contract/Limits.h"
#include "platform/xpc/testing/Support.h"
#include "platform/xpc/testing/WireTesting.h"

namespace velto::wire {
namespace {

using namespace testing;
using system::SharedDescriptor;

Bytes headerOf(std::size_t length, FrameType type, std::size_t descriptors) {
  const auto header =
      FrameHeader{static_cast<std::uint32_t>(length), type, static_cast<std::uint16_t>(descriptors)}.encode();
  return {header.begin(), header.end()};
}

void feed(FrameReader& reader, const Bytes& bytes, std::vector<SharedDescriptor> descriptors = {}) {
  const auto room = reader.prepare(std::max<std::size_t>(bytes.size(), 1));
  ASSERT_GE(room.size(), bytes.size());
  if (!bytes.empty()) std::memcpy(room.data(), bytes.data(), bytes.size());
  reader.received(bytes.size(), std::move(descriptors));
}

// Frames as they lie in a stream, and where each begins.
struct Stream {
  void add(FrameType type, Bytes body, std::size_t descriptorCount = 0) {
    Frame frame{type, std::move(body), {}, {}};
    for (std::size_t count = 0; count < descriptorCount; ++count) frame.descriptors.push_back(newPipe());
    starts.push_back(bytes.size());
    bytes = std::move(bytes) + headerOf(frame.body.size(), type, descriptorCount) + frame.body;
    frames.push_back(std::move(frame));
  }
  // Descriptors of the frames whose first byte lies in a part of the stream: as the kernel hands them out.
  std::vector<SharedDescriptor> descriptorsIn(std::size_t begin, std::size_t end) const {
    std::vector<SharedDescriptor> found;
    for (std::size_t index = 0; index < frames.size(); ++index) {
      if (starts[index] < begin || starts[index] >= end) continue;
      found.insert(found.end(), frames[index].descriptors.begin(), frames[index].descriptors.end());
    }
    return found;
  }

  Bytes bytes;
  std::vector<std::size_t> starts;
  std::vector<Frame> frames;
};

Stream variedStream() {
  Stream stream;
  stream.add(FrameType::hello, hex("01"));
  stream.add(FrameType::call, hex("01 02 03"), 2);
  stream.add(FrameType::reply, {}, 1);
  stream.add(FrameType::goodbye, {});
  stream.add(FrameType::call, Bytes(40, 7));
  stream.add(FrameType::call, hex("09"), 3);
  stream.add(FrameType::credit, hex("01 02"));
  return stream;
}

// Feeds the stream cut at the given places, and checks that exactly its frames come out.
void expectFrames(const Stream& stream, std::vector<std::size_t> cuts) {
  cuts.push_back(stream.bytes.size());
  FrameReader reader;
  std::size_t begin = 0, seen = 0;
  for (const std::size_t end : cuts) {
    const auto at = [&stream](std::size_t index) { return stream.bytes.begin() + static_cast<std::ptrdiff_t>(index); };
    feed(reader, Bytes(at(begin), at(end)), stream.descriptorsIn(begin, end));
    while (const auto frame = reader.next()) {
      ASSERT_LT(seen, stream.frames.size());
      EXPECT_EQ(frame->type, stream.frames[seen].type);
      EXPECT_EQ(frame->body, stream.frames[seen].body);
      EXPECT_EQ(frame->descriptors, stream.frames[seen].descriptors);
      ++seen;
    }
    ASSERT_FALSE(reader.failed()) << reader.reason();
    begin = end;
  }
  EXPECT_EQ(seen, stream.frames.size());
  EXPECT_FALSE(reader.hasPartialFrame());
}

TEST(FrameReader, AnEmptyReaderHoldsNothing) {
  FrameReader reader;
  EXPECT_FALSE(reader.next());
  EXPECT_FALSE(reader.failed());
  EXPECT_FALSE(reader.hasPartialFrame());
  EXPECT_EQ(reader.capacity(), 0u);
}

TEST(FrameReader, EverySplitPointOfAStreamWithDescriptors) {
  const Stream stream = variedStream();
  for (std::size_t cut = 0; cut <= stream.bytes.size(); ++cut) expectFrames(stream, {cut});
}

TEST(FrameReader, OneByteAtATime) {
  const Stream stream = variedStream();
  std::vector<std::size_t> cuts;
  for (std::size_t cut = 1; cut < stream.bytes.size(); ++cut) cuts.push_back(cut);
  expectFrames(stream, cuts);
}

TEST(FrameReader, RandomSplitsOfRandomFrames) {
  std::mt19937 random(20240611);
  const auto upTo = [&random](std::size_t most) { return random() % (most + 1); };
  for (int round = 0; round < 100; ++round) {
    Stream stream;
    for (std::size_t count = upTo(12); count > 0; --count) {
      const std::size_t length = upTo(3) == 0 ? upTo(200'000) : upTo(100);
      const FrameType type = upTo(1) == 0 ? FrameType::call : FrameType::reply;
      stream.add(type, Bytes(length, static_cast<std::uint8_t>(count)), upTo(3));
    }
    std::vector<std::size_t> cuts(upTo(10));
    for (std::size_t& cut : cuts) cut = upTo(stream.bytes.size());
    std::sort(cuts.begin(), cuts.end());
    expectFrames(stream, cuts);
  }
}

TEST(FrameReader, APartialFrameIsKnown) {
  FrameReader reader;
  feed(reader, hex("01 00 00 00"));
  EXPECT_FALSE(reader.next());
  EXPECT_TRUE(reader.hasPartialFrame());
  feed(reader, hex("02 00 00 00"));
  EXPECT_FALSE(reader.next());
  EXPECT_TRUE(reader.hasPartialFrame());
  feed(reader, hex("aa"));
  EXPECT_TRUE(reader.next());
  EXPECT_FALSE(reader.hasPartialFrame());
}

TEST(FrameReader, ABrokenHeaderFailsBeforeItsBodyArrives) {
  FrameReader reader;
  feed(reader, hex("01 00 00 01 02 00 00 00"));
  EXPECT_FALSE(reader.next());
  EXPECT_TRUE(reader.failed());
  EXPECT_EQ(reader.reason(), "bytes of a frame: 16777217, maximum 16777216");
}

TEST(FrameReader, FramesAheadOfABrokenOneStillComeOut) {
  FrameReader reader;
  feed(reader, headerOf(1, FrameType::call, 0) + hex("05") + hex("00 00 00 00 63 00 00 00"));
  EXPECT_TRUE(reader.next());
  EXPECT_FALSE(reader.next());
  EXPECT_EQ(reader.reason(), "a frame of unknown type 99");
}

TEST(FrameReader, NothingComesAfterAFailure) {
  FrameReader reader;
  feed(reader, hex("00 00 00 00 63 00 00 00"));
  EXPECT_FALSE(reader.next());
  const std::string reason = reader.reason();
  feed(reader, headerOf(0, FrameType::goodbye, 0));
  EXPECT_FALSE(reader.next());
  EXPECT_EQ(reader.reason(), reason);
  EXPECT_FALSE(reader.hasPartialFrame());
}

TEST(FrameReader, FewerDescriptorsThanDeclaredFail) {
  FrameReader reader;
  feed(reader, headerOf(0, FrameType::call, 2), {newPipe()});
  EXPECT_FALSE(reader.next());
  EXPECT_EQ(reader.reason(), "a frame declares 2 descriptors, but only 1 came");
}

TEST(FrameReader, MoreDescriptorsThanDeclaredFail) {
  FrameReader reader;
  feed(reader, headerOf(0, FrameType::call, 1), {newPipe(), newPipe()});
  EXPECT_TRUE(reader.next());
  EXPECT_FALSE(reader.next());
  EXPECT_EQ(reader.reason(), "descriptors that came for the next frame: 1, maximum 0");
}

TEST(FrameReader, DescriptorsOfHalfAFrameAreKeptUpToItsNumber) {
  FrameReader reader;
  feed(reader, headerOf(4, FrameType::call, 1), {newPipe()});
  EXPECT_FALSE(reader.next());
  EXPECT_FALSE(reader.failed());
  EXPECT_TRUE(reader.hasPartialFrame());
  feed(reader, {}, {newPipe()});
  EXPECT_FALSE(reader.next());
  EXPECT_EQ(reader.reason(), "descriptors that came for the next frame: 2, maximum 1");
}

TEST(FrameReader, DescriptorsThatNobodyCanClaimAreClosedAtOnceAndLeaveAnEmptyPlace) {
  FrameReader reader;
  reader.keepDescriptors(1);
  const auto one = newPipe();
  const auto other = newPipe();
  feed(reader, headerOf(1, FrameType::call, 2), {one, other});
  EXPECT_FALSE(reader.next());
  EXPECT_EQ(one.use_count(), 2);
  EXPECT_EQ(other.use_count(), 1);
  EXPECT_EQ(reader.heldDescriptors(), 1U);
  feed(reader, hex("f7"));
  const auto frame = reader.next();
  ASSERT_TRUE(frame);
  ASSERT_EQ(frame->descriptors.size(), 2U);
  EXPECT_EQ(frame->descriptors[0], one);
  EXPECT_FALSE(frame->descriptors[1]);
  EXPECT_EQ(reader.framesTaken(), 1U);
}

TEST(FrameReader, DescriptorsOfHalfAHeaderAreKeptUpToTheLimit) {
  const std::vector<SharedDescriptor> most(limits::kMaximumDescriptors, newPipe());
  FrameReader reader;
  feed(reader, hex("00 00 00"), most);
  EXPECT_FALSE(reader.next());
  EXPECT_FALSE(reader.failed());
  feed(reader, {}, {newPipe()});
  EXPECT_FALSE(reader.next());
  EXPECT_EQ(reader.reason(), "descriptors that came for the next frame: 65, maximum 64");
}

TEST(FrameReader, DescriptorsOfAFrameThatTakesNoneFail) {
  FrameReader reader;
  feed(reader, headerOf(0, FrameType::goodbye, 0), {newPipe()});
  EXPECT_TRUE(reader.next());
  EXPECT_FALSE(reader.next());
  EXPECT_TRUE(contains(reader.reason(), "maximum 0"));
}

TEST(FrameReader, AFailureClosesWhatItHeld) {
  const std::size_t before = velto::testing::openDescriptors();
  FrameReader reader;
  feed(reader, headerOf(9, FrameType::call, 1), {newPipe(), newPipe(), newPipe()});
  EXPECT_FALSE(reader.next());
  EXPECT_TRUE(reader.failed());
  EXPECT_EQ(velto::testing::openDescriptors(), before);
  feed(reader, hex("00"), {newPipe()});
  EXPECT_EQ(velto::testing::openDescriptors(), before);
}

TEST(FrameReader, AReaderDestroyedHalfwayClosesWhatItHeld) {
  const std::size_t before = velto::testing::openDescriptors();
  {
    FrameReader reader;
    feed(reader, headerOf(9, FrameType::call, 2), {newPipe(), newPipe()});
    EXPECT_FALSE(reader.next());
    EXPECT_EQ(velto::testing::openDescriptors(), before + 2);
  }
  EXPECT_EQ(velto::testing::openDescriptors(), before);
}

TEST(FrameReader, GivesSixtyFourKiBOfRoomFromTheStart) {
  FrameReader reader;
  EXPECT_GE(reader.prepare(1).size(), std::size_t{64} << 10);
  EXPECT_GE(reader.prepare(std::size_t{1} << 20).size(), std::size_t{1} << 20);
}

TEST(FrameReader, MemoryGrowsWithWhatArrivedAndNotWithWhatWasDeclared) {
  constexpr std::size_t kPart = std::size_t{64} << 10;
  FrameReader reader;
  feed(reader, headerOf(limits::kMaximumFrameBytes, FrameType::call, 0));
  EXPECT_FALSE(reader.next());
  const Bytes part(kPart, 1);
  for (std::size_t arrived = kPart; arrived <= limits::kMaximumFrameBytes; arrived += kPart) {
    feed(reader, part);
    EXPECT_LE(reader.capacity(), 2 * arrived + 2 * kPart);
    const auto frame = reader.next();
    ASSERT_EQ(frame.has_value(), arrived == limits::kMaximumFrameBytes);
    if (frame) {
      EXPECT_EQ(frame->body, Bytes(limits::kMaximumFrameBytes, 1));
    }
  }
}

TEST(FrameReader, TheBufferShrinksBackAfterALargeFrame) {
  FrameReader reader;
  feed(reader, headerOf(1'000'000, FrameType::call, 0) + Bytes(1'000'000, 3));
  EXPECT_TRUE(reader.next());
  EXPECT_LE(reader.capacity(), std::size_t{128} << 10);
  feed(reader, headerOf(0, FrameType::goodbye, 0));
  EXPECT_TRUE(reader.next());
}

TEST(FrameReader, ASmallFramesBufferIsKept) {
  FrameReader reader;
  feed(reader, headerOf(0, FrameType::goodbye, 0));
  const std::size_t capacity = reader.capacity();
  EXPECT_TRUE(reader.next());
  EXPECT_EQ(reader.capacity(), capacity);
}

TEST(FrameReader, AStreamThatRestsHoldsNoRoom) {
  FrameReader reader;
  FrameReader other;
  const auto room = reader.prepare(1);
  feed(reader, headerOf(0, FrameType::goodbye, 0));
  EXPECT_TRUE(reader.next());
  reader.rest();
  EXPECT_EQ(reader.capacity(), 0u);
  // The next on this thread has it.
  EXPECT_EQ(other.prepare(1).data(), room.data());
}

TEST(FrameReader, AStreamThatRestsInAFrameHoldsWhatHasCome) {
  const Bytes body(1000, 5);
  const Bytes stream = headerOf(1000, FrameType::call, 0) + body + headerOf(0, FrameType::goodbye, 0);
  FrameReader reader;
  for (const std::uint8_t byte : stream) {
    const bool isBodysEnd = reader.missing() == 1;
    feed(reader, {byte});
    const auto frame = reader.next();
    reader.rest();
    EXPECT_LE(reader.capacity(), 1024u);
    ASSERT_TRUE(!isBodysEnd || frame);
    if (isBodysEnd) {
      EXPECT_EQ(frame->body, body);
    }
  }
  EXPECT_EQ(reader.framesTaken(), 2u);
  EXPECT_FALSE(reader.hasPartialFrame());
}

TEST(FrameReader, AnUnfinishedFrameThatIsLargeStaysWhereItIsWhileTheStreamRests) {
  FrameReader reader;
  feed(reader, headerOf(100'000, FrameType::call, 0) + Bytes(60'000, 7));
  EXPECT_FALSE(reader.next());
  const std::size_t capacity = reader.capacity();
  reader.rest();
  EXPECT_EQ(reader.capacity(), capacity);
  feed(reader, Bytes(40'000, 7));
  const auto frame = reader.next();
  ASSERT_TRUE(frame);
  EXPECT_EQ(frame->body, Bytes(100'000, 7));
}

TEST(FrameReader, TheGreatestFramePassesAndTheStreamGoesOn) {
  FrameReader reader;
  feed(reader, headerOf(limits::kMaximumFrameBytes, FrameType::call, 0) + Bytes(limits::kMaximumFrameBytes, 5));
  const auto frame = reader.next();
  ASSERT_TRUE(frame);
  EXPECT_EQ(frame->body.size(), limits::kMaximumFrameBytes);
  feed(reader, headerOf(1, FrameType::reply, 0) + hex("f6"));
  EXPECT_TRUE(reader.next());
}

TEST(FrameReader, ALargeFrameStaysWhereItWasReadTo) {
  Stream stream;
  stream.add(FrameType::call, Bytes(1 << 20, 7));
  stream.add(FrameType::reply, hex("010203"));
  FrameReader reader;
  const std::uint8_t* place = nullptr;
  std::size_t fed = 0;
  std::optional<Frame> large;
  while (!large) {
    const auto room = reader.prepare(1);
    const std::size_t count = std::min(room.size(), stream.bytes.size() - fed);
    std::memcpy(room.data(), stream.bytes.data() + fed, count);
    fed += count;
    place = room.data() + count;
    reader.received(count, {});
    large = reader.next();
  }
  const std::size_t behind = fed - FrameHeader::kBytes - stream.frames[0].body.size();
  EXPECT_EQ(large->body, stream.frames[0].body);
  EXPECT_EQ(large->body.end() + behind, place);
  feed(reader, Bytes(stream.bytes.begin() + static_cast<std::ptrdiff_t>(fed), stream.bytes.end()));
  const auto small = reader.next();
  ASSERT_TRUE(small);
  EXPECT_EQ(small->body, stream.frames[1].body);
  EXPECT_FALSE(reader.hasPartialFrame());
}

}  // namespace
}  // namespace velto::wire
