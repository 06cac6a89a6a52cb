// Data beside a frame: what is made of it, what is looked at when it comes, and what a peer that means harm sends.
#include "platform/xpc/wire/SharedMemory.h"

#include <cerrno>

#include <sys/mman.h>

#include "platform/xpc/contract/Limits.h"
#include "platform/xpc/testing/Support.h"
#include "platform/xpc/testing/WireTesting.h"

namespace velto::wire {
namespace {

using namespace testing;
using system::SharedDescriptor;

constexpr std::size_t kLeast = limits::kLeastRegionBytes;
constexpr int kAllSeals = F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE;

// Of zeros, with memory behind them or without.
SharedDescriptor memoryOf(std::size_t bytes, int seals = kAllSeals, bool isSparse = false) {
  const int descriptor = ::memfd_create("test", MFD_CLOEXEC | MFD_ALLOW_SEALING);
  EXPECT_EQ(::ftruncate(descriptor, static_cast<off_t>(bytes)), 0);
  if (!isSparse && bytes > 0) {
    EXPECT_EQ(::posix_fallocate(descriptor, 0, static_cast<off_t>(bytes)), 0);
  }
  EXPECT_EQ(::fcntl(descriptor, F_ADD_SEALS, seals), 0);
  return std::make_shared<const system::Descriptor>(system::Descriptor(descriptor));
}

NSData mappedData(std::size_t bytes) {
  return NSData::dataMappingDescriptor(memoryOf(bytes)->get(), bytes);
}

NSData filledData(std::size_t bytes) {
  Bytes content(bytes);
  for (std::size_t index = 0; index < bytes; ++index) content[index] = static_cast<std::uint8_t>(index / 4096 + index);
  return NSData::dataWithVector(std::move(content));
}

Frame frameWith(std::vector<SharedDescriptor> regions, std::size_t bytes) {
  return {FrameType::call, {}, {}, std::move(regions), sizeOfRegions(bytes)};
}

std::string problemOf(const Frame& frame, std::size_t expectedOthers = 0) {
  std::size_t others = 0;
  std::string problem = problemOfRegions(frame, others);
  if (problem.empty()) {
    EXPECT_EQ(others, expectedOthers);
  }
  return problem;
}

TEST(SharedMemory, OfARegionHasItsBytesAndCanNeverChange) {
  const Bytes bytes(kLeast + 1, 7);
  std::string reason;
  const SharedDescriptor region = makeRegion(bytes, reason);
  ASSERT_TRUE(region) << reason;
  Bytes read(bytes.size() + 1);
  ASSERT_EQ(::pread(region->get(), read.data(), read.size(), 0), static_cast<ssize_t>(bytes.size()));
  read.pop_back();
  EXPECT_EQ(read, bytes);
  EXPECT_EQ(::pwrite(region->get(), "x", 1, 0), -1);
  EXPECT_EQ(errno, EPERM);
  EXPECT_EQ(::ftruncate(region->get(), 0), -1);
  EXPECT_EQ(::ftruncate(region->get(), 1 << 30), -1);
  EXPECT_EQ(problemOf(frameWith({region}, bytes.size())), "");
}

TEST(SharedMemory, SizesAreThePowersOfTwoThatTheyDoNotExceed) {
  EXPECT_EQ(sizeOfRegions(1), 18);
  EXPECT_EQ(sizeOfRegions(kLeast), 18);
  EXPECT_EQ(sizeOfRegions(kLeast + 1), 19);
  EXPECT_EQ(sizeOfRegions(limits::kMaximumRegionBytes), 30);
}

TEST(SharedMemory, ThatIsNotSealedInEveryWayIsNoRegion) {
  for (const int missing : {F_SEAL_SHRINK, F_SEAL_GROW, F_SEAL_WRITE}) {
    EXPECT_EQ(problemOf(frameWith({memoryOf(kLeast, kAllSeals & ~missing)}, kLeast)),
              "a region that is not sealed against shrinking, growing and writing");
  }
}

TEST(SharedMemory, OfMoreThanWasDeclaredIsFound) {
  EXPECT_EQ(problemOf(frameWith({memoryOf(kLeast), memoryOf(kLeast)}, 2 * kLeast)), "");
  EXPECT_TRUE(contains(problemOf(frameWith({memoryOf(kLeast), memoryOf(kLeast + 1)}, 2 * kLeast)),
                       "bytes of a frame's regions: 524289"));
  const SharedDescriptor endless = memoryOf(std::size_t{1} << 62, kAllSeals, true);
  EXPECT_TRUE(contains(problemOf(frameWith({endless, endless, endless, endless}, limits::kMaximumRegionBytes)),
                       "bytes of a frame's regions"));
}

TEST(SharedMemory, ThatHasLessMemoryThanBytesIsFound) {
  EXPECT_EQ(problemOf(frameWith({memoryOf(kLeast), memoryOf(kLeast, kAllSeals, true)}, 2 * kLeast)),
            "a region with less memory than bytes");
  // Of a last page of which only a part is used too.
  EXPECT_EQ(problemOf(frameWith({memoryOf(kLeast + 1)}, kLeast + 1)), "");
}

TEST(SharedMemory, OfTooFewBytesOrInTooManyRegionsIsFound) {
  EXPECT_TRUE(contains(problemOf(frameWith({memoryOf(kLeast - 1)}, kLeast)), "a region of 262143 bytes"));
  EXPECT_TRUE(contains(problemOf(frameWith({memoryOf(0)}, kLeast)), "a region of 0 bytes"));
  std::vector<SharedDescriptor> regions(limits::kMaximumRegions, memoryOf(kLeast));
  EXPECT_EQ(problemOf(frameWith(regions, limits::kMaximumRegions * kLeast)), "");
  regions.push_back(memoryOf(kLeast));
  EXPECT_EQ(problemOf(frameWith(regions, limits::kMaximumRegionBytes)), "regions of a frame: 9, maximum 8");
}

TEST(SharedMemory, AnythingElseIsNoConcernOfIt) {
  EXPECT_EQ(problemOf(frameWith({newPipe(), nullptr, memoryOf(kLeast)}, kLeast), 2), "");
}

// What comes of a value that is encoded, and comes as the frame of a peer.
struct Journey {
  explicit Journey(const NSObject& sent, bool passesRegionsOn = false) {
    ValueEncoder encoder(FrameType::reply, passesRegionsOn);
    encoder.add(sent);
    encoder.finish();
    reason = encoder.reason();
    exceededLimit = encoder.exceededLimit();
    if (!encoder.failed()) frame = velto::testing::inOnePiece(encoder.take());
  }
  Outcome decode(const ClassSet& admitted = ClassSet(NSSet{NSData::classObject(), NSArray::classObject()})) {
    ValueDecoder decoder(frame);
    const Outcome outcome = decoder.next(admitted, value);
    reason = decoder.reason();
    return outcome;
  }

  Frame frame;
  NSObject value;
  std::string reason;
  bool exceededLimit = false;
};

TEST(Regions, DataThatAFrameHasNoRoomForGoesBesideItAndComesAsItWas) {
  const NSData data = filledData(limits::kMaximumFrameBytes);
  Journey journey(data);
  ASSERT_EQ(journey.reason, "");
  EXPECT_EQ(journey.frame.descriptors.size(), 1U);
  EXPECT_EQ(journey.frame.regions, 24);
  EXPECT_LT(journey.frame.size(), 20U);
  EXPECT_EQ(problemOf(journey.frame), "");
  const std::size_t before = velto::testing::openDescriptors();
  ASSERT_EQ(journey.decode(), Outcome::value) << journey.reason;
  EXPECT_EQ(velto::testing::openDescriptors(), before) << "what has come keeps no descriptor";
  journey.frame = {};
  EXPECT_EQ(journey.value, data);
}

TEST(Regions, WhatFitsIntoAFrameStaysInIt) {
  Journey journey(filledData(limits::kMaximumFrameBytes - 5));
  EXPECT_EQ(journey.frame.regions, 0);
  EXPECT_EQ(journey.frame.size(), limits::kMaximumFrameBytes);
  Journey unknown(mappedData(kLeast), false);
  EXPECT_EQ(unknown.frame.regions, 0);
  Journey text(NSString(std::string(limits::kMaximumFrameBytes, 'x')), true);
  EXPECT_TRUE(contains(text.reason, "bytes of a frame: "));
}

TEST(Regions, SealedMemoryThatDataMapsIsPassedOnAndNotCopied) {
  const SharedDescriptor memory = memoryOf(kLeast);
  const NSData data = NSData::dataMappingDescriptor(memory->get(), kLeast);
  Journey journey(data, true);
  ASSERT_EQ(journey.frame.descriptors.size(), 1U);
  struct stat own {
  }, sent{};
  ASSERT_EQ(::fstat(memory->get(), &own) | ::fstat(journey.frame.descriptors[0]->get(), &sent), 0);
  EXPECT_EQ(own.st_ino, sent.st_ino);
  EXPECT_EQ(journey.decode(), Outcome::value);
  EXPECT_EQ(journey.value, data);
}

TEST(Regions, MemoryThatCouldGrowOrIsLargerThanItsDataOrNotThereYetIsCopied) {
  for (const SharedDescriptor& memory :
       {memoryOf(kLeast, F_SEAL_SHRINK | F_SEAL_WRITE), memoryOf(kLeast + 1), memoryOf(kLeast, kAllSeals, true)}) {
    Journey journey(NSData::dataMappingDescriptor(memory->get(), kLeast), true);
    EXPECT_EQ(journey.frame.regions, 0);
    EXPECT_GT(journey.frame.size(), kLeast);
  }
}

TEST(Regions, AsManyBytesAsMayGoBesideAFrameDoAndMoreIsRefused) {
  Journey most(mappedData(limits::kMaximumRegionBytes), true);
  EXPECT_EQ(most.reason, "");
  ASSERT_EQ(most.decode(), Outcome::value) << most.reason;
  EXPECT_EQ(most.value.as<NSData>().length(), limits::kMaximumRegionBytes);
  const std::size_t more = limits::kMaximumRegionBytes + 1;
  Journey over(NSData::dataMappingDescriptor(memoryOf(more, kAllSeals, true)->get(), more), true);
  EXPECT_TRUE(over.exceededLimit);
  EXPECT_EQ(over.reason, "exceeds a limit: bytes of data beside a frame: 1073741825 or more, maximum 1073741824");
}

TEST(Regions, AsManyAsMayBeGoAndWhatFitsGoesInTheFrameAfterThem) {
  NSMutableArray many;
  for (std::size_t count = 0; count <= limits::kMaximumRegions; ++count) many.addObject(mappedData(kLeast));
  Journey journey(many, true);
  EXPECT_EQ(journey.frame.descriptors.size(), limits::kMaximumRegions);
  EXPECT_GT(journey.frame.size(), kLeast);
  EXPECT_EQ(journey.decode(), Outcome::value);
  EXPECT_EQ(journey.value, many);
  for (std::size_t count = 0; count < 64; ++count) many.addObject(mappedData(kLeast));
  EXPECT_TRUE(contains(Journey(many, true).reason, "data beside a frame: 9 or more, maximum 8"));
}

// The item of a region, as a peer writes it.
struct Foreign : Journey {
  Foreign(const std::string& item, std::vector<SharedDescriptor> regions, std::uint8_t declared = 18) : Journey(nil) {
    frame = {FrameType::reply, hex(item), {}, std::move(regions), declared};
  }
};
// 60118([0, 262144])
constexpr const char* kItem = "d9ead6 82 00 1a00040000";

TEST(Regions, OfAPeerAreMapped) {
  Foreign region(kItem, {memoryOf(kLeast)});
  EXPECT_EQ(region.decode(), Outcome::value) << region.reason;
  EXPECT_EQ(region.value, NSData(Bytes(kLeast)));
}

TEST(Regions, ThatTheirFrameDoesNotCarryOrNamesTwiceAreBroken) {
  Foreign missing("d9ead6 82 01 1a00040000", {memoryOf(kLeast)});
  EXPECT_EQ(missing.decode(), Outcome::broken);
  EXPECT_EQ(missing.reason, "descriptor 1 of a frame that carries 1");
  Foreign far("d9ead6 82 1bffffffffffffffff 1a00040000", {memoryOf(kLeast)});
  EXPECT_EQ(far.decode(), Outcome::broken);
  Foreign twice(std::string("82") + kItem + kItem, {memoryOf(kLeast)});
  EXPECT_EQ(twice.decode(), Outcome::broken);
  EXPECT_EQ(twice.reason, "descriptor 0 named twice");
  Foreign undeclared(kItem, {memoryOf(kLeast)}, 0);
  EXPECT_EQ(undeclared.decode(), Outcome::broken);
  EXPECT_EQ(undeclared.reason, "data in a region of a frame without regions");
}

TEST(Regions, WhoseItemsAreOthersAreBroken) {
  for (const char* item : {"d9ead6 00", "d9ead6 81 00", "d9ead6 83 00 1a00040000 00", "d9ead6 82 20 1a00040000",
                           "d9ead6 82 00 40", "d9ead6 82 00 1a0003ffff", "d9ead6 82 00", "d9ead6"}) {
    EXPECT_EQ(Foreign(item, {memoryOf(kLeast)}).decode(), Outcome::broken) << item;
  }
}

TEST(Regions, ThatHaveNotTheirLengthOrNotItsMemoryOrAreNoneAreRefused) {
  for (const char* length : {"1a00040001", "1b0000000100000000", "1bffffffffffffffff"}) {
    Foreign region(std::string("d9ead6 82 00 ") + length, {memoryOf(kLeast)});
    EXPECT_EQ(region.decode(), Outcome::refused) << length;
    EXPECT_TRUE(contains(region.reason, "it holds only 262144 bytes")) << region.reason;
  }
  Foreign longer(kItem, {memoryOf(kLeast + 1)}, 19);
  EXPECT_EQ(longer.decode(), Outcome::refused);
  EXPECT_TRUE(contains(longer.reason, "it holds 262145 bytes")) << longer.reason;
  Foreign sparse(kItem, {memoryOf(kLeast, kAllSeals, true)});
  EXPECT_EQ(sparse.decode(), Outcome::refused);
  EXPECT_TRUE(contains(sparse.reason, "it has less memory than bytes")) << sparse.reason;
  EXPECT_EQ(Foreign(kItem, {newPipe()}).decode(), Outcome::refused);
  EXPECT_EQ(Foreign(kItem, {nullptr}).decode(), Outcome::refused);
  EXPECT_EQ(Foreign(kItem, {memoryOf(kLeast, F_SEAL_SHRINK)}).decode(), Outcome::refused);
}

// To hash or compare what has cost its sender nothing would take the time of what it says to be.
TEST(Regions, InKeysAndSetsAreRefused) {
  const ClassSet all(NSSet{NSData::classObject(), NSArray::classObject(), NSDictionary::classObject(),
                           NSSet::classObject(), NSNumber::classObject()});
  const auto outcomeOf = [&](const std::string& item) { return Foreign(item, {memoryOf(kLeast)}).decode(all); };
  const std::string item = kItem;
  EXPECT_EQ(outcomeOf("a1 " + item + " 00"), Outcome::refused);
  EXPECT_EQ(outcomeOf("a1 81 " + item + " 00"), Outcome::refused);
  EXPECT_EQ(outcomeOf("d90102 81 " + item), Outcome::refused);
  EXPECT_EQ(outcomeOf("d90102 81 a1 00 " + item), Outcome::refused);
  EXPECT_EQ(outcomeOf("a1 00 " + item), Outcome::value);
  EXPECT_EQ(outcomeOf("a2 00 00 01 81 " + item), Outcome::value);
}

TEST(Regions, AreDataToTheClassesThatAreAdmitted) {
  Foreign region(kItem, {});
  EXPECT_EQ(region.decode(ClassSet(NSSet{NSString::classObject()})), Outcome::refused);
  EXPECT_TRUE(contains(region.reason, "class NSData, which is not allowed here")) << region.reason;
}

}  // namespace
}  // namespace velto::wire
