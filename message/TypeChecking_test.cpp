#include "message/TypeChecking.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "message/CapturedLog.h"
#include "platform/foundation/BuiltInClass.h"
#include "platform/foundation/Foundation.h"
#include "platform/foundation/WalkBound.h"

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using Line = velto::CapturedLog::Line;

class TypeChecking : public ::testing::Test {
 protected:
  static Line failure(const std::string& className) {
    return {0, "Failed Type Checking with the following object " + className + " with ClassName " + className};
  }

  velto::CapturedLog log;
};

// An object of any class.
class CheckedBody final : public velto::ObjectBody {
 public:
  explicit CheckedBody(Class aClass) : class_(aClass) {}
  const velto::ClassBody& classBody() const override { return *class_.classBody(); }

 private:
  const Class class_;
};

struct CheckedObject : NSObject {
  explicit CheckedObject(Class aClass) : NSObject(new CheckedBody(aClass)) {}
};

NSArray nested(std::size_t levels) {
  NSArray array = NSArray::array();
  for (std::size_t level = 1; level < levels; ++level) array = NSArray::arrayWithObjects({array});
  return array;
}

}  // namespace

TEST_F(TypeChecking, NilPasses) {
  EXPECT_TRUE(checkDictionary(nil));
  EXPECT_TRUE(checkArray(nil));
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(TypeChecking, EmptyPassesAlsoNested) {
  EXPECT_TRUE(checkDictionary(NSDictionary::dictionary()));
  EXPECT_TRUE(checkArray(NSArray::array()));
  EXPECT_TRUE(checkDictionary({{"array", NSArray::array()}, {"dictionary", NSDictionary::dictionary()}}));
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(TypeChecking, EveryPlainClassPassesAtEveryDepth) {
  const NSDictionary plain{{"string", "text"},       {"true", true},  {"signed", -1},
                           {"unsigned", UINT64_MAX}, {"double", 0.5}, {"data", NSData::dataWithBytes("abc", 3)}};
  EXPECT_TRUE(checkDictionary({{"array", NSArray{plain, NSArray{plain}}}, {"dictionary", plain}}));
  EXPECT_TRUE(checkArray({plain, NSArray{plain}, "text", 1}));
}

TEST_F(TypeChecking, MutableSubclassesPass) {
  EXPECT_TRUE(checkDictionary({{"string", NSMutableString::stringWithString("text")},
                               {"array", NSMutableArray::arrayWithArray({1})},
                               {"dictionary", NSMutableDictionary::dictionaryWithDictionary({{"a", 1}})},
                               {"data", NSMutableData::data()}}));
  EXPECT_TRUE(checkDictionary(NSMutableDictionary::dictionaryWithDictionary({{"a", "b"}})));
  EXPECT_TRUE(checkArray(NSMutableArray::arrayWithArray({"a"})));
}

TEST_F(TypeChecking, ASubclassOfAPlainClassPasses) {
  static const Class& special = *new Class(velto::defineBuiltIn("SpecialString", NSString::classObject()));
  EXPECT_TRUE(checkDictionary({{"key", CheckedObject(special)}}));
}

TEST_F(TypeChecking, KeysAreNotExamined) {
  EXPECT_TRUE(checkDictionary({{1, "a"}, {NSDate::date(), "b"}, {NSNull::null(), "c"}, {NSUUID::UUID(), "d"}}));
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(TypeChecking, NullFailsWithOneLineThatNamesItsClassTwice) {
  EXPECT_FALSE(checkDictionary({{"key", NSNull::null()}}));
  EXPECT_THAT(log.lines(), ElementsAre(failure("NSNull")));
}

TEST_F(TypeChecking, EveryOtherClassFails) {
  const NSError error = NSError::errorWithDomain("d", 1, nil);
  static const Class& custom = *new Class(Class::define("Custom", NSObject::classObject()));
  for (const NSObject& value : {NSObject(NSDate::date()), NSObject(NSSet{1}), NSObject(NSUUID::UUID()), NSObject(error),
                                NSObject(NSURL::URLWithString("http://a.b/")), NSObject(CheckedObject(custom)),
                                NSObject(custom), NSObject(VKTLogGetAnchor())}) {
    EXPECT_FALSE(checkDictionary({{"key", value}})) << value.description().string();
    EXPECT_FALSE(checkArray({value})) << value.description().string();
    EXPECT_EQ(log.lines().back(), failure(NSStringFromClass(value.getClass()).string()));
  }
}

TEST_F(TypeChecking, ADateInAnArrayInAMessageFailsWithTwoLinesInnermostFirst) {
  EXPECT_FALSE(checkDictionary({{"when", NSArray{NSDate::date()}}}));
  EXPECT_THAT(log.lines(), ElementsAre(failure("NSDate"), failure("NSArray")));
}

TEST_F(TypeChecking, EveryLevelNamesTheConcreteClassOfTheContainerBelowIt) {
  const auto innermost = NSMutableDictionary::dictionaryWithDictionary({{"bad", NSSet{1}}});
  const auto middle = NSMutableArray::arrayWithArray({1, innermost});
  EXPECT_FALSE(checkDictionary({{"good", 1}, {"outer", NSDictionary{{"middle", middle}}}}));
  EXPECT_THAT(log.lines(), ElementsAre(failure("NSSet"), failure("NSMutableDictionary"), failure("NSMutableArray"),
                                       failure("NSDictionary")));
}

TEST_F(TypeChecking, TheFirstBadValueEndsTheWalk) {
  EXPECT_FALSE(checkArray({1, NSNull::null(), NSDate::date()}));
  EXPECT_THAT(log.lines(), ElementsAre(failure("NSNull")));
  EXPECT_FALSE(checkDictionary({{"a", NSDate::date()}, {"b", NSNull::null()}}));
  EXPECT_THAT(log.lines(), ElementsAre(failure("NSNull"), failure("NSDate")));
}

TEST_F(TypeChecking, TheValueItselfIsNeverPrinted) {
  EXPECT_FALSE(checkDictionary({{"key", NSSet{"a secret"}}}));
  ASSERT_EQ(log.lines().size(), 1U);
  EXPECT_THAT(log.lines()[0].text, ::testing::Not(HasSubstr("secret")));
}

TEST_F(TypeChecking, NestingAtTheLimitPassesAndOneMoreFails) {
  EXPECT_TRUE(checkArray(nested(velto::kMaximumNestingDepth)));
  EXPECT_THAT(log.lines(), IsEmpty());
  EXPECT_FALSE(checkArray(nested(velto::kMaximumNestingDepth + 1)));
  ASSERT_EQ(log.lines().size(), velto::kMaximumNestingDepth + 1);
  EXPECT_EQ(log.lines().front(),
            (Line{0, "Failed Type Checking: containers nest 513 levels deep, at most 512 can be checked"}));
  EXPECT_EQ(log.lines().back(), failure("NSArray"));
}

TEST_F(TypeChecking, AMillionLevelsFailWithoutHarm) {
  EXPECT_FALSE(checkDictionary({{"deep", nested(1'000'000)}}));
}

TEST_F(TypeChecking, AContainerThatHoldsItselfFails) {
  auto array = NSMutableArray::array();
  array.addObject(array);
  EXPECT_FALSE(checkArray(array));
  auto dictionary = NSMutableDictionary::dictionary();
  dictionary.setObject(dictionary, "self");
  EXPECT_FALSE(checkDictionary(dictionary));
  array.removeAllObjects();
  dictionary.removeAllObjects();
}

TEST_F(TypeChecking, ValuesAtTheLimitPassAndOneMoreFails) {
  velto::WalkBound four(8, 4);
  EXPECT_TRUE(velto::checkDictionaryWithin(four, {{"a", 1}, {"b", NSArray{1, 2}}}));
  velto::WalkBound three(8, 3);
  EXPECT_FALSE(velto::checkDictionaryWithin(three, {{"a", 1}, {"b", NSArray{1, 2}}}));
  EXPECT_THAT(log.lines(),
              ElementsAre(Line{0, "Failed Type Checking: the message holds 4 values, at most 3 can be checked"},
                          failure("NSArray")));
}

TEST_F(TypeChecking, SharedContainersThatStandForTooManyValuesFail) {
  NSArray doubled{1};
  for (int level = 0; level < 60; ++level) doubled = NSArray{doubled, doubled};
  velto::WalkBound bound(velto::kMaximumNestingDepth, 10'000);
  EXPECT_FALSE(velto::checkArrayWithin(bound, doubled));
  EXPECT_THAT(log.lines().front().text, HasSubstr("the message holds 10001 values, at most 10000"));
}

TEST_F(TypeChecking, WhereTheValueOfAMessageLiesIsALineBehindTheOtherLines) {
  VKTLogSetLevel(VKTLogLevelProgress);
  const NSDictionary order{{"item", 1}, {"when", NSDate::date()}};
  EXPECT_FALSE(velto::checkMessage({{"good", 1}, {"orders", NSArray{1, order}}}));
  EXPECT_THAT(log.lines(), ElementsAre(failure("NSDate"), failure("NSDictionary"), failure("NSArray"),
                                       Line{2, "What is refused lies at orders[1].when"}));
}

TEST_F(TypeChecking, AKeyThatIsNoStringIsTold) {
  VKTLogSetLevel(VKTLogLevelProgress);
  EXPECT_FALSE(velto::checkMessage({{7, NSNull::null()}}));
  EXPECT_THAT(log.lines(), ElementsAre(failure("NSNull"), Line{2, "What is refused lies at {7}"}));
}

TEST_F(TypeChecking, AKeyCannotForgeALine) {
  VKTLogSetLevel(VKTLogLevelProgress);
  EXPECT_FALSE(velto::checkMessage({{"a\nWhat is refused lies at b", NSNull::null()}}));
  ASSERT_EQ(log.lines().size(), 2u);
  EXPECT_EQ(log.lines()[1].text, "What is refused lies at [\"a\\u{a}What is refused lies at b\"]");
}

TEST_F(TypeChecking, WhatPassesTellsNoPlace) {
  VKTLogSetLevel(VKTLogLevelProgress);
  EXPECT_TRUE(velto::checkMessage({{"list", NSArray{1, NSDictionary{{"a", 2}}}}}));
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(TypeChecking, TheEndlessIsToldShortened) {
  VKTLogSetLevel(VKTLogLevelProgress);
  auto array = NSMutableArray::array();
  array.addObject(array);
  EXPECT_FALSE(velto::checkMessage({{"list", array}}));
  EXPECT_EQ(log.lines().back().level, 2);
  EXPECT_LT(log.lines().back().text.size(), 200u);
  array.removeAllObjects();
}
