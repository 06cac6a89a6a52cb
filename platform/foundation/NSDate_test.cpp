#include "platform/foundation/NSDate.h"

#include <cmath>
#include <condition_variable>
#include <limits>
#include <mutex>

#include <gtest/gtest.h>

#include "platform/foundation/Foundation.h"

namespace {

using std::chrono::steady_clock;

constexpr double kNever = std::numeric_limits<double>::infinity();
constexpr double kNoTime = std::numeric_limits<double>::quiet_NaN();
constexpr double kHundredYears = 3155760000;

TEST(NSDate, RelativeDatesMeasureByTheSteadyClock) {
  const auto before = steady_clock::now();
  const NSDate date = NSDate::dateWithTimeIntervalSinceNow(60);
  const auto after = steady_clock::now();
  EXPECT_GE(date.steadyTime(), before + std::chrono::seconds(60));
  EXPECT_LE(date.steadyTime(), after + std::chrono::seconds(60));
  EXPECT_EQ(date.steadyTime(), date.steadyTime());
  EXPECT_LE(date.timeIntervalSinceNow(), 60);
  EXPECT_GT(date.timeIntervalSinceNow(), 50);
}

TEST(NSDate, NowHasPassedOnceItIsAskedFor) {
  const NSDate now = NSDate::date();
  EXPECT_LE(now.timeIntervalSinceNow(), 0);
  const auto time = now.steadyTime();
  EXPECT_LE(time, steady_clock::now());
  EXPECT_GT(now.timeIntervalSince1970(), 1.6e9);
}

TEST(NSDate, CalendarDatesKeepTheirSeconds) {
  EXPECT_EQ(NSDate::dateWithTimeIntervalSince1970(1234.5).timeIntervalSince1970(), 1234.5);
  EXPECT_LT(NSDate::dateWithTimeIntervalSince1970(0).timeIntervalSinceNow(), -1.6e9);
  const double inAnHour = NSDate::date().timeIntervalSince1970() + 3600;
  const auto time = NSDate::dateWithTimeIntervalSince1970(inAnHour).steadyTime();
  EXPECT_GT(time, steady_clock::now() + std::chrono::minutes(59));
  EXPECT_LT(time, steady_clock::now() + std::chrono::minutes(61));
}

TEST(NSDate, NotANumberIsNoIntervalAtAll) {
  EXPECT_LE(NSDate::dateWithTimeIntervalSinceNow(kNoTime).timeIntervalSinceNow(), 0);
  const auto time = NSDate::dateWithTimeIntervalSinceNow(kNoTime).steadyTime();
  EXPECT_LE(time, steady_clock::now());
  EXPECT_EQ(NSDate::dateWithTimeIntervalSince1970(kNoTime).timeIntervalSince1970(), 0);
}

TEST(NSDate, HugeIntervalsSaturateSoThatTheyCanBeWaitedFor) {
  for (const double interval : {1e10, 1e18, 1e300, kNever}) {
    for (const NSDate& date :
         {NSDate::dateWithTimeIntervalSinceNow(interval), NSDate::dateWithTimeIntervalSince1970(interval)}) {
      EXPECT_GT(date.steadyTime(), steady_clock::now() + std::chrono::hours(24 * 365 * 50));
      EXPECT_TRUE(std::isfinite(date.timeIntervalSince1970()));
      EXPECT_TRUE(std::isfinite(date.timeIntervalSinceNow()));
    }
    const auto past = NSDate::dateWithTimeIntervalSinceNow(-interval).steadyTime();
    EXPECT_LE(past, steady_clock::now());
    EXPECT_LE(NSDate::dateWithTimeIntervalSinceNow(interval).timeIntervalSinceNow(), kHundredYears);
  }
}

TEST(NSDate, DatesLongPastCanBeWaitedFor) {
  std::mutex mutex;
  std::condition_variable condition;
  std::unique_lock<std::mutex> lock(mutex);
  for (const double interval : {-0.5, -1e6, -1e300, -kNever}) {
    const NSDate date = NSDate::dateWithTimeIntervalSinceNow(interval);
    EXPECT_GE(date.steadyTime().time_since_epoch().count(), 0);
    EXPECT_EQ(condition.wait_until(lock, date.steadyTime()), std::cv_status::timeout);
    EXPECT_LT(date.timeIntervalSinceNow(), 0);
  }
}

TEST(NSDate, NilIsNowAndZero) {
  const NSDate none;
  EXPECT_EQ(none.timeIntervalSinceNow(), 0);
  EXPECT_EQ(none.timeIntervalSince1970(), 0);
  const auto time = none.steadyTime();
  EXPECT_LE(time, steady_clock::now());
}

TEST(NSDate, EqualsBySecondsSince1970) {
  const NSDate relative = NSDate::dateWithTimeIntervalSinceNow(5);
  const NSDate same = NSDate::dateWithTimeIntervalSince1970(relative.timeIntervalSince1970());
  EXPECT_EQ(relative, same);
  EXPECT_EQ(relative.hash(), same.hash());
  EXPECT_NE(relative, NSDate::dateWithTimeIntervalSince1970(5));
  const NSDate zero = NSDate::dateWithTimeIntervalSince1970(0.0);
  const NSDate negativeZero = NSDate::dateWithTimeIntervalSince1970(-0.0);
  EXPECT_EQ(zero, negativeZero);
  EXPECT_EQ(zero.hash(), negativeZero.hash());
}

TEST(NSDate, DescribesItselfInUTC) {
  EXPECT_EQ(NSDate::dateWithTimeIntervalSince1970(0).description().string(), "1970-01-01T00:00:00.000Z");
  EXPECT_EQ(NSDate::dateWithTimeIntervalSince1970(1700000000.123).description().string(), "2023-11-14T22:13:20.123Z");
  EXPECT_EQ(NSDate::dateWithTimeIntervalSince1970(-0.001).description().string(), "1969-12-31T23:59:59.999Z");
  EXPECT_EQ(NSDate::dateWithTimeIntervalSince1970(951782400).description().string(), "2000-02-29T00:00:00.000Z");
  EXPECT_EQ(NSDate::dateWithTimeIntervalSince1970(253402300799.0).description().string(), "9999-12-31T23:59:59.000Z");
  EXPECT_EQ(NSDate::dateWithTimeIntervalSince1970(-62135596800.0).description().string(), "0001-01-01T00:00:00.000Z");
}

TEST(NSDate, DescribesDatesBeyondTheCalendarBySeconds) {
  EXPECT_EQ(NSDate::dateWithTimeIntervalSince1970(253402300799.9999).description().string(),
            "253402300799.9999 seconds since 1970");
  EXPECT_EQ(NSDate::dateWithTimeIntervalSince1970(1e300).description().string(), "1e+300 seconds since 1970");
  EXPECT_EQ(NSDate::dateWithTimeIntervalSince1970(-1e300).description().string(), "-1e+300 seconds since 1970");
}

}  // namespace
