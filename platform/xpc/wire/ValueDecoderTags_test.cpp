// What stands under each tag.

#include <gtest/gtest.h>

#include "platform/xpc/contract/Limits.h"
#include "platform/xpc/testing/Support.h"
#include "platform/xpc/testing/WireTesting.h"

namespace velto::wire {
namespace {

using namespace testing;

const char* const kErrorHead = "d8 1b 84 67 4e534572726f72";
const char* const kPointHead = "d8 1b 82 69 57697265506f696e74";
const char* const kPortHead = "d8 1b 82 68 57697265506f7274";

void expectBrokenTag(const Bytes& bytes, const char* reason = "") {
  const Decoded decoded = decodeBytes(bytes);
  EXPECT_EQ(decoded.outcome, Outcome::broken);
  EXPECT_TRUE(contains(decoded.reason, reason)) << decoded.reason;
}

void expectRefused(const Frame& frame, const std::string& reason, const ClassSet& admitted = everything()) {
  const Decoded decoded = decode(frame, admitted);
  EXPECT_EQ(decoded.outcome, Outcome::refused);
  EXPECT_EQ(decoded.reason, reason);
  EXPECT_TRUE(decoded.atEnd);
}

ClassSet only(const NSSet& classes) {
  return ClassSet(classes);
}

TEST(ValueTags, AnUnknownTagIsRefusedByNumber) {
  expectRefused(frameOfBytes(hex("c0 74") + Bytes(20, 'x')), "holds a value with tag 0, which is not known here");
  expectRefused(frameOfBytes(hex("c9 00")), "holds a value with tag 9, which is not known here");
  expectRefused(frameOfBytes(hex("81 d9 d9f7 80")), "holds a value with tag 55799, which is not known here");
  expectRefused(frameOfBytes(hex("db ffffffffffffffff f7")),
                "holds a value with tag 18446744073709551615, which is not known here");
}

TEST(ValueTags, AnUnknownTagOverBrokenBytesIsBroken) {
  expectBrokenTag(hex("c9"), "truncated");
  expectBrokenTag(hex("c9 ff"));
  expectBrokenTag(hex("c9 82 00"), "truncated");
  expectBrokenTag(hex("c9 61 ff"), "not UTF-8");
}

TEST(ValueTags, AMillionTagsOnTopOfEachOtherAreNoTrouble) {
  EXPECT_EQ(decodeBytes(repeated(hex("c9"), 1'000'000) + hex("00")).outcome, Outcome::refused);
  for (const char* tag : {"c1", "d8 20", "d8 25", "d8 1b", "d9 0102", "d9 ead5"}) {
    expectBrokenTag(repeated(hex(tag), 100'000) + hex("00"), "another item where");
  }
}

TEST(ValueTags, EachKnownTagTakesOnlyItsOwnContents) {
  const char* const items[] = {"00", "20", "40", "60", "80", "a0", "f4", "f6", "f7", "fb 0000000000000000", "c1 00"};
  const auto expectAllBrokenBut = [&items](const char* tag, std::string_view fitting) {
    for (const char* item : items) {
      EXPECT_EQ(decodeBytes(hex(tag) + hex(item)).outcome, item == fitting ? Outcome::value : Outcome::broken)
          << tag << " " << item;
    }
  };
  expectAllBrokenBut("c1", "fb 0000000000000000");
  expectAllBrokenBut("d8 1b", "none");
  expectAllBrokenBut("d8 25", "none");
  expectAllBrokenBut("d9 0102", "80");
  expectAllBrokenBut("d9 ead5", "00");
}

TEST(ValueTags, ADateMustBeFinite) {
  expectBrokenTag(hex("c1 fb 7ff0000000000000"), "a date that is not finite");
  expectBrokenTag(hex("c1 fb 7ff8000000000000"), "a date that is not finite");
  expectBrokenTag(hex("c1 f9 7c00"), "a date that is not finite");
  EXPECT_EQ(decodeBytes(hex("c1 f9 3c00")).value, NSObject(NSDate::dateWithTimeIntervalSince1970(1)));
}

TEST(ValueTags, AUrlMustBeOne) {
  expectRefused(frameOfBytes(hex("d8 20 60")), "holds a URL that is none: ");
  expectRefused(frameOfBytes(hex("d8 20 63 610a62")), "holds a URL that is none: a?b");
  expectBrokenTag(hex("d8 20 61 ff"), "not UTF-8");
  expectBrokenTag(hex("d8 20 41 61"), "another item where the text of a URL is due");
}

TEST(ValueTags, AUuidHasSixteenBytes) {
  expectBrokenTag(hex("d8 25 4f") + Bytes(15, 0), "a UUID of 15 bytes, not 16");
  expectBrokenTag(hex("d8 25 51") + Bytes(17, 0), "a UUID of 17 bytes, not 16");
  expectBrokenTag(hex("d8 25 70") + Bytes(16, 'a'), "another item");
  EXPECT_EQ(decodeBytes(hex("d8 25 50") + Bytes(16, 0)).outcome, Outcome::value);
}

TEST(ValueTags, AnElementThatComesTwiceInASetIsBroken) {
  expectBrokenTag(hex("d9 0102 82 01 01"), "comes twice");
  expectBrokenTag(hex("d9 0102 82 01 f5"), "comes twice");
  EXPECT_EQ(decodeBytes(hex("82 01 01")).outcome, Outcome::value);
}

TEST(ValueTags, AnUnsignedNumberOfAnySizeMayCarryTheTag) {
  EXPECT_EQ(decodeBytes(hex("d9 ead5 1b ffffffffffffffff")).value, NSObject(UINT64_MAX));
  expectBrokenTag(hex("d9 ead5 20"), "another item where an unsigned number is due");
}

TEST(ValueTags, AnObjectMustNameItsClass) {
  for (const char* bytes : {"d8 1b 80", "d8 1b 81 61 61", "d8 1b 82 00 00", "d8 1b 82 41 61 00", "d8 1b 82 61 ff 00",
                            "d8 1b a1 61 61 00", "d8 1b 82 61 61"}) {
    expectBrokenTag(hex(bytes));
  }
}

TEST(ValueTags, AnUnknownClassIsRefusedByName) {
  expectRefused(frameOfBytes(hex("d8 1b 82 63 466f6f 00")), "holds an object of class Foo, which is not known here");
  expectRefused(frameOfBytes(hex("d8 1b 83 63 466f6f 00 00")), "holds an object of class Foo, which is not known here");
  expectRefused(frameOfBytes(hex("d8 1b 82 68 4e53537472696e67 60")),
                "holds an object of class NSString, which is not known here");
  expectRefused(frameOfBytes(hex("d8 1b 82 78 c8") + Bytes(200, 'A') + hex("00")),
                "holds an object of class " + std::string(128, 'A') + "…, which is not known here");
}

TEST(ValueTags, AnErrorMustBeWhole) {
  const auto error = [](const char* rest) { return hex(kErrorHead) + hex(rest); };
  EXPECT_EQ(decodeBytes(error("61 64 02 a0")).value, NSObject(NSError::errorWithDomain("d", 2, nil)));
  EXPECT_EQ(decodeBytes(error("61 64 3b 7fffffffffffffff a0")).outcome, Outcome::value);
  expectBrokenTag(error("02 02 a0"), "the domain of an error");
  expectBrokenTag(error("61 ff 02 a0"), "not UTF-8");
  expectBrokenTag(error("61 64 61 32 a0"), "no signed number");
  expectBrokenTag(error("61 64 fb 3ff0000000000000 a0"), "no signed number");
  expectBrokenTag(error("61 64 1b 8000000000000000 a0"), "no signed number");
  expectBrokenTag(error("61 64 3b 8000000000000000 a0"), "no signed number");
  expectBrokenTag(error("61 64 d9 ead5 02 a0"), "no signed number");
  expectBrokenTag(error("61 64 02 80"), "the user info of an error");
  expectBrokenTag(error("61 64 02 a2 00 00 00 00"), "comes twice");
  expectBrokenTag(hex("d8 1b 83 67 4e534572726f72 61 64 02"), "an error of 3 items, not 4");
  expectBrokenTag(hex("d8 1b 85 67 4e534572726f72 61 64 02 a0 00"), "an error of 5 items, not 4");
}

TEST(ValueTags, AnErrorNeedsItsClassAndThoseInItsUserInfoButNoMore) {
  const NSSet errors{NSError::classObject()};
  EXPECT_EQ(decode(frameOf(NSError::errorWithDomain("d", 1, nil)), only(errors)).outcome, Outcome::value);
  expectRefused(frameOf(NSError::errorWithDomain("d", 1, {{"k", "v"}})),
                "holds an object of class NSString, which is not allowed here (allowed: NSError)", only(errors));
  const NSSet both{NSError::classObject(), NSString::classObject()};
  EXPECT_EQ(decode(frameOf(NSError::errorWithDomain("d", 1, {{"k", "v"}})), only(both)).outcome, Outcome::value);
  expectRefused(frameOf(NSError::errorWithDomain("d", 1, nil)),
                "holds an object of class NSError, which is not allowed here (allowed: NSString)",
                only(NSSet{NSString::classObject()}));
}

TEST(ValueTags, AUsersClassNeedsToBeAdmittedAndSoDoItsContents) {
  const Frame frame = frameOf(Point::at(1, 2));
  expectRefused(frame, "holds an object of class WirePoint, which is not allowed here (allowed: NSArray, NSNumber)",
                only(NSSet{NSArray::classObject(), NSNumber::classObject()}));
  expectRefused(frame, "holds an object of class NSNumber, which is not allowed here (allowed: NSArray, WirePoint)",
                only(NSSet{NSArray::classObject(), Point::classObject()}));
  const NSSet needed{NSArray::classObject(), NSNumber::classObject(), Point::classObject()};
  EXPECT_EQ(decode(frame, only(needed)).value, NSObject(Point::at(1, 2)));
}

TEST(ValueTags, AUsersClassThatRefusesItsContentsIsRefused) {
  Point::classObject();
  const std::string reason = "holds an object of class WirePoint that cannot be made from what it contains";
  expectRefused(frameOfBytes(hex(kPointHead) + hex("81 01")), reason);
  expectRefused(frameOfBytes(hex("82 00") + hex(kPointHead) + hex("60")), reason);
}

TEST(ValueTags, AUsersClassHasOneItemOfContents) {
  Point::classObject();
  expectBrokenTag(hex("d8 1b 83 69 57697265506f696e74 82 01 02 00"), "in 3 items, not 2");
  expectBrokenTag(hex(kPointHead), "truncated");
}

TEST(ValueTags, ADecodingThatRaisesIsRefusedAndTheNextItemIsRead) {
  const Class raising = newClass("RaisesOnArrival", NSObject::classObject());
  registerClassCoding(raising, {nullptr, [](const NSObject&) -> NSObject { throw NSException("Oops", "not today"); }});
  const Frame frame = frameOfBytes(hex("82 05 d8 1b 82 6f 5261697365734f6e4172726976616c 83 01 02 03 07"));
  ValueDecoder decoder(frame);
  NSObject value;
  const ClassSet all(NSSet{NSObject::classObject()});
  EXPECT_EQ(decoder.next(all, value), Outcome::refused);
  EXPECT_EQ(decoder.reason(), "could not be decoded: not today");
  EXPECT_EQ(decoder.nextUnsigned(), 7u);
}

TEST(ValueTags, ADecodingThatGivesAnotherClassIsRefused) {
  const Class liar = newClass("LiesOnArrival", NSObject::classObject());
  registerClassCoding(liar, {nullptr, [](const NSObject&) -> NSObject { return "a string"; }});
  expectRefused(frameOfBytes(hex("d8 1b 82 6d 4c6965734f6e4172726976616c 00")),
                "holds an object of class LiesOnArrival that cannot be made from what it contains",
                only(NSSet{NSObject::classObject()}));
}

class PortFrames : public ::testing::Test {
 protected:
  Frame frame(const char* indices, std::vector<system::SharedDescriptor> descriptors) {
    Frame made = frameOfBytes(hex(kPortHead) + hex(indices));
    made.descriptors = std::move(descriptors);
    return made;
  }
  void TearDown() override { EXPECT_EQ(velto::testing::openDescriptors(), before_); }

 private:
  // A class is registered when it is first asked for.
  const Class port_ = Port::classObject();
  const std::size_t before_ = velto::testing::openDescriptors();
};

TEST_F(PortFrames, DescriptorsAreTakenByIndex) {
  const auto first = newPipe(), second = newPipe();
  const Decoded decoded = decode(frame("82 01 00", {first, second}));
  ASSERT_EQ(decoded.outcome, Outcome::value) << decoded.reason;
  EXPECT_EQ(decoded.value.as<Port>().descriptors(), (std::vector<system::SharedDescriptor>{second, first}));
}

TEST_F(PortFrames, DescriptorsThatNoValueNamesStayWithTheFrame) {
  Frame made = frame("81 00", {newPipe(), newPipe()});
  EXPECT_EQ(decode(made).outcome, Outcome::value);
  EXPECT_EQ(made.descriptors.size(), 2u);
}

TEST_F(PortFrames, ADescriptorThatIsNotThereIsBroken) {
  const Decoded none = decode(frame("81 00", {}));
  EXPECT_EQ(none.outcome, Outcome::broken);
  EXPECT_EQ(none.reason, "descriptor 0 of a frame that carries 0");
  EXPECT_EQ(decode(frame("81 01", {newPipe()})).outcome, Outcome::broken);
  EXPECT_EQ(decode(frame("81 1b ffffffffffffffff", {newPipe()})).outcome, Outcome::broken);
}

TEST_F(PortFrames, ADescriptorThatIsNamedTwiceIsBroken) {
  const Decoded decoded = decode(frame("82 00 00", {newPipe()}));
  EXPECT_EQ(decoded.outcome, Outcome::broken);
  EXPECT_EQ(decoded.reason, "descriptor 0 named twice");
  Frame twice = frameOfBytes(hex("82") + hex(kPortHead) + hex("81 00") + hex(kPortHead) + hex("81 00"));
  twice.descriptors = {newPipe()};
  EXPECT_EQ(decode(twice).outcome, Outcome::broken);
}

TEST_F(PortFrames, IndicesThatAreNoNumbersAreBroken) {
  for (const char* indices : {"00", "81 20", "81 60", "81 81 00", "a1 00 00", "81 f7", "81", "9a 80000000 00"}) {
    EXPECT_EQ(decode(frame(indices, {newPipe()})).outcome, Outcome::broken) << indices;
  }
}

TEST_F(PortFrames, ADescriptorOfTheWrongKindIsRefused) {
  const auto file = std::make_shared<const system::Descriptor>(system::Descriptor(::open("/dev/null", O_RDONLY)));
  expectRefused(frame("81 00", {file}), "holds a port that is no pipe");
}

TEST_F(PortFrames, NoDescriptorsAtAllAreRefused) {
  expectRefused(frame("80", {}), "holds an object of class WirePort whose descriptors are not what they should be");
}

TEST_F(PortFrames, TheClassMustBeAdmitted) {
  expectRefused(frame("81 00", {newPipe()}),
                "holds an object of class WirePort, which is not allowed here (allowed: NSArray)",
                only(NSSet{NSArray::classObject()}));
}

TEST_F(PortFrames, ARefusedFrameGivesItsDescriptorsBack) {
  Frame made = frameOfBytes(hex("82") + hex(kPortHead) + hex("81 00 c9 00"));
  made.descriptors = {newPipe()};
  EXPECT_EQ(decode(made).outcome, Outcome::refused);
}

TEST_F(PortFrames, TheMostDescriptorsPass) {
  std::vector<system::SharedDescriptor> most(limits::kMaximumDescriptors);
  for (auto& each : most) each = newPipe();
  const Frame made = frameOf(NSArray{Port::with(most)});
  const Decoded decoded = decode(made);
  ASSERT_EQ(decoded.outcome, Outcome::value) << decoded.reason;
  EXPECT_EQ(decoded.value[0].as<Port>().descriptors(), most);
}

}  // namespace
}  // namespace velto::wire
