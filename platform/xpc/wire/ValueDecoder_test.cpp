#include "platform/xpc/wire/ValueDecoder.h"

#include <stdexcept>

#include <gtest/gtest.h>

#include "platform/xpc/contract/Limits.h"
#include "platform/xpc/testing/WireTesting.h"

namespace velto::wire {
namespace {

using namespace testing;

const char* const kNestsTooDeep = "exceeds a limit: levels of nesting: 129 or more, maximum 128";

void expectBroken(const Bytes& bytes, const char* reason, const ClassSet& admitted = everything()) {
  const Decoded decoded = decodeBytes(bytes, admitted);
  EXPECT_EQ(decoded.outcome, Outcome::broken);
  EXPECT_TRUE(contains(decoded.reason, reason)) << decoded.reason;
  EXPECT_TRUE(decoded.value.isNil());
}

// Refused, and the item behind it is read.
void expectRefused(const Bytes& bytes, const std::string& reason, const ClassSet& admitted = everything()) {
  const Frame frame = frameOfBytes(bytes + hex("63 616263"));
  const ClassSet strings(NSSet{NSString::classObject()});
  ValueDecoder decoder(frame);
  NSObject value = "left from before";
  EXPECT_EQ(decoder.next(admitted, value), Outcome::refused) << decoder.reason();
  EXPECT_EQ(decoder.reason(), reason);
  EXPECT_TRUE(value.isNil());
  EXPECT_EQ(decoder.next(strings, value), Outcome::value) << decoder.reason();
  EXPECT_EQ(value, NSObject("abc"));
  EXPECT_TRUE(decoder.atEnd());
}

Bytes nested(std::size_t levels) {
  return repeated(hex("81"), levels - 1) + hex("80");
}

Bytes twoBytes(unsigned number) {
  return {static_cast<std::uint8_t>(number >> 8), static_cast<std::uint8_t>(number & 0xFF)};
}

TEST(ValueDecoder, NilIsAdmittedByEverySet) {
  EXPECT_EQ(decodeBytes(hex("f7"), ClassSet()).outcome, Outcome::value);
}

TEST(ValueDecoder, NilInsideAContainerIsBroken) {
  Point::classObject();
  for (const char* bytes : {"81 f7", "a1 f7 00", "a1 00 f7", "d9 0102 81 f7", "d8 1b 82 69 57697265506f696e74 f7",
                            "d8 1b 84 67 4e534572726f72 60 00 a1 00 f7"}) {
    expectBroken(hex(bytes), "nil inside a container");
  }
}

TEST(ValueDecoder, AClassOutsideTheSetIsRefusedByNameWithWhatIsAllowed) {
  const ClassSet some(NSSet{NSString::classObject(), NSArray::classObject()});
  const std::string allowed = ", which is not allowed here (allowed: NSArray, NSString)";
  expectRefused(hex("05"), "holds an object of class NSNumber" + allowed, some);
  expectRefused(hex("f5"), "holds an object of class NSNumber" + allowed, some);
  expectRefused(hex("fb 3ff0000000000000"), "holds an object of class NSNumber" + allowed, some);
  expectRefused(hex("f6"), "holds an object of class NSNull" + allowed, some);
  expectRefused(hex("40"), "holds an object of class NSData" + allowed, some);
  expectRefused(hex("a0"), "holds an object of class NSDictionary" + allowed, some);
  expectRefused(hex("82 61 61 82 60 a1 01 02"), "holds an object of class NSDictionary" + allowed, some);
}

TEST(ValueDecoder, AnEmptySetAdmitsNoObject) {
  expectRefused(hex("60"), "holds an object of class NSString, which is not allowed here (allowed: none)", ClassSet());
}

TEST(ValueDecoder, ObjectsAreCheckedInEveryPosition) {
  NSMutableSet allButNumbers = NSMutableSet::initWithSet(valueClasses());
  allButNumbers.removeObject(NSNumber::classObject());
  allButNumbers.addObject(Point::classObject());
  const ClassSet admitted(allButNumbers);
  for (const NSObject& value :
       {NSObject(NSArray{"a", 1}), NSObject(NSDictionary{{1, "a"}}), NSObject(NSDictionary{{"a", 1}}),
        NSObject(NSSet{1}), NSObject(NSError::errorWithDomain("d", 1, {{"k", 1}})), NSObject(Point::at(1, 2)),
        NSObject(NSArray{NSArray{NSArray{1}}})}) {
    const Decoded decoded = decode(frameOf(value), admitted);
    EXPECT_EQ(decoded.outcome, Outcome::refused) << value.description().view();
    EXPECT_TRUE(contains(decoded.reason, "class NSNumber, which is not allowed")) << decoded.reason;
  }
}

TEST(ValueDecoder, TheSuperclassOfAllAdmitsEveryValue) {
  const ClassSet all(NSSet{NSObject::classObject()});
  EXPECT_EQ(decode(frameOf(NSArray{1, "a", Point::at(1, 2)}), all).outcome, Outcome::value);
}

TEST(ValueDecoder, DuplicateKeysAreBroken) {
  expectBroken(hex("a2 61 61 01 61 61 02"), "comes twice");
  expectBroken(hex("81 a3 01 01 02 02 01 03"), "comes twice");
  expectBroken(hex("a2 01 00 fb 3ff0000000000000 00"), "comes twice");
  expectBroken(hex("a2 81 01 00 81 01 00"), "comes twice");
  EXPECT_EQ(decodeBytes(hex("a2 01 00 61 31 00")).outcome, Outcome::value);
}

TEST(ValueDecoder, InvalidUtf8IsBroken) {
  for (const char* bytes : {"61 ff", "62 c080", "63 eda080", "64 f4908080", "61 c3", "62 e282", "a1 61 ff 00"}) {
    expectBroken(hex(bytes), "not UTF-8");
  }
  // Also where nobody wants the text, or the value that it is in.
  expectBroken(hex("61 ff"), "not UTF-8", ClassSet());
  expectBroken(hex("82 00 61 ff"), "not UTF-8", ClassSet());
}

TEST(ValueDecoder, IntegersThatSixtyFourBitsCannotHoldAreBroken) {
  EXPECT_EQ(decodeBytes(hex("3b 7fffffffffffffff")).value, NSObject(INT64_MIN));
  expectBroken(hex("3b 8000000000000000"), "an integer below the least of 64 bits");
  expectBroken(hex("3b ffffffffffffffff"), "an integer below the least of 64 bits");
}

TEST(ValueDecoder, FloatsOfEveryLengthAreDoubles) {
  for (const char* bytes : {"f9 3e00", "fa 3fc00000", "fb 3ff8000000000000"}) {
    const Decoded decoded = decodeBytes(hex(bytes));
    EXPECT_EQ(decoded.value, NSObject(1.5));
    EXPECT_EQ(decoded.value.as<NSNumber>().kind(), NSNumber::Kind::floatingPoint);
  }
}

TEST(ValueDecoder, TheDeepestValuePassesAndOneLevelMoreIsOnlyRefused) {
  EXPECT_EQ(decodeBytes(nested(limits::kMaximumDepth)).outcome, Outcome::value);
  expectRefused(nested(limits::kMaximumDepth + 1), kNestsTooDeep);
  expectRefused(nested(1'000'000), kNestsTooDeep);
}

TEST(ValueDecoder, EveryKindOfContainerCountsAsALevel) {
  Point::classObject();
  const Bytes deepest = nested(limits::kMaximumDepth);
  expectRefused(hex("81") + deepest, kNestsTooDeep);
  expectRefused(hex("a1 00") + deepest, kNestsTooDeep);
  expectRefused(hex("a1") + deepest + hex("00"), kNestsTooDeep);
  expectRefused(hex("d9 0102 81") + deepest, kNestsTooDeep);
  expectRefused(hex("d8 1b 84 67 4e534572726f72 60 00 a1 00") + deepest, kNestsTooDeep);
  expectRefused(hex("d8 1b 82 69 57697265506f696e74") + deepest, kNestsTooDeep);
}

TEST(ValueDecoder, AMillionNestedArraysWithoutAnEndAreBroken) {
  expectBroken(repeated(hex("81"), 1'000'000), "truncated");
}

TEST(ValueDecoder, TheMostObjectsPassAndOneMoreIsRefused) {
  const auto arrayOf = [](std::size_t count) {
    Bytes head = hex("9a 00000000");
    for (unsigned index = 0; index < 4; ++index) head[4 - index] = static_cast<std::uint8_t>(count >> (8 * index));
    return head + Bytes(count, 0);
  };
  EXPECT_EQ(decodeBytes(arrayOf(limits::kMaximumObjects - 1)).outcome, Outcome::value);
  const Decoded over = decodeBytes(arrayOf(limits::kMaximumObjects));
  EXPECT_EQ(over.outcome, Outcome::refused);
  EXPECT_EQ(over.reason, "exceeds a limit: objects: 2097153 or more, maximum 2097152");
  EXPECT_EQ(decodeBytes(arrayOf(10)).outcome, Outcome::value);
}

TEST(ValueDecoder, KeysThatMustAllBeComparedAreBounded) {
  // What an array holds beyond its first sixteen elements does not show in its hash. Each key costs nineteen, against
  // each of the others.
  const auto setOf = [](unsigned count) {
    Bytes bytes = hex("d9 0102 99") + twoBytes(count);
    for (unsigned key = 0; key < count; ++key) {
      bytes = std::move(bytes) + hex("91") + Bytes(16, 0) + hex("19") + twoBytes(key);
    }
    return bytes;
  };
  const unsigned most = 1879;
  static_assert(19ULL * most * (most - 1) <= limits::kMaximumKeyComparisons);
  static_assert(19ULL * (most + 1) * most > limits::kMaximumKeyComparisons);
  const Decoded atLimit = decodeBytes(setOf(most));
  EXPECT_EQ(atLimit.outcome, Outcome::value) << atLimit.reason;
  EXPECT_EQ(atLimit.value.count(), most);
  const Decoded over = decodeBytes(setOf(most + 1));
  EXPECT_EQ(over.outcome, Outcome::refused);
  EXPECT_EQ(over.reason, "exceeds a limit: comparisons of keys: 67117880 or more, maximum 67108864");
  EXPECT_EQ(decodeBytes(setOf(10)).outcome, Outcome::value);
}

TEST(ValueDecoder, ItemsOfTheProtocolAreReadInOrder) {
  const Frame frame = frameOfBytes(hex("18 2a f5 62 6f6b"));
  ValueDecoder decoder(frame);
  EXPECT_EQ(decoder.nextUnsigned(), 42u);
  EXPECT_EQ(decoder.nextBool(), true);
  EXPECT_FALSE(decoder.atEnd());
  EXPECT_EQ(decoder.nextText(2), "ok");
  EXPECT_TRUE(decoder.atEnd());
}

TEST(ValueDecoder, AnotherItemThanTheProtocolsIsBroken) {
  for (const char* bytes : {"", "20", "f4", "60", "40", "80", "a0", "c1 fb 0000000000000000", "f6", "f7", "1c"}) {
    const Frame frame = frameOfBytes(hex(bytes));
    ValueDecoder decoder(frame);
    EXPECT_FALSE(decoder.nextUnsigned()) << bytes;
    EXPECT_FALSE(decoder.reason().empty());
    EXPECT_FALSE(decoder.atEnd());
  }
  const Frame number = frameOfBytes(hex("01"));
  EXPECT_FALSE(ValueDecoder(number).nextBool());
  EXPECT_FALSE(ValueDecoder(number).nextText(10));
}

TEST(ValueDecoder, ATextThatIsTooLongIsBroken) {
  const Frame frame = frameOfBytes(hex("63 616263"));
  ValueDecoder decoder(frame);
  EXPECT_FALSE(decoder.nextText(2));
  EXPECT_EQ(decoder.reason(), "bytes of a text: 3, maximum 2");
}

TEST(ValueDecoder, AfterBrokenBytesNothingIsRead) {
  const Frame frame = frameOfBytes(hex("ff 01 f5 61 61"));
  ValueDecoder decoder(frame);
  NSObject value;
  EXPECT_EQ(decoder.next(everything(), value), Outcome::broken);
  const std::string reason = decoder.reason();
  EXPECT_EQ(decoder.next(everything(), value), Outcome::broken);
  EXPECT_FALSE(decoder.nextUnsigned());
  EXPECT_FALSE(decoder.nextBool());
  EXPECT_FALSE(decoder.nextText(9));
  EXPECT_FALSE(decoder.atEnd());
  EXPECT_EQ(decoder.reason(), reason);
}

TEST(ValueDecoder, ReadingPastTheEndIsBroken) {
  const Frame frame = frameOfBytes(hex("01"));
  ValueDecoder decoder(frame);
  NSObject value;
  EXPECT_EQ(decoder.next(everything(), value), Outcome::value);
  EXPECT_TRUE(decoder.atEnd());
  EXPECT_EQ(decoder.next(everything(), value), Outcome::broken);
}

TEST(ValueDecoder, TrailingBytesAreSeen) {
  const Decoded decoded = decodeBytes(hex("01 02"));
  EXPECT_EQ(decoded.outcome, Outcome::value);
  EXPECT_FALSE(decoded.atEnd);
}

bool liesIn(const Frame& frame, const NSObject& data) {
  const std::uint8_t* const bytes = data.as<NSData>().bytes();
  return bytes >= frame.body.data() && bytes < frame.body.data() + frame.body.size();
}

TEST(ValueDecoder, DataThatIsMostOfItsFrameStaysInIt) {
  const NSData sent(Bytes(1 << 20, 7));
  NSObject received;
  {
    const Frame frame = frameOf(NSDictionary{{"data", sent}, {"more", 1}});
    received = decode(frame).value["data"];
    EXPECT_TRUE(liesIn(frame, received));
  }
  EXPECT_EQ(received, sent);
}

TEST(ValueDecoder, DataThatIsASmallPartOfItsFrameKeepsNothingElse) {
  const NSData small(Bytes(20'000, 7));
  const Frame frame = frameOf(NSArray{small, NSData(Bytes(100'000, 8)), NSData(Bytes(100, 9))});
  const NSObject received = decode(frame).value;
  EXPECT_FALSE(liesIn(frame, received[0]));
  EXPECT_TRUE(liesIn(frame, received[1]));
  EXPECT_FALSE(liesIn(frame, received[2]));
  EXPECT_EQ(received[0], small);
}

// Raises when it is compared.
class RaisingBody : public ObjectBody {
 public:
  const ClassBody& classBody() const override { return *classObject().classBody(); }
  bool isEqual(const ObjectBody&, WalkBound&) const override { throw std::runtime_error("raised on purpose"); }
  std::size_t hash() const override { return 7; }

  static Class classObject() {
    static const Class& made = *new Class([] {
      const Class aClass = newClass("WireRaising", NSObject::classObject());
      registerClassCoding(aClass, {[](const NSObject&) -> NSObject { return 0; },
                                   [](const NSObject&) -> NSObject { return Handle(); }});
      return aClass;
    }());
    return made;
  }

  struct Handle : NSObject {
    Handle() : NSObject(new RaisingBody) {}
  };
};

TEST(ValueDecoder, AKeyThatRaisesWhenItIsComparedRefusesTheValueAndLeavesNothingBehind) {
  const Class raising = RaisingBody::classObject();
  // One frame is small, and so a region; the bodies of the other are on their own.
  for (const std::size_t textBytes : {100u, 5000u}) {
    const Bytes text = frameOf(NSString(std::string(textBytes, 't'))).body;
    const Bytes key = frameOf(RaisingBody::Handle()).body;
    const Decoded decoded =
        decode(frameOfBytes(hex("a2") + key + text + key + text), ClassSet(NSSet{NSObject::classObject()}));
    EXPECT_EQ(decoded.outcome, Outcome::refused);
    EXPECT_TRUE(contains(decoded.reason, "raised on purpose")) << decoded.reason;
  }
}

}  // namespace
}  // namespace velto::wire
