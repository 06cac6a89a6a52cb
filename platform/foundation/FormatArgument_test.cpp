#include "platform/foundation/FormatArgument.h"

#include <cstdint>
#include <string>

#include <gtest/gtest.h>

#include "platform/foundation/Foundation.h"

namespace velto {
namespace {

template <class... Arguments>
std::string format(const char* text, const Arguments&... arguments) {
  return formatText(text, {FormatArgument(arguments)...});
}

TEST(FormatArgument, PlainTextAndPercentSignsPassThrough) {
  EXPECT_EQ(format("plain"), "plain");
  EXPECT_EQ(format("100%% of %% it"), "100% of % it");
  EXPECT_EQ(format(""), "");
  EXPECT_EQ(format(nullptr), "");
}

TEST(FormatArgument, IntegersPrintByTheirOwnType) {
  EXPECT_EQ(format("%d %i %u", 1, -2, 3U), "1 -2 3");
  EXPECT_EQ(format("%d", UINT64_MAX), "18446744073709551615");
  EXPECT_EQ(format("%ld %lld %hhd %zu %jd", INT64_MIN, std::int64_t{1}, 300, std::size_t{2}, 3),
            "-9223372036854775808 1 300 2 3");
  EXPECT_EQ(format("%u", -1), "-1");
  EXPECT_EQ(format("%d", true), "1");
  EXPECT_EQ(format("%x %X %#x", 255, 255, 255), "ff FF 0xff");
}

TEST(FormatArgument, FlagsWidthAndPrecisionWorkAsInPrintf) {
  EXPECT_EQ(format("[%5d] [%-5d] [%05d] [%+d] [% d] [%.3d]", 42, 42, 42, 42, 42, 7),
            "[   42] [42   ] [00042] [+42] [ 42] [007]");
  EXPECT_EQ(format("[%8.2f] [%-8.1f] [%e] [%g] [%+.0f]", 3.14159, 2.5, 1500.0, 0.5, 2.0),
            "[    3.14] [2.5     ] [1.500000e+03] [0.5] [+2]");
  EXPECT_EQ(format("[%5s] [%-5s] [%.2s]", "abc", "abc", "abc"), "[  abc] [abc  ] [ab]");
  EXPECT_EQ(format("[%*d] [%-*d] [%.*f] [%*d]", 4, 1, 4, 2, 1, 2.55, -3, 3), "[   1] [2   ] [2.5] [3  ]");
}

TEST(FormatArgument, ObjectsPrintTheirDescription) {
  EXPECT_EQ(format("%@ and %@", NSArray{1, 2}, NSObject()), "(1, 2) and (null)");
  EXPECT_EQ(format("%@ %@ %@ %@", 1, 2.5, "text", std::string("string")), "1 2.5 text string");
  EXPECT_EQ(format("[%6@]", NSObject("abc")), "[   abc]");
}

TEST(FormatArgument, TextsAreTakenInEveryForm) {
  const char* none = nullptr;
  EXPECT_EQ(format("%s %s %s", "a", std::string("b"), NSString("c")), "a b c");
  EXPECT_EQ(format("%s", none), "(null)");
  EXPECT_EQ(format("%s", std::string_view("view")), "view");
}

TEST(FormatArgument, AnArgumentOfAnotherTypePrintsAsAnObjectWould) {
  EXPECT_EQ(format("%d %f %s %x", "text", 3, 2.5, NSObject("object")), "text 3 2.5 object");
  EXPECT_EQ(format("%s", 7), "7");
  EXPECT_EQ(format("%d", 2.5), "2.5");
}

TEST(FormatArgument, APlaceholderWithoutAnArgumentReadsNothing) {
  EXPECT_EQ(format("%d %s %@ %f %n"), "(null) (null) (null) (null) (null)");
  EXPECT_EQ(format("%*d"), "(null)");
  EXPECT_EQ(format("%d %d", 1), "1 (null)");
}

TEST(FormatArgument, ArgumentsWithoutAPlaceholderAreLeftOut) {
  EXPECT_EQ(format("%d", 1, 2, 3), "1");
}

TEST(FormatArgument, WhatIsNoPlaceholderPrintsAsItStands) {
  EXPECT_EQ(format("50%", 1), "50%");
  EXPECT_EQ(format("%5", 1), "%5");
  EXPECT_EQ(format("%-.", 1), "%-.");
  EXPECT_EQ(format("%ll", 1), "%ll");
  EXPECT_EQ(format("%! %d", 1), "%! 1");
}

TEST(FormatArgument, UnknownConversionsTakeAnArgumentAndPrintIt) {
  EXPECT_EQ(format("%c %p %n", 1, "two", 3), "1 two 3");
}

TEST(FormatArgument, SillyWidthsAreCapped) {
  EXPECT_EQ(format("%99999999999999999999d", 1).size(), 4096u);
  EXPECT_EQ(format("%99999999999s", "x").size(), 4096u);
  EXPECT_EQ(format("%*d", INT64_MAX, 1).size(), 4096u);
  EXPECT_EQ(format("%*d", INT64_MIN, 1).size(), 4096u);
  EXPECT_EQ(format("%.99999999999f", 1.0).size(), 4098u);
}

TEST(FormatArgument, HugeDoublesPrintWhole) {
  EXPECT_EQ(format("%f", 1e308).size(), 309u + 7);
}

TEST(FormatArgument, TextIsCutBetweenCharacters) {
  EXPECT_EQ(format("%.2s|", "aä"), "a|");
}

TEST(FormatArgument, RepeatedFlagsCountOnce) {
  EXPECT_EQ(format("[%-----5d]", 1), "[1    ]");
}

}  // namespace
}  // namespace velto
