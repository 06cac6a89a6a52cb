#include "platform/xpc/wire/ValueEncoder.h"

#include <functional>

#include <gtest/gtest.h>

#include "platform/xpc/contract/Limits.h"
#include "platform/xpc/testing/Support.h"
#include "platform/xpc/testing/WireTesting.h"

namespace velto::wire {
namespace {

using namespace testing;

const char* const kTooDeep = "exceeds a limit: levels of nesting: 129 or more, maximum 128";
const char* const kTooMany = "exceeds a limit: objects: 2097153 or more, maximum 2097152";

Bytes bytesOf(const NSObject& value) {
  return frameOf(value).body;
}

NSObject nestedArrays(std::size_t levels) {
  NSArray nested = NSArray::array();
  for (std::size_t level = 1; level < levels; ++level) nested = NSArray::arrayWithObjects({nested});
  return nested;
}

// An object of any class, with nothing in it.
class StubbornBody final : public ObjectBody {
 public:
  explicit StubbornBody(const Class& aClass) : class_(aClass) {}
  const ClassBody& classBody() const override { return *class_.classBody(); }

 private:
  const Class class_;
};
class Stubborn : public NSObject {
 public:
  explicit Stubborn(const Class& aClass) : NSObject(new StubbornBody(aClass)) {}
};

Class classWithCoding(const char* name, std::function<NSObject(const NSObject&)> encode) {
  const Class made = newClass(name, NSObject::classObject());
  registerClassCoding(made, {std::move(encode), nullptr});
  return made;
}

class NamedPointBody final : public PointBody {
 public:
  explicit NamedPointBody(const Class& aClass) : PointBody(3, 4), class_(aClass) {}
  const ClassBody& classBody() const override { return *class_.classBody(); }

 private:
  const Class class_;
};
class NamedPoint final : public Point {
 public:
  explicit NamedPoint(const Class& aClass) : Point(new NamedPointBody(aClass)) {}
};

TEST(ValueEncoder, EachValueHasTheBytesThatTheDocumentGives) {
  EXPECT_EQ(bytesOf(nil), hex("f7"));
  EXPECT_EQ(bytesOf(NSNull::null()), hex("f6"));
  EXPECT_EQ(bytesOf(true), hex("f5"));
  EXPECT_EQ(bytesOf(5), hex("05"));
  EXPECT_EQ(bytesOf(-5), hex("24"));
  EXPECT_EQ(bytesOf(5u), hex("d9 ead5 05"));
  EXPECT_EQ(bytesOf(UINT64_MAX), hex("1b ffffffffffffffff"));
  EXPECT_EQ(bytesOf(1.0), hex("fb 3ff0000000000000"));
  EXPECT_EQ(bytesOf("hé"), hex("63 68c3a9"));
  EXPECT_EQ(bytesOf(NSData(Bytes{1, 2})), hex("42 0102"));
  EXPECT_EQ(bytesOf(NSArray{1, "a"}), hex("82 01 61 61"));
  EXPECT_EQ(bytesOf(NSDictionary{{"a", 1}, {2, false}}), hex("a2 61 61 01 02 f4"));
  EXPECT_EQ(bytesOf(NSSet{1}), hex("d9 0102 81 01"));
  EXPECT_EQ(bytesOf(NSDate::dateWithTimeIntervalSince1970(1.5)), hex("c1 fb 3ff8000000000000"));
  EXPECT_EQ(bytesOf(NSURL::URLWithString("a:b")), hex("d8 20 63 613a62"));
  EXPECT_EQ(bytesOf(NSUUID::UUIDWithString("00010203-0405-0607-0809-0A0B0C0D0E0F")),
            hex("d8 25 50 000102030405060708090a0b0c0d0e0f"));
  EXPECT_EQ(bytesOf(NSError::errorWithDomain("d", -2, {{"k", "v"}})),
            hex("d8 1b 84 67 4e534572726f72 61 64 21 a1 61 6b 61 76"));
  EXPECT_EQ(bytesOf(Point::at(1, 2)), hex("d8 1b 82 69 57697265506f696e74 82 01 02"));
}

TEST(ValueEncoder, MutableValuesTravelLikeImmutableOnes) {
  NSMutableArray array = NSMutableArray::array();
  array.addObject(NSMutableString::stringWithString("a"));
  NSMutableDictionary dictionary = NSMutableDictionary::dictionary();
  dictionary.setObject(NSMutableData::dataWithData(NSData(Bytes{7})), "k");
  NSMutableSet set = NSMutableSet::set();
  set.addObject(1);
  EXPECT_EQ(bytesOf(array), bytesOf(NSArray{"a"}));
  EXPECT_EQ(bytesOf(dictionary), bytesOf(NSDictionary{{"k", NSData(Bytes{7})}}));
  EXPECT_EQ(bytesOf(set), bytesOf(NSSet{1}));
}

TEST(ValueEncoder, ADictionaryWithRemovedEntriesTravelsWithoutThem) {
  NSMutableDictionary dictionary = NSMutableDictionary::dictionary();
  for (int key = 0; key < 20; ++key) dictionary.setObject(key, key);
  for (int key = 0; key < 20; key += 2) dictionary.removeObjectForKey(key);
  EXPECT_EQ(decode(frameOf(dictionary)).value, NSObject(dictionary));
}

TEST(ValueEncoder, AClassObjectCannotTravel) {
  EXPECT_EQ(whyNot(NSString::classObject()), "holds an object of class Class, which cannot travel");
  EXPECT_EQ(whyNot(NSArray{Point::classObject()}), "holds an object of class Class, which cannot travel");
}

TEST(ValueEncoder, AnUnregisteredClassFailsByNameAtAnyDepth) {
  const Stubborn stubborn(newClass("Stubborn", NSObject::classObject()));
  const std::string expected = "holds an object of class Stubborn, which cannot travel";
  EXPECT_EQ(whyNot(stubborn), expected);
  EXPECT_EQ(whyNot(NSArray{1, NSDictionary{{"k", NSSet{stubborn}}}}), expected);
  EXPECT_EQ(whyNot(NSDictionary{{stubborn, 1}}), expected);
}

TEST(ValueEncoder, AnotherClassUnderARegisteredNameDoesNotTravel) {
  Point::classObject();
  const Stubborn impostor(newClass("WirePoint", NSObject::classObject()));
  EXPECT_EQ(whyNot(impostor), "holds an object of class WirePoint, which cannot travel");
}

TEST(ValueEncoder, AnUnregisteredSubclassTravelsAsTheRegisteredClassAboveIt) {
  const NamedPoint point(newClass("NamedWirePoint", Point::classObject()));
  EXPECT_EQ(bytesOf(point), bytesOf(Point::at(3, 4)));
}

TEST(ValueEncoder, ACodingThatGivesNothingFails) {
  const Stubborn silent(classWithCoding("Silent", [](const NSObject&) -> NSObject { return nil; }));
  EXPECT_EQ(whyNot(silent), "holds an object of class Silent, which its coding refused");
}

TEST(ValueEncoder, ACodingThatRaisesFails) {
  const Stubborn raising(
      classWithCoding("Raising", [](const NSObject&) -> NSObject { throw NSException("Oops", "no point in this"); }));
  EXPECT_EQ(whyNot(NSArray{raising}), "could not be encoded: no point in this");
}

TEST(ValueEncoder, ACodingThatGivesItsOwnObjectMeetsTheDepthLimit) {
  const Stubborn endless(classWithCoding("Endless", [](const NSObject& object) { return object; }));
  EXPECT_EQ(whyNot(endless), kTooDeep);
}

TEST(ValueEncoder, AContainerThatIsChangedWhileItIsEncodedFails) {
  NSMutableArray array = NSMutableArray::array();
  array.addObject(Stubborn(classWithCoding("Meddling", [&array](const NSObject&) -> NSObject {
    array.addObject(1);
    return 1;
  })));
  array.addObject(2);
  EXPECT_TRUE(contains(whyNot(array), "could not be encoded: ")) << whyNot(array);

  NSMutableDictionary dictionary = NSMutableDictionary::dictionary();
  dictionary.setObject(Stubborn(classWithCoding("Emptying",
                                                [&dictionary](const NSObject&) -> NSObject {
                                                  dictionary.removeAllObjects();
                                                  return 1;
                                                })),
                       "k");
  EXPECT_NE(whyNot(dictionary), "");
}

TEST(ValueEncoder, TheDeepestValuePassesAndOneLevelMoreDoesNot) {
  EXPECT_EQ(whyNot(nestedArrays(limits::kMaximumDepth)), "");
  EXPECT_EQ(whyNot(nestedArrays(limits::kMaximumDepth + 1)), kTooDeep);
  EXPECT_EQ(whyNot(nestedArrays(limits::kMaximumDepth)), "");
}

TEST(ValueEncoder, TheDepthIsCountedForEachValueAnew) {
  ValueEncoder encoder(FrameType::call);
  for (int count = 0; count < 3; ++count) encoder.add(nestedArrays(limits::kMaximumDepth));
  EXPECT_FALSE(encoder.failed()) << encoder.reason();
}

TEST(ValueEncoder, EveryKindOfContainerCountsAsALevel) {
  const NSObject deepest = nestedArrays(limits::kMaximumDepth);
  EXPECT_EQ(whyNot(NSDictionary{{"k", deepest}}), kTooDeep);
  EXPECT_EQ(whyNot(NSSet{deepest}), kTooDeep);
  EXPECT_EQ(whyNot(NSError::errorWithDomain("d", 1, {{"k", deepest}})), kTooDeep);
  EXPECT_EQ(whyNot(Stubborn(classWithCoding("Wrapping", [deepest](const NSObject&) { return deepest; }))), kTooDeep);
}

TEST(ValueEncoder, AMillionNestedArraysFail) {
  EXPECT_EQ(whyNot(nestedArrays(1'000'000)), kTooDeep);
}

TEST(ValueEncoder, AContainerThatHoldsItselfFails) {
  NSMutableArray array = NSMutableArray::array();
  array.addObject(array);
  EXPECT_EQ(whyNot(array), kTooDeep);
  array.removeAllObjects();
  NSMutableDictionary dictionary = NSMutableDictionary::dictionary();
  dictionary.setObject(dictionary, "self");
  EXPECT_EQ(whyNot(dictionary), kTooDeep);
  dictionary.removeAllObjects();
}

TEST(ValueEncoder, ExponentiallySharedContainersFail) {
  NSArray shared{1};
  for (int level = 0; level < 40; ++level) shared = NSArray{shared, shared};
  EXPECT_EQ(whyNot(shared), kTooMany);
}

TEST(ValueEncoder, TheMostObjectsPassAndOneMoreDoesNot) {
  std::vector<NSObject> most(limits::kMaximumObjects - 1, NSNull::null());
  EXPECT_EQ(whyNot(NSArray::arrayWithObjects(most)), "");
  most.push_back(NSNull::null());
  EXPECT_EQ(whyNot(NSArray::arrayWithObjects(most)), kTooMany);
}

TEST(ValueEncoder, TheGreatestFramePassesAndOneByteMoreDoesNot) {
  const std::size_t head = 5;
  const Frame frame = frameOf(NSData(Bytes(limits::kMaximumFrameBytes - head, 1)));
  EXPECT_EQ(frame.body.size(), limits::kMaximumFrameBytes);
  ValueEncoder encoder(FrameType::call);
  encoder.add(NSString(std::string(limits::kMaximumFrameBytes - head + 1, 'x')));
  EXPECT_TRUE(encoder.exceededLimit());
  EXPECT_EQ(encoder.reason(), "exceeds a limit: bytes of a frame: 16777217 or more, maximum 16777216");
}

TEST(ValueEncoder, ValuesTogetherAreBoundedToo) {
  const NSString half = NSString(std::string(limits::kMaximumFrameBytes / 2, 'x'));
  ValueEncoder encoder(FrameType::call);
  encoder.add(half);
  EXPECT_FALSE(encoder.failed());
  encoder.add(half);
  EXPECT_TRUE(contains(encoder.reason(), "bytes of a frame")) << encoder.reason();
}

TEST(ValueEncoder, ItemsOfTheProtocolAreBoundedLikeValues) {
  for (int which = 0; which < 4; ++which) {
    ValueEncoder encoder(FrameType::call);
    encoder.add(NSData(Bytes(limits::kMaximumFrameBytes - 5, 1)));
    ASSERT_FALSE(encoder.failed());
    if (which == 0) encoder.addUnsigned(1);
    if (which == 1) encoder.addBool(true);
    if (which == 2) encoder.addText("");
    if (which == 3) encoder.add(nil);
    EXPECT_TRUE(encoder.exceededLimit()) << which;
  }
}

TEST(ValueEncoder, AfterAFailureEverythingIsSkippedAndTheFirstReasonStays) {
  ValueEncoder encoder(FrameType::call);
  encoder.fail("first");
  encoder.add(NSString::classObject());
  encoder.addUnsigned(1);
  encoder.addBool(true);
  encoder.addText("text");
  encoder.fail("second");
  EXPECT_TRUE(encoder.failed());
  EXPECT_FALSE(encoder.exceededLimit());
  EXPECT_EQ(encoder.reason(), "first");
}

TEST(ValueEncoder, DescriptorsTravelBesideTheFrameInOrder) {
  const auto first = newPipe(), second = newPipe(), third = newPipe();
  const Frame frame = frameOf(NSArray{Port::with({first, second}), Port::with({third})});
  EXPECT_EQ(frame.descriptors, (std::vector<system::SharedDescriptor>{first, second, third}));
  const Bytes name = hex("68 57697265506f7274");
  EXPECT_EQ(frame.body, hex("82 d8 1b 82") + name + hex("82 00 01 d8 1b 82") + name + hex("81 02"));
}

TEST(ValueEncoder, AnObjectWithoutADescriptorFails) {
  EXPECT_EQ(whyNot(Port::with({})), "holds an object of class WirePort, which has no descriptor");
}

TEST(ValueEncoder, TheMostDescriptorsPassAndOneMoreDoesNot) {
  const std::size_t before = velto::testing::openDescriptors();
  {
    const Port one = Port::with({newPipe()});
    ValueEncoder encoder(FrameType::call);
    for (std::size_t count = 0; count < limits::kMaximumDescriptors; ++count) encoder.add(one);
    EXPECT_FALSE(encoder.failed()) << encoder.reason();
    encoder.add(one);
    EXPECT_TRUE(encoder.exceededLimit());
    EXPECT_EQ(encoder.reason(), "exceeds a limit: descriptors: 65 or more, maximum 64");
    EXPECT_EQ(frameOf(one).descriptors.size(), 1u);
  }
  EXPECT_EQ(velto::testing::openDescriptors(), before);
}

Frame encodedInPieces(const NSObject& value) {
  ValueEncoder encoder(FrameType::call);
  encoder.add(value);
  EXPECT_FALSE(encoder.failed()) << encoder.reason();
  return encoder.take();
}

TEST(ValueEncoder, LongDataAndTextAreSentFromWhereTheyAre) {
  const NSData data(Bytes(1 << 20, 7));
  const NSString text(std::string(1 << 20, 't'));
  const Frame frame = encodedInPieces(NSArray{1, data, text, 2});
  ASSERT_EQ(frame.enclosures.size(), 2U);
  EXPECT_EQ(frame.enclosures[0].bytes.data(), data.bytes());
  EXPECT_EQ(frame.enclosures[0].bytes.size(), data.length());
  EXPECT_EQ(static_cast<const void*>(frame.enclosures[1].bytes.data()), text.view().data());
  EXPECT_LT(frame.body.size(), 20U);
  EXPECT_EQ(frame.size(), frame.body.size() + (2 << 20));
  EXPECT_EQ(decode(velto::testing::inOnePiece(frame)).value, (NSArray{1, data, text, 2}));
}

TEST(ValueEncoder, WhatCanChangeAndWhatIsLentIsCopied) {
  const Bytes bytes(1 << 20, 7);
  auto changing = NSMutableData::dataWithData(NSData(bytes));
  auto text = NSMutableString::stringWithString(NSString(std::string(1 << 20, 't')));
  bool isGivenBack = false;
  NSData lent = NSData::dataWithBytesNoCopy(bytes.data(), bytes.size(), [&isGivenBack] { isGivenBack = true; });
  const Frame frame = encodedInPieces(NSArray{changing, text, lent});
  EXPECT_TRUE(frame.enclosures.empty());
  lent = nil;
  EXPECT_TRUE(isGivenBack);
  changing.mutableBytes()[0] = 8;
  EXPECT_EQ(decode(frame).value[0], NSData(bytes));
}

}  // namespace
}  // namespace velto::wire
