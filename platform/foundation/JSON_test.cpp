#include "platform/foundation/JSON.h"

#include <bit>
#include <limits>

#include <gtest/gtest.h>

#include "platform/foundation/Foundation.h"
#include "platform/foundation/ObjectBody.h"
#include "platform/xpc/contract/Limits.h"

namespace {

using velto::JSONLayout;
using velto::toJSON;
using Doubles = std::numeric_limits<double>;

// What toJSON() says of a value that it cannot write.
NSError refusalOf(const NSObject& value) {
  NSError error;
  EXPECT_EQ(toJSON(value, JSONLayout::compact, &error), "");
  EXPECT_EQ(error.domain(), VeltoJSONErrorDomain);
  EXPECT_EQ(toJSON(value), "") << "without an out-pointer";
  return error;
}

NSObject nested(std::size_t levels, int kind) {
  NSObject value = 1;
  for (std::size_t level = 0; level < levels; ++level) {
    if (kind == 0) value = NSArray::arrayWithObjects({value});
    if (kind == 1) value = NSDictionary{{"k", value}};
    if (kind == 2) value = NSDictionary{{value, "v"}};
    if (kind == 3) value = NSSet::setWithObjects({value});
    if (kind == 4) value = NSError::errorWithDomain("d", 1, {{"k", value}});
  }
  return value;
}

class UnwritableBody final : public velto::ObjectBody {
 public:
  const velto::ClassBody& classBody() const override { return *aClass().classBody(); }
  static Class aClass() {
    static const Class& made = *new Class(Class::define("Unwritable", NSObject::classObject()));
    return made;
  }
};

struct Unwritable : NSObject {
  Unwritable() : NSObject(new UnwritableBody) {}
};

}  // namespace

TEST(JSON, PlainValuesLookAsEverywhere) {
  EXPECT_EQ(toJSON(NSNull::null()), "null");
  EXPECT_EQ(toJSON(true), "true");
  EXPECT_EQ(toJSON(false), "false");
  EXPECT_EQ(toJSON(-7), "-7");
  EXPECT_EQ(toJSON("text"), "\"text\"");
  EXPECT_EQ(toJSON(NSArray{1, "two", NSArray::array()}), "[1,\"two\",[]]");
  EXPECT_EQ(toJSON(NSDictionary{{"b", 1}, {"a", NSDictionary::dictionary()}}), "{\"b\":1,\"a\":{}}");
}

TEST(JSON, IntegersThatADoubleCannotHoldAreTextsInAMarker) {
  EXPECT_EQ(toJSON(9007199254740991), "9007199254740991");
  EXPECT_EQ(toJSON(-9007199254740991), "-9007199254740991");
  EXPECT_EQ(toJSON(9007199254740992), R"({"$signed":"9007199254740992"})");
  EXPECT_EQ(toJSON(INT64_MIN), R"({"$signed":"-9223372036854775808"})");
  EXPECT_EQ(toJSON(0u), R"({"$unsigned":"0"})");
  EXPECT_EQ(toJSON(UINT64_MAX), R"({"$unsigned":"18446744073709551615"})");
}

TEST(JSON, DoublesHaveAFractionOrAnExponent) {
  EXPECT_EQ(toJSON(1.0), "1.0");
  EXPECT_EQ(toJSON(-0.0), "-0.0");
  EXPECT_EQ(toJSON(0.1), "0.1");
  EXPECT_EQ(toJSON(1e300), "1e+300");
  EXPECT_EQ(toJSON(Doubles::denorm_min()), "5e-324");
  EXPECT_EQ(toJSON(Doubles::infinity()), R"({"$double":"inf"})");
  EXPECT_EQ(toJSON(-Doubles::infinity()), R"({"$double":"-inf"})");
  EXPECT_EQ(toJSON(Doubles::quiet_NaN()), R"({"$double":"nan"})");
  EXPECT_EQ(toJSON(std::bit_cast<double>(0xFFF8000000000001)), R"({"$double":"nan:fff8000000000001"})");
}

TEST(JSON, TextIsEscapedWhereItMustBe) {
  EXPECT_EQ(toJSON("\"\\/\n\t\x01\x7f"), R"("\"\\/\n\u0009\u0001\u007f")");
  EXPECT_EQ(toJSON(std::string("a\0b", 3)), R"("a\u0000b")");
  EXPECT_EQ(toJSON("Grüße 世界 🌍"), "\"Grüße 世界 🌍\"");
}

TEST(JSON, OtherKindsAreMarked) {
  const std::vector<std::pair<std::vector<std::uint8_t>, std::string>> bytes{
      {{}, ""}, {{0}, "AA=="}, {{0, 1}, "AAE="}, {{0, 1, 2}, "AAEC"}, {{255, 254, 253, 252}, "//79/A=="}};
  for (const auto& [data, text] : bytes) EXPECT_EQ(toJSON(NSData(data)), "{\"$data\":\"" + text + "\"}");
  EXPECT_EQ(toJSON(NSDate::dateWithTimeIntervalSince1970(1.25)), R"({"$date":1.25})");
  EXPECT_EQ(toJSON(NSDate::dateWithTimeIntervalSince1970(1e9)), R"({"$date":1e+09})");
  EXPECT_EQ(toJSON(NSUUID::UUIDWithBytes({1})), R"({"$uuid":"01000000-0000-0000-0000-000000000000"})");
  EXPECT_EQ(toJSON(NSURL::URLWithString("a:b?\"")), R"({"$url":"a:b?\""})");
  EXPECT_EQ(toJSON(NSSet{1, "a"}), R"({"$set":[1,"a"]})");
  EXPECT_EQ(toJSON(NSSet::set()), R"({"$set":[]})");
  EXPECT_EQ(toJSON(NSError::errorWithDomain("d", -2, {{"$k", 1}})),
            R"({"$error":{"domain":"d","code":-2,"userInfo":{"$$k":1}}})");
  EXPECT_EQ(toJSON(NSError::errorWithDomain("", INT64_MAX, {{1, 2}})),
            R"({"$error":{"domain":"","code":{"$signed":"9223372036854775807"},)"
            R"("userInfo":{"$dictionary":[[1,2]]}}})");
}

TEST(JSON, KeysThatAreNoTextMakeAListOfPairs) {
  EXPECT_EQ(toJSON(NSDictionary{{"a", 1}, {2, "b"}}), R"({"$dictionary":[["a",1],[2,"b"]]})");
}

TEST(JSON, KeysThatLookLikeMarkersAreNone) {
  EXPECT_EQ(toJSON(NSDictionary{{"$data", "AA=="}}), R"({"$$data":"AA=="})");
  EXPECT_EQ(toJSON(NSDictionary{{"$", 1}, {"$$x", 2}, {"x$", 3}}), R"({"$$":1,"$$$x":2,"x$":3})");
  EXPECT_EQ(toJSON("$data"), "\"$data\"");
}

TEST(JSON, MutableKindsAreWrittenAsTheirPlainOnes) {
  auto array = NSMutableArray::array();
  array.addObject(NSMutableString::stringWithString("a"));
  array.addObject(NSMutableData::dataWithData(NSData({1})));
  array.addObject(NSMutableSet::initWithSet(NSSet{1}));
  array.addObject(NSMutableDictionary::dictionaryWithDictionary({{"k", 1}}));
  EXPECT_EQ(toJSON(array), R"(["a",{"$data":"AQ=="},{"$set":[1]},{"k":1}])");
}

TEST(JSON, ThePrettyLayoutIndentsContainers) {
  EXPECT_EQ(toJSON(NSDictionary{{"list", NSArray{1, NSArray::array(), NSDictionary::dictionary()}},
                                {"set", NSSet{NSUUID::UUIDWithBytes({})}},
                                {"pairs", NSDictionary{{1, 2}}}},
                   JSONLayout::pretty),
            R"({
  "list": [
    1,
    [],
    {}
  ],
  "set": {"$set": [
    {"$uuid": "00000000-0000-0000-0000-000000000000"}
  ]},
  "pairs": {"$dictionary": [
    [
      1,
      2
    ]
  ]}
})");
}

TEST(JSON, WhatHasNoFormIsRefused) {
  EXPECT_EQ(refusalOf(nil).code(), VeltoJSONCannotBeWritten);
  EXPECT_EQ(refusalOf(nil).localizedDescription(), "nil cannot be written as JSON");
  const NSError error = refusalOf(NSArray{1, NSDictionary{{"k", Unwritable()}}});
  EXPECT_EQ(error.code(), VeltoJSONCannotBeWritten);
  EXPECT_EQ(error.localizedDescription(), "An object of class Unwritable cannot be written as JSON");
  EXPECT_EQ(refusalOf(NSDictionary{{Unwritable(), 1}}).code(), VeltoJSONCannotBeWritten);
  EXPECT_EQ(refusalOf(NSString::classObject()).code(), VeltoJSONCannotBeWritten);
}

TEST(JSON, ASuccessLeavesTheErrorAlone) {
  const NSError former = NSError::errorWithDomain("former", 1, nil);
  NSError error = former;
  EXPECT_EQ(toJSON(1, JSONLayout::compact, &error), "1");
  EXPECT_TRUE(error.isIdenticalTo(former));
}

TEST(JSON, NestsAsDeepAsMessagesDoAndNoDeeper) {
  static_assert(velto::kMaximumJSONDepth == velto::limits::kMaximumDepth);
  for (int kind = 0; kind < 5; ++kind) {
    EXPECT_NE(toJSON(nested(velto::kMaximumJSONDepth, kind)), "") << kind;
    const NSError error = refusalOf(nested(velto::kMaximumJSONDepth + 1, kind));
    EXPECT_EQ(error.code(), VeltoJSONExceedsLimit) << kind;
    EXPECT_EQ(error.localizedDescription(), "Containers nest deeper than 128 levels, the most in JSON");
  }
  EXPECT_EQ(refusalOf(nested(1'000'000, 0)).code(), VeltoJSONExceedsLimit);
}

TEST(JSON, AContainerThatHoldsItselfIsRefused) {
  auto array = NSMutableArray::array();
  array.addObject(array);
  EXPECT_EQ(refusalOf(array).code(), VeltoJSONExceedsLimit);
  array.removeAllObjects();
  auto dictionary = NSMutableDictionary::dictionary();
  dictionary.setObject(dictionary, "self");
  EXPECT_EQ(refusalOf(dictionary).code(), VeltoJSONExceedsLimit);
  dictionary.removeAllObjects();
}

TEST(JSON, SharedContainersThatStandForTooMuchAreGivenUp) {
  NSArray doubled{std::string(1024 * 1024, 'x')};
  for (int level = 0; level < 60; ++level) doubled = NSArray{doubled, doubled};
  NSError error;
  EXPECT_EQ(toJSON(doubled, JSONLayout::compact, &error), "");
  EXPECT_EQ(error.code(), VeltoJSONExceedsLimit);
  EXPECT_EQ(error.localizedDescription(), "The value needs more than 268435456 bytes of JSON");
}
