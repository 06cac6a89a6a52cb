#include "platform/logging/RepeatedLines.h"

#include <chrono>
#include <string>

#include <gtest/gtest.h>

namespace {

using velto::HeldLines;
using velto::RepeatedLines;
using namespace std::chrono_literals;

constexpr std::uint64_t kPlace = 7;

// Time goes by as the test says.
class RepeatedLinesTest : public testing::Test {
 protected:
  bool isShown(const std::string& text, std::uint64_t place = kPlace) {
    const RepeatedLines::Verdict verdict = lines_.judge(place, text, now_);
    if (verdict.former) former_ = verdict.former->text();
    return verdict.isShown;
  }
  std::string over() {
    const auto held = lines_.takeOver(now_);
    return held ? held->text() : "";
  }

  RepeatedLines lines_;
  RepeatedLines::Time now_{1000s};
  std::string former_;
};

TEST_F(RepeatedLinesTest, ALineIsShownOnceInASecond) {
  EXPECT_TRUE(isShown("a"));
  now_ += 999ms;
  EXPECT_FALSE(isShown("a"));
  EXPECT_TRUE(isShown("b"));
  now_ += 1ms;
  EXPECT_TRUE(isShown("a"));
}

TEST_F(RepeatedLinesTest, TenDifferentLinesOfAPlaceAreShownInASecond) {
  for (int each = 0; each < 10; ++each) EXPECT_TRUE(isShown(std::to_string(each)));
  EXPECT_FALSE(isShown("10"));
  EXPECT_TRUE(isShown("10", kPlace + 1));
  now_ += 1s;
  for (int each = 0; each < 10; ++each) EXPECT_TRUE(isShown(std::to_string(each)));
  EXPECT_FALSE(isShown("11"));
}

TEST_F(RepeatedLinesTest, WhatWasHeldBackIsToldWithTheNextLineAfterTheSecond) {
  for (int each = 0; each < 8; ++each) isShown("a");
  now_ += 1s;
  EXPECT_TRUE(isShown("b"));
  EXPECT_EQ(former_, "a (and 6 more like it)");
  former_.clear();
  now_ += 1s;
  EXPECT_TRUE(isShown("b"));
  EXPECT_EQ(former_, "");
}

TEST_F(RepeatedLinesTest, ASingleLineHeldBackIsToldAsItWas) {
  isShown("a");
  isShown("a");
  now_ += 1s;
  EXPECT_EQ(over(), "a");
}

TEST_F(RepeatedLinesTest, WhatWasHeldBackIsToldWhenItsSecondIsOverAndOnce) {
  EXPECT_FALSE(lines_.nextOver());
  isShown("a");
  isShown("a");
  now_ += 500ms;
  isShown("b", kPlace + 1);
  isShown("b", kPlace + 1);
  EXPECT_EQ(lines_.nextOver(), now_ + 500ms);
  EXPECT_EQ(over(), "");
  now_ += 500ms;
  EXPECT_EQ(over(), "a");
  EXPECT_EQ(over(), "");
  EXPECT_EQ(lines_.nextOver(), now_ + 500ms);
  now_ += 500ms;
  EXPECT_EQ(over(), "b");
  EXPECT_FALSE(lines_.nextOver());
}

TEST_F(RepeatedLinesTest, AtTheEndEverythingIsTold) {
  isShown("a");
  isShown("a");
  ASSERT_TRUE(lines_.takeAny());
  EXPECT_FALSE(lines_.takeAny());
}

TEST_F(RepeatedLinesTest, OfALongLineTheBeginningIsKept) {
  const std::string longest(HeldLines::kMaximumTextBytes, 'x');
  HeldLines held;
  held.add(longest);
  EXPECT_EQ(held.text(), longest);
  held.clear();
  held.add(longest + "x");
  EXPECT_EQ(held.text(), longest + "...");
  held.clear();
  held.add(longest.substr(1) + "ä");
  EXPECT_EQ(held.text(), longest.substr(1) + "...");
}

TEST_F(RepeatedLinesTest, PlacesBeyondThoseThereIsRoomForShareOneAllowance) {
  std::uint64_t place = 0;
  for (; place < RepeatedLines::kMaximumPlaces; ++place) EXPECT_TRUE(isShown("first", place));
  std::size_t shown = 0;
  for (; place < 1000; ++place) shown += isShown(std::to_string(place), place) ? 1 : 0;
  EXPECT_EQ(shown, RepeatedLines::kMaximumLinesPerWindow);
  EXPECT_TRUE(isShown("second", 0));
  now_ += 1s;
  EXPECT_EQ(over(), "999 (and 925 more like it)");
  EXPECT_TRUE(isShown("first", place));
}

TEST_F(RepeatedLinesTest, APlaceThatGivesWayToAnotherLosesNothing) {
  for (std::uint64_t place = 0; place < RepeatedLines::kMaximumPlaces; ++place) {
    isShown("a", place);
    isShown("a", place);
  }
  now_ += 1s;
  std::size_t told = 0;
  for (std::uint64_t place = 0; place < 10; ++place) {
    former_.clear();
    EXPECT_TRUE(isShown("b", 1000 + place));
    told += former_ == "a" ? 1 : 0;
  }
  while (over() == "a") ++told;
  EXPECT_EQ(told, RepeatedLines::kMaximumPlaces);
}

}  // namespace
