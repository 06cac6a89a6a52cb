#include "platform/foundation/NSObject.h"

#include <cstdint>
#include <limits>

#include <gtest/gtest.h>

#include "platform/foundation/Foundation.h"

namespace {

TEST(NSObject, NilAnswersNothingHarmlessly) {
  const NSObject object;
  EXPECT_TRUE(object.isNil());
  EXPECT_TRUE(object.getClass().isNil());
  EXPECT_FALSE(object.isKindOfClass(NSObject::classObject()));
  EXPECT_TRUE(object.as<NSString>().isNil());
  EXPECT_EQ(object.hash(), 0u);
  EXPECT_EQ(object.description().string(), "(null)");
  EXPECT_FALSE(object.boolValue());
  EXPECT_EQ(object.integerValue(), 0);
  EXPECT_EQ(object.unsignedIntegerValue(), 0u);
  EXPECT_EQ(object.doubleValue(), 0);
  EXPECT_EQ(object.stringValue(), "");
  EXPECT_EQ(object.count(), 0u);
  EXPECT_TRUE(object["key"].isNil());
  EXPECT_TRUE(object[NSObject("key")].isNil());
  EXPECT_TRUE(object[0].isNil());
  EXPECT_EQ(object.body(), nullptr);
}

TEST(NSObject, NilEqualsOnlyNil) {
  EXPECT_EQ(NSObject(), nil);
  EXPECT_EQ(NSString(), NSArray());
  EXPECT_NE(NSObject(), NSObject(0));
  EXPECT_NE(NSObject(""), nil);
}

TEST(NSObject, PlainValuesBecomeTheObjectsThatTheyStandFor) {
  EXPECT_EQ(NSObject(true).as<NSNumber>().kind(), NSNumber::Kind::boolean);
  EXPECT_EQ(NSObject(7).as<NSNumber>().kind(), NSNumber::Kind::signedInteger);
  EXPECT_EQ(NSObject(std::uint8_t{7}).as<NSNumber>().kind(), NSNumber::Kind::unsignedInteger);
  EXPECT_EQ(NSObject(7.0F).as<NSNumber>().kind(), NSNumber::Kind::floatingPoint);
  EXPECT_EQ(NSObject("text").stringValue(), "text");
  EXPECT_EQ(NSObject(std::string("text")).stringValue(), "text");
  EXPECT_EQ(NSObject(std::string_view("text")).stringValue(), "text");
  EXPECT_TRUE(NSObject(static_cast<const char*>(nullptr)).isNil());
  EXPECT_EQ(NSObject("a\xFF"
                     "b")
                .stringValue(),
            "a\uFFFDb");
}

TEST(NSObject, KnowsItsClass) {
  const NSObject text = "text";
  EXPECT_EQ(text.getClass(), NSString::classObject());
  EXPECT_TRUE(text.isKindOfClass(NSString::classObject()));
  EXPECT_TRUE(text.isKindOfClass(NSObject::classObject()));
  EXPECT_FALSE(text.isKindOfClass(NSNumber::classObject()));
  EXPECT_FALSE(text.isKindOfClass(nil));
}

TEST(NSObject, AsGivesAnotherHandleOnTheSameBodyOrNil) {
  const NSObject text = "text";
  EXPECT_TRUE(text.as<NSString>().isIdenticalTo(text));
  EXPECT_TRUE(text.as<NSObject>().isIdenticalTo(text));
  EXPECT_TRUE(text.as<NSMutableString>().isNil());
  EXPECT_TRUE(text.as<NSArray>().isNil());
}

TEST(NSObject, MutableValuesAreOfTheImmutableKindButNotTheOtherWayRound) {
  const NSObject values[] = {NSMutableString::string(), NSMutableArray::array(), NSMutableDictionary::dictionary(),
                             NSMutableSet::set(), NSMutableData::data()};
  EXPECT_TRUE(values[0].isKindOfClass(NSString::classObject()));
  EXPECT_TRUE(values[1].isKindOfClass(NSArray::classObject()));
  EXPECT_TRUE(values[2].isKindOfClass(NSDictionary::classObject()));
  EXPECT_TRUE(values[3].isKindOfClass(NSSet::classObject()));
  EXPECT_TRUE(values[4].isKindOfClass(NSData::classObject()));
  EXPECT_TRUE(NSArray::array().as<NSMutableArray>().isNil());
  EXPECT_TRUE(NSDictionary::dictionary().as<NSMutableDictionary>().isNil());
  EXPECT_TRUE(NSSet::set().as<NSMutableSet>().isNil());
  EXPECT_TRUE(NSData::dataWithVector({}).as<NSMutableData>().isNil());
}

TEST(NSObject, ValuesOfDifferentKindsAreDifferent) {
  const NSObject values[] = {"1",
                             1,
                             NSArray{1},
                             NSSet{1},
                             NSDictionary{{1, 1}},
                             NSNull::null(),
                             NSData::dataWithBytes("1", 1),
                             NSDate::dateWithTimeIntervalSince1970(1)};
  for (const NSObject& left : values) {
    for (const NSObject& right : values) EXPECT_EQ(left == right, left.isIdenticalTo(right));
  }
}

TEST(NSObject, AskingTheWrongKindAnswersZeroOrNothing) {
  EXPECT_EQ(NSObject("7").integerValue(), 0);
  EXPECT_EQ(NSObject("7").unsignedIntegerValue(), 0u);
  EXPECT_EQ(NSObject("7").doubleValue(), 0);
  EXPECT_FALSE(NSObject("true").boolValue());
  EXPECT_EQ(NSObject(7).stringValue(), "");
  EXPECT_EQ(NSObject(7).count(), 0u);
  EXPECT_TRUE(NSObject(7)["key"].isNil());
  EXPECT_TRUE(NSObject("text")[0].isNil());
  EXPECT_TRUE((NSArray{1, 2}["key"].isNil()));
}

TEST(NSObject, CountsWhatTheKindHolds) {
  EXPECT_EQ((NSArray{1, 2}.count()), 2u);
  EXPECT_EQ((NSDictionary{{1, 2}}.count()), 1u);
  EXPECT_EQ((NSSet{1, 2, 3, 3}.count()), 3u);
  EXPECT_EQ(NSData::dataWithBytes("abc", 3).count(), 3u);
  EXPECT_EQ(NSObject("ä").count(), 2u);
}

TEST(NSObject, SubscriptsReachIntoNestedContainers) {
  const NSObject message = NSDictionary{{"terms", NSArray{1, NSDictionary{{"deep", "yes"}}}}, {5, "five"}};
  EXPECT_EQ(message["terms"][1]["deep"].stringValue(), "yes");
  EXPECT_EQ(message["terms"][0].integerValue(), 1);
  EXPECT_TRUE(message["terms"][2].isNil());
  EXPECT_TRUE(message["terms"][-1].isNil());
  EXPECT_TRUE(message["missing"]["deep"].isNil());
  EXPECT_EQ(message[5].stringValue(), "five");
  EXPECT_TRUE(message[nil].isNil());
  EXPECT_TRUE(message[static_cast<const char*>(nullptr)].isNil());
}

TEST(NSObject, ANumberAsKeyOfADictionaryIsAskedForExactly) {
  const std::uint64_t large = std::numeric_limits<std::uint64_t>::max();
  const NSObject dictionary = NSDictionary{{large, "large"}, {-1, "negative"}};
  EXPECT_EQ(dictionary[large].stringValue(), "large");
  EXPECT_EQ(dictionary[-1].stringValue(), "negative");
}

TEST(NSObject, ATextKeyWithBrokenUTF8FindsTheRepairedKey) {
  const NSObject dictionary = NSDictionary{{"a\xFF", 1}};
  EXPECT_EQ(dictionary["a\xFF"].integerValue(), 1);
  EXPECT_EQ(dictionary["a\uFFFD"].integerValue(), 1);
}

TEST(NSObject, EqualValuesHaveEqualHashes) {
  EXPECT_EQ(NSObject("text").hash(), NSMutableString::stringWithString("text").hash());
  EXPECT_EQ(NSObject(1).hash(), NSObject(1.0).hash());
  EXPECT_EQ((NSArray{1, 2}.hash()), (NSArray{1.0, 2U}.hash()));
}

}  // namespace
