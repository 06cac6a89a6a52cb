#include "message/ValuePath.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/foundation/Foundation.h"

namespace {

// A path of one key.
std::string pathOf(const NSObject& key) {
  velto::ValuePath path;
  path.addKey(key);
  return path.object().description().string();
}

}  // namespace

TEST(ValuePath, OfNothingIsEmpty) {
  EXPECT_EQ(velto::ValuePath().object().description(), "");
}

TEST(ValuePath, ReadsFromTheOutsideIn) {
  velto::ValuePath path;
  path.addKey("when");
  path.addIndex(2);
  path.addIndex(0);
  path.addKey("order-list_1");
  path.addKey("a");
  EXPECT_EQ(path.object().description(), "a.order-list_1[0][2].when");
}

TEST(ValuePath, BeginsWithAnIndexInAnArray) {
  velto::ValuePath path;
  path.addKey("a");
  path.addIndex(7);
  EXPECT_EQ(path.object().description(), "[7].a");
}

TEST(ValuePath, QuotesKeysThatCouldBeMistaken) {
  EXPECT_EQ(pathOf("a"), "a");
  EXPECT_EQ(pathOf(""), "[\"\"]");
  EXPECT_EQ(pathOf("a.b"), "[\"a.b\"]");
  EXPECT_EQ(pathOf("a[2]"), "[\"a[2]\"]");
  EXPECT_EQ(pathOf("say \"\\\""), "[\"say \\\"\\\\\\\"\"]");
  EXPECT_EQ(pathOf("Grüße 世界 🌍"), "[\"Grüße 世界 🌍\"]");
}

TEST(ValuePath, DescribesKeysOfOtherKinds) {
  EXPECT_EQ(pathOf(7), "{7}");
  EXPECT_EQ(pathOf(NSNull::null()), "{<null>}");
  EXPECT_EQ(pathOf(NSUUID::UUIDWithBytes({})), "{00000000-0000-0000-0000-000000000000}");
  EXPECT_EQ(pathOf(NSDictionary{{"k", "line\nend"}}), "{{k = line\\u{a}end\\}}");
  EXPECT_EQ(pathOf(NSMutableString::stringWithString("a")), "a");
}

TEST(ValuePath, EscapesWhatWouldForgeALine) {
  EXPECT_EQ(pathOf("a\nVeltoIPC: all is well"), "[\"a\\u{a}VeltoIPC: all is well\"]");
  EXPECT_EQ(pathOf("\r\t\x1b[2J\x7f"), "[\"\\u{d}\\u{9}\\u{1b}[2J\\u{7f}\"]");
  EXPECT_EQ(pathOf(std::string("a\0b", 3)), "[\"a\\u{0}b\"]");
  EXPECT_EQ(pathOf("\u0085\u2028\u2029\u202e\u2066\ufeff\U000e0041"),
            "[\"\\u{85}\\u{2028}\\u{2029}\\u{202e}\\u{2066}\\u{feff}\\u{e0041}\"]");
}

TEST(ValuePath, CutsLongKeysBetweenCharacters) {
  EXPECT_EQ(pathOf(std::string(64, 'a')), std::string(64, 'a'));
  EXPECT_EQ(pathOf(std::string(65, 'a')), "[\"" + std::string(64, 'a') + "…\"]");
  const std::string odd = "a" + [] {
    std::string text;
    for (int count = 0; count < 1000; ++count) text += "ü";
    return text;
  }();
  EXPECT_EQ(pathOf(odd), "[\"" + odd.substr(0, 65) + "…\"]");
  EXPECT_LT(pathOf(NSArray{std::string(10'000, 'a')}).size(), 80u);
}

TEST(ValuePath, ShowsTheBeginningAndTheEndOfALongWay) {
  velto::ValuePath atLimit, longer;
  for (std::size_t index = 32; index > 0; --index) atLimit.addIndex(index);
  for (std::size_t index = 500; index > 0; --index) longer.addIndex(index);
  EXPECT_EQ(atLimit.object().description().string().find("…"), std::string::npos);
  const std::string text = longer.object().description().string();
  EXPECT_TRUE(text.starts_with("[1][2][3]")) << text;
  EXPECT_TRUE(text.ends_with("[499][500]")) << text;
  EXPECT_NE(text.find("[16]…[485]"), std::string::npos) << text;
}
