#include "platform/foundation/UTF8.h"

#include <string>

#include <gtest/gtest.h>

namespace velto {
namespace {

using namespace std::string_literals;

TEST(UTF8, AcceptsEveryWellFormedBoundary) {
  for (const std::string& text : {""s, "a"s, "\0"s, "\x7F"s, "\u0080"s, "\u07FF"s, "\u0800"s, "\uD7FF"s, "\uE000"s,
                                  "\uFFFF"s, "\U00010000"s, "\U0010FFFF"s, "a long plain text, more than a word"s}) {
    EXPECT_TRUE(isValidUTF8(text)) << testing::PrintToString(text);
    EXPECT_EQ(repairedUTF8(text), text);
  }
}

TEST(UTF8, RefusesWhatIsNotUTF8) {
  for (const std::string& text : {"\x80"s, "\xBF"s, "\xC0\x80"s, "\xC1\xBF"s, "\xE0\x9F\xBF"s, "\xED\xA0\x80"s,
                                  "\xED\xBF\xBF"s, "\xF0\x8F\xBF\xBF"s, "\xF4\x90\x80\x80"s, "\xF5\x80\x80\x80"s,
                                  "\xFF"s, "\xC3"s, "\xE2\x82"s, "\xF0\x9F\x98"s, "long enough for a word \xFE"s}) {
    EXPECT_FALSE(isValidUTF8(text)) << testing::PrintToString(text);
    EXPECT_TRUE(isValidUTF8(repairedUTF8(text)));
  }
}

TEST(UTF8, ReplacesEachLongestBrokenStartOnce) {
  EXPECT_EQ(repairedUTF8("a\xF1\x80\x80\xE1\x80\xC2"
                         "b\x80"
                         "c\x80\xBF"
                         "d"),
            "a\uFFFD\uFFFD\uFFFDb\uFFFDc\uFFFD\uFFFDd");
}

TEST(UTF8, ReplacesSurrogatesAndOverlongFormsByteByByte) {
  EXPECT_EQ(repairedUTF8("\xED\xA0\x80"), "\uFFFD\uFFFD\uFFFD");
  EXPECT_EQ(repairedUTF8("\xC0\xAF"), "\uFFFD\uFFFD");
  EXPECT_EQ(repairedUTF8("\xF4\x91\x92\x93"), "\uFFFD\uFFFD\uFFFD\uFFFD");
}

TEST(UTF8, ReplacesASequenceThatTheEndCutsShort) {
  EXPECT_EQ(repairedUTF8("x\xF0\x9F\x98"), "x\uFFFD");
  EXPECT_EQ(repairedUTF8("x\xE2\x82"), "x\uFFFD");
}

TEST(UTF8, CutsOnlyBetweenCharacters) {
  EXPECT_EQ(lengthCutBetweenCharacters("aäb", 0), 0u);
  EXPECT_EQ(lengthCutBetweenCharacters("aäb", 1), 1u);
  EXPECT_EQ(lengthCutBetweenCharacters("aäb", 2), 1u);
  EXPECT_EQ(lengthCutBetweenCharacters("aäb", 3), 3u);
  EXPECT_EQ(lengthCutBetweenCharacters("aäb", 99), 4u);
}

}  // namespace
}  // namespace velto
