#include "tools/ValueFromJSON.h"

#include <bit>
#include <cmath>
#include <limits>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/foundation/Foundation.h"
#include "platform/foundation/JSON.h"

namespace velto::tools {
namespace {

using ::testing::HasSubstr;
using ::testing::StartsWith;

NSObject valueOf(const std::string& text) {
  NSError error;
  const NSObject value = valueFromJSON(text, &error);
  EXPECT_TRUE(error.isNil()) << text << ": " << error.description().view();
  EXPECT_FALSE(value.isNil()) << text;
  return value;
}

NSNumber::Kind kindOf(const std::string& text) {
  return valueOf(text).as<NSNumber>().kind();
}

std::string refusalOf(const std::string& text) {
  NSError error;
  EXPECT_TRUE(valueFromJSON(text, &error).isNil()) << text;
  EXPECT_TRUE(valueFromJSON(text).isNil()) << "without an out-pointer";
  EXPECT_EQ(error.domain(), VeltoJSONErrorDomain) << text;
  EXPECT_EQ(error.code(), VeltoJSONCannotBeRead);
  return error.localizedDescription().string();
}

TEST(ValueFromJSON, PlainValues) {
  EXPECT_TRUE(valueOf("null").is<NSNull>());
  EXPECT_EQ(valueOf(" \"a\\u0000\\ud83c\\udf0d\" "), NSObject(std::string("a\0🌍", 6)));
  EXPECT_EQ(valueOf("[1, \"two\", [], {}]"), NSObject(NSArray{1, "two", NSArray::array(), NSDictionary::dictionary()}));
  EXPECT_EQ(valueOf("{\"a\": {\"b\": true}}"), NSObject(NSDictionary{{"a", NSDictionary{{"b", true}}}}));
}

TEST(ValueFromJSON, NumbersAreOfTheKindThatTheirTextTells) {
  using Kind = NSNumber::Kind;
  EXPECT_EQ(kindOf("true"), Kind::boolean);
  EXPECT_EQ(kindOf("1"), Kind::signedInteger);
  EXPECT_EQ(kindOf("-0"), Kind::signedInteger);
  EXPECT_EQ(kindOf("1.0"), Kind::floatingPoint);
  EXPECT_EQ(kindOf("1e2"), Kind::floatingPoint);
  EXPECT_TRUE(std::signbit(valueOf("-0.0").doubleValue()));
  EXPECT_EQ(kindOf(R"({"$unsigned": "1"})"), Kind::unsignedInteger);
  EXPECT_EQ(valueOf(R"({"$signed": "-9223372036854775808"})").integerValue(), INT64_MIN);
  EXPECT_EQ(std::bit_cast<std::uint64_t>(valueOf(R"({"$double": "nan:7ff0000000000001"})").doubleValue()),
            0x7FF0000000000001u);
}

TEST(ValueFromJSON, LargeIntegersAreReadWithoutAMarkerToo) {
  EXPECT_EQ(valueOf("9223372036854775807").integerValue(), INT64_MAX);
  EXPECT_EQ(kindOf("9223372036854775807"), NSNumber::Kind::signedInteger);
  EXPECT_EQ(valueOf("18446744073709551615").unsignedIntegerValue(), UINT64_MAX);
  EXPECT_EQ(kindOf("9223372036854775808"), NSNumber::Kind::unsignedInteger);
  EXPECT_EQ(refusalOf("18446744073709551616"), "line 1, column 20: an integer beyond 64 bits");
  EXPECT_EQ(refusalOf("-9223372036854775809"), "line 1, column 20: an integer beyond 64 bits");
}

TEST(ValueFromJSON, DatesMayBeWholeNumbers) {
  EXPECT_EQ(valueOf(R"({"$date": 1})").as<NSDate>().timeIntervalSince1970(), 1.0);
  EXPECT_THAT(refusalOf(R"({"$date": 9007199254740993})"), HasSubstr("under $date stands a number of seconds"));
}

TEST(ValueFromJSON, WhatIsReadIsImmutable) {
  const NSObject value = valueOf(R"([{"a": {"$dictionary": [[1, {"$set": [2]}]]}}, {"$data": "AA=="}])");
  EXPECT_FALSE(value.is<NSMutableArray>());
  EXPECT_FALSE(value[0].is<NSMutableDictionary>());
  EXPECT_FALSE(value[0]["a"].is<NSMutableDictionary>());
  EXPECT_FALSE(value[0]["a"][NSObject(1)].is<NSMutableSet>());
  EXPECT_FALSE(value[1].is<NSMutableData>());
}

TEST(ValueFromJSON, KeysKeepTheirOrder) {
  EXPECT_EQ(valueOf(R"({"c": 1, "a": 2, "b": 3})").as<NSDictionary>().allKeys(), (NSArray{"c", "a", "b"}));
}

TEST(ValueFromJSON, MarkersStandAloneAndOverWhatBelongsToThem) {
  for (const char* text : {R"({"$data": 1})",
                           R"({"$data": "A"})",
                           R"({"$data": null})",
                           R"({"$data": []})",
                           R"({"$data": {}})",
                           R"({"$signed": 1})",
                           R"({"$signed": "01"})",
                           R"({"$signed": "+1"})",
                           R"({"$signed": "9223372036854775808"})",
                           R"({"$unsigned": "-1"})",
                           R"({"$unsigned": ""})",
                           R"({"$double": 1.5})",
                           R"({"$double": "NaN"})",
                           R"({"$double": "nan:7ff0000000000000"})",
                           R"({"$double": "nan:7FF8000000000001"})",
                           R"({"$double": "nan:7ff800000000001"})",
                           R"({"$date": "1"})",
                           R"({"$date": true})",
                           R"({"$uuid": "1"})",
                           R"({"$url": ""})",
                           R"({"$url": "a b"})",
                           R"({"$set": "a"})",
                           R"({"$set": {"$set": []}})",
                           R"({"$dictionary": {}})",
                           R"({"$dictionary": [1]})",
                           R"({"$dictionary": [[1]]})",
                           R"({"$dictionary": [[1, 2, 3]]})",
                           R"({"$dictionary": [{}]})",
                           R"({"$error": []})",
                           R"({"$error": {}})",
                           R"({"$error": {"domain": "d", "code": 1}})",
                           R"({"$error": {"domain": 1, "code": 1, "userInfo": {}}})",
                           R"({"$error": {"domain": "d", "code": 1.0, "userInfo": {}}})",
                           R"({"$error": {"domain": "d", "code": {"$unsigned": "1"}, "userInfo": {}}})",
                           R"({"$error": {"domain": "d", "code": 1, "userInfo": []}})",
                           R"({"$error": {"other": 1}})"}) {
    EXPECT_THAT(refusalOf(text), HasSubstr(": under $")) << text;
  }
  EXPECT_THAT(refusalOf(R"({"$data": "", "a": 1})"), HasSubstr("beside $data stands no other key"));
  EXPECT_THAT(refusalOf(R"({"a": 1, "$data": ""})"), HasSubstr("beside a marker stands no other key"));
  EXPECT_THAT(refusalOf(R"({"$other": 1})"), HasSubstr("an unknown marker"));
  EXPECT_EQ(valueOf(R"({"$$data": 1, "$$$": 2})"), NSObject(NSDictionary{{"$data", 1}, {"$$", 2}}));
}

TEST(ValueFromJSON, NothingComesTwice) {
  for (const char* text : {R"({"a": 1, "a": 2})", R"({"a": 1, "\u0061": 2})", R"({"$set": [1, 1.0]})",
                           R"({"$dictionary": [[1, 2], [true, 3]]})",
                           R"({"$error": {"domain": "a", "domain": "b", "code": 1, "userInfo": {}}})"}) {
    EXPECT_THAT(refusalOf(text), HasSubstr("a key or an element comes twice")) << text;
  }
}

TEST(ValueFromJSON, TextThatIsNoJSONIsRefusedWithItsPlace) {
  EXPECT_THAT(refusalOf(""), StartsWith("line 1, column 1: "));
  EXPECT_THAT(refusalOf("{\n  \"a\": 1,\n  \"b\" 2\n}"), StartsWith("line 3, column 7: "));
  for (const char* text : {"[1,]", "[1",      "{",        "{\"a\"}",      "nul",         "01",      "1.",
                           ".5",   "+1",      "NaN",      "'a'",          "\"a",         "\"\n\"",  "1 2",
                           "[] x", "// c\n1", "\"\xff\"", "\"\xC0\x80\"", "\"\\ud800\"", "\"\\x\"", "1e400"}) {
    const std::string reason = refusalOf(text);
    EXPECT_THAT(reason, StartsWith("line ")) << text;
    EXPECT_EQ(reason.find("json"), std::string::npos) << reason;
    EXPECT_EQ(reason.find('\n'), std::string::npos) << reason;
  }
  EXPECT_LT(refusalOf("\"" + std::string(100'000, 'a')).size(), 300u);
}

TEST(ValueFromJSON, NestsAsDeepAsItIsWrittenAndNoDeeper) {
  const auto nested = [](std::size_t levels, const std::string& before, const std::string& after) {
    std::string text;
    for (std::size_t level = 0; level < levels; ++level) text += before;
    text += "1";
    for (std::size_t level = 0; level < levels; ++level) text += after;
    return text;
  };
  const std::pair<std::string, std::string> kinds[] = {
      {"[", "]"},
      {"{\"k\":", "}"},
      {"{\"$set\":[", "]}"},
      {"{\"$dictionary\":[[1,", "]]}"},
      {"{\"$error\":{\"domain\":\"\",\"code\":1,\"userInfo\":{\"k\":", "}}}"},
      {"{\"$error\":{\"domain\":\"\",\"code\":1,\"userInfo\":{\"$dictionary\":[[2,", "]]}}}"}};
  for (const auto& [before, after] : kinds) {
    EXPECT_FALSE(valueOf(nested(kMaximumJSONDepth, before, after)).isNil()) << before;
    EXPECT_THAT(refusalOf(nested(kMaximumJSONDepth + 1, before, after)), HasSubstr("deeper than 128 levels")) << before;
    EXPECT_THAT(refusalOf(nested(100'000, before, after)), HasSubstr("deeper than 128 levels")) << before;
  }
  EXPECT_THAT(refusalOf(nested(kMaximumJSONDepth, "[", "") + "{}"), HasSubstr("line 1"));
}

TEST(ValueFromJSON, APlaceIsTheEndOfWhatIsWrong) {
  EXPECT_THAT(refusalOf("[\n  1,\n  {\"$data\": \"A\"}]"), StartsWith("line 3, column 15: under $data"));
  EXPECT_THAT(refusalOf("{\"$data\": 12\n}"), StartsWith("line 1, column 12: under $data"));
  EXPECT_THAT(refusalOf("{\"a\": 1, \"a\": 2}"), StartsWith("line 1, column 15: a key"));
  EXPECT_THAT(refusalOf("\n\n18446744073709551616\n"), StartsWith("line 3, column 20: an integer"));
}

TEST(ValueFromJSON, WithoutATerminatorItReadsNoFurther) {
  const std::string text = "[1]garbage";
  EXPECT_EQ(valueFromJSON(std::string_view(text).substr(0, 3)), NSObject(NSArray{1}));
}

}  // namespace
}  // namespace velto::tools
