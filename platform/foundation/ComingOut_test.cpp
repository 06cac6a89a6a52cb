#include "platform/foundation/ComingOut.h"

#include <array>
#include <chrono>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <filesystem>
#include <limits>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <tuple>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include <gtest/gtest.h>

#include "platform/foundation/Foundation.h"

namespace {

using namespace std::chrono_literals;
using std::chrono::system_clock;

enum class Level : std::uint8_t { low = 3, high = 200 };
enum class Flag : bool { off, on };

constexpr std::int64_t kMinimum = std::numeric_limits<std::int64_t>::min();
constexpr std::uint64_t kMaximum = std::numeric_limits<std::uint64_t>::max();

// Why a value is no T; "" if it is one.
template <class T>
std::string whyNot(const NSObject& value) {
  return value.get<T>("").error();
}

TEST(ComingOut, WhatOthersHaveWrittenBreaksNoLineAndIsBounded) {
  using Numbers = std::map<std::string, int>;
  EXPECT_EQ(whyNot<Numbers>(NSDictionary{{"a\nline", "text"}}), "a\\u{a}line: is a string, not a number");
  EXPECT_LT(whyNot<Numbers>(NSDictionary{{std::string(1 << 20, 'k'), "text"}}).size(), 200U);
  EXPECT_EQ(whyNot<bool>(NSArray{"a"}).find('\n'), std::string::npos);
}

TEST(ComingOut, IntegersFitOrAreNothing) {
  EXPECT_EQ(NSObject(255).to<std::uint8_t>(), 255);
  EXPECT_EQ(NSObject(256).to<std::uint8_t>(), std::nullopt);
  EXPECT_EQ(NSObject(-1).to<std::uint8_t>(), std::nullopt);
  EXPECT_EQ(NSObject(-128).to<std::int8_t>(), -128);
  EXPECT_EQ(NSObject(-129).to<std::int8_t>(), std::nullopt);
  EXPECT_EQ(NSObject(kMaximum).to<std::uint64_t>(), kMaximum);
  EXPECT_EQ(NSObject(kMaximum).to<std::int64_t>(), std::nullopt);
  EXPECT_EQ(NSObject(kMinimum).to<std::int64_t>(), kMinimum);
  EXPECT_EQ(NSObject(-1).to<std::uint64_t>(), std::nullopt);
  EXPECT_EQ(NSObject('a').to<char>(), 'a');
  EXPECT_EQ(whyNot<std::uint8_t>(300), "is 300, not from 0 to 255");
  EXPECT_EQ(whyNot<std::int8_t>(300), "is 300, not from -128 to 127");
}

TEST(ComingOut, WholeNumbersOfAnyKindAreIntegers) {
  EXPECT_EQ(NSObject(2.0).to<int>(), 2);
  EXPECT_EQ(NSObject(-2.0).to<int>(), -2);
  EXPECT_EQ(NSObject(-0.0).to<unsigned>(), 0u);
  EXPECT_EQ(NSObject(2.5).to<int>(), std::nullopt);
  EXPECT_EQ(NSObject(1e300).to<std::uint64_t>(), std::nullopt);
  EXPECT_EQ(NSObject(9223372036854775808.0).to<std::int64_t>(), std::nullopt);
  EXPECT_EQ(NSObject(9223372036854775808.0).to<std::uint64_t>(), std::uint64_t{1} << 63);
  EXPECT_EQ(NSObject(-9223372036854775808.0).to<std::int64_t>(), kMinimum);
  EXPECT_EQ(NSObject(18446744073709551616.0).to<std::uint64_t>(), std::nullopt);
  EXPECT_EQ(NSObject(std::nan("")).to<int>(), std::nullopt);
  EXPECT_EQ(NSObject(INFINITY).to<int>(), std::nullopt);
  EXPECT_EQ(whyNot<int>(2.5), "is 2.5, not a whole number");
  EXPECT_EQ(whyNot<std::int8_t>(300.0), "is 300, not from -128 to 127");
}

TEST(ComingOut, FloatingPointTakesIntegersThatItCanHold) {
  EXPECT_EQ(NSObject(2.5).to<double>(), 2.5);
  EXPECT_EQ(NSObject(7).to<double>(), 7.0);
  EXPECT_EQ(NSObject(7U).to<float>(), 7.0F);
  const std::int64_t odd = (std::int64_t{1} << 53) + 1;
  EXPECT_EQ(NSObject(odd).to<double>(), std::nullopt);
  EXPECT_EQ(NSObject(odd - 1).to<double>(), 9007199254740992.0);
  EXPECT_EQ(NSObject(std::numeric_limits<std::int64_t>::max()).to<double>(), std::nullopt);
  EXPECT_EQ(NSObject(kMaximum).to<double>(), std::nullopt);
  EXPECT_EQ(NSObject(kMinimum).to<double>(), -9223372036854775808.0);
  EXPECT_EQ(NSObject(16777217).to<float>(), std::nullopt);
  EXPECT_EQ(NSObject(0.1).to<float>(), 0.1F);
  EXPECT_EQ(NSObject(1e300).to<float>(), std::nullopt);
  EXPECT_EQ(NSObject(INFINITY).to<float>(), INFINITY);
  EXPECT_TRUE(std::isnan(NSObject(std::nan("")).to<double>().value()));
  EXPECT_EQ(whyNot<float>(16777217), "is 16777217, not a number that the type can hold");
}

TEST(ComingOut, BoolsAreBoolsAndNoNumbers) {
  EXPECT_EQ(NSObject(true).to<bool>(), true);
  EXPECT_EQ(NSObject(false).to<bool>(), false);
  EXPECT_EQ(NSObject(1).to<bool>(), std::nullopt);
  EXPECT_EQ(NSObject(true).to<int>(), std::nullopt);
  EXPECT_EQ(NSObject(true).to<double>(), std::nullopt);
  EXPECT_EQ(whyNot<bool>(1), "is a number, not a bool");
  EXPECT_EQ(whyNot<int>(true), "is a bool, not a number");
}

TEST(ComingOut, TextsAreStrings) {
  EXPECT_EQ(NSObject("").to<std::string>(), "");
  EXPECT_EQ(NSObject("a text that is too long for a handle").to<std::string>(), "a text that is too long for a handle");
  EXPECT_EQ(NSMutableString::stringWithString("a").to<std::string>(), "a");
  EXPECT_EQ(NSObject(7).to<std::string>(), std::nullopt);
  EXPECT_EQ(NSObject("7").to<int>(), std::nullopt);
  EXPECT_EQ(whyNot<std::string>(7), "is a number, not a string");
  EXPECT_EQ(whyNot<int>("7"), "is a string, not a number");
}

TEST(ComingOut, NilIsNothing) {
  EXPECT_EQ(NSObject().to<int>(), std::nullopt);
  EXPECT_EQ(NSObject().to<bool>(), std::nullopt);
  EXPECT_EQ(NSObject().to<std::string>(), std::nullopt);
  EXPECT_EQ(NSObject().to<std::vector<int>>(), std::nullopt);
  EXPECT_EQ(NSObject().to<NSObject>(), std::nullopt);
  EXPECT_EQ(NSObject().to<std::tuple<>>(), std::nullopt);
  EXPECT_EQ(whyNot<int>(nil), "there is nothing");
}

TEST(ComingOut, HandlesAreThoseOfTheirClass) {
  const NSObject array = NSArray{1, 2};
  ASSERT_TRUE(array.to<NSArray>().has_value());
  EXPECT_TRUE(array.to<NSArray>()->isIdenticalTo(array));
  EXPECT_TRUE(array.to<NSObject>()->isIdenticalTo(array));
  EXPECT_EQ(array.to<NSMutableArray>(), std::nullopt);
  EXPECT_EQ(array.to<NSString>(), std::nullopt);
  EXPECT_EQ(NSObject(7).to<NSNumber>(), NSNumber(7));
  EXPECT_EQ(whyNot<NSUUID>(array), "is an array, not of the class NSUUID");
  EXPECT_EQ(whyNot<NSUUID>(NSError::errorWithDomain("d", 1, nil)), "is of the class NSError, not of the class NSUUID");
}

TEST(ComingOut, EveryKindHasItsName) {
  EXPECT_EQ(whyNot<int>(NSNull::null()), "is the null object, not a number");
  EXPECT_EQ(whyNot<int>(NSMutableDictionary::dictionary()), "is a dictionary, not a number");
  EXPECT_EQ(whyNot<int>(NSSet{1}), "is a set, not a number");
  EXPECT_EQ(whyNot<int>(NSMutableData::data()), "is data, not a number");
  EXPECT_EQ(whyNot<int>(NSDate::date()), "is a date, not a number");
  EXPECT_EQ(whyNot<int>(NSUUID::UUID()), "is of the class NSUUID, not a number");
}

TEST(ComingOut, ArraysAreContainersOfWhatTheyHold) {
  const NSObject array = NSArray{1, 2.0, 3U};
  EXPECT_EQ(array.to<std::vector<int>>(), (std::vector<int>{1, 2, 3}));
  EXPECT_EQ(array.to<std::list<double>>(), (std::list<double>{1, 2, 3}));
  EXPECT_EQ(array.to<std::deque<std::int16_t>>(), (std::deque<std::int16_t>{1, 2, 3}));
  EXPECT_EQ((array.to<std::array<int, 3>>()), (std::array<int, 3>{1, 2, 3}));
  EXPECT_EQ((array.to<std::array<int, 2>>()), std::nullopt);
  EXPECT_EQ(NSArray::array().to<std::vector<int>>(), std::vector<int>());
  EXPECT_EQ((NSArray::array().to<std::array<int, 0>>()), (std::array<int, 0>{}));
  EXPECT_EQ((NSArray{true, false}.to<std::vector<bool>>()), (std::vector<bool>{true, false}));
  EXPECT_EQ((NSArray{"a", NSArray{1, 2}}.to<std::vector<NSObject>>()), (std::vector<NSObject>{"a", NSArray{1, 2}}));
  EXPECT_EQ((NSArray{1, "b"}.to<std::vector<int>>()), std::nullopt);
  EXPECT_EQ((whyNot<std::vector<int>>(NSArray{1, "b"})), "[1]: is a string, not a number");
  EXPECT_EQ((whyNot<std::array<int, 2>>(array)), "has 3 elements, not 2");
  EXPECT_EQ((whyNot<std::array<int, 2>>(NSSet{1, 2})), "is a set, not an array");
  EXPECT_EQ(whyNot<std::vector<int>>("text"), "is a string, not an array");
}

TEST(ComingOut, DataIsContainersOfBytes) {
  const NSObject data = NSData::dataWithBytes("\1\2\3", 3);
  EXPECT_EQ(data.to<std::vector<std::uint8_t>>(), (std::vector<std::uint8_t>{1, 2, 3}));
  EXPECT_EQ(data.to<std::vector<std::byte>>(), (std::vector{std::byte{1}, std::byte{2}, std::byte{3}}));
  EXPECT_EQ(data.to<std::deque<std::uint8_t>>(), (std::deque<std::uint8_t>{1, 2, 3}));
  EXPECT_EQ((data.to<std::array<std::uint8_t, 3>>()), (std::array<std::uint8_t, 3>{1, 2, 3}));
  EXPECT_EQ((data.to<std::array<std::uint8_t, 4>>()), std::nullopt);
  EXPECT_EQ(NSMutableData::data().to<std::vector<std::uint8_t>>(), std::vector<std::uint8_t>());
  EXPECT_EQ((NSArray{1, 2}.to<std::vector<std::uint8_t>>()), std::nullopt);
  EXPECT_EQ(data.to<std::vector<int>>(), std::nullopt);
  EXPECT_EQ((whyNot<std::array<std::uint8_t, 4>>(data)), "has 3 bytes, not 4");
  EXPECT_EQ((whyNot<std::vector<std::uint8_t>>(NSArray{1})), "is an array, not data");
}

TEST(ComingOut, DictionariesAreMaps) {
  const NSObject dictionary = NSDictionary{{"a", 1}, {"b", 2}};
  EXPECT_EQ((dictionary.to<std::map<std::string, int>>()), (std::map<std::string, int>{{"a", 1}, {"b", 2}}));
  EXPECT_EQ((dictionary.to<std::unordered_map<std::string, double>>()),
            (std::unordered_map<std::string, double>{{"a", 1}, {"b", 2}}));
  EXPECT_EQ((NSDictionary{{1, "a"}}.to<std::map<int, std::string>>()), (std::map<int, std::string>{{1, "a"}}));
  EXPECT_EQ((dictionary.to<std::map<int, int>>()), std::nullopt);
  EXPECT_EQ((NSArray{1}.to<std::map<int, int>>()), std::nullopt);
  EXPECT_EQ((whyNot<std::map<int, int>>(dictionary)), "is a string, not a number");
  EXPECT_EQ((whyNot<std::map<std::string, bool>>(dictionary)), "a: is a number, not a bool");
  EXPECT_EQ((whyNot<std::map<std::string, bool>>(NSArray{1})), "is an array, not a dictionary");
}

TEST(ComingOut, EntriesThatWereRemovedAreNoneOfAMap) {
  NSMutableDictionary dictionary = NSMutableDictionary::dictionaryWithDictionary({{"a", 1}, {"b", 2}, {"c", 3}});
  dictionary.removeObjectForKey("a");
  EXPECT_EQ((dictionary.to<std::map<std::string, int>>()), (std::map<std::string, int>{{"b", 2}, {"c", 3}}));
}

TEST(ComingOut, KeysThatATypeDoesNotTellApartAreNotLost) {
  const NSObject dictionary = NSDictionary{{0.1, "a"}, {static_cast<double>(0.1F), "b"}};
  EXPECT_EQ((dictionary.to<std::map<double, std::string>>()->size()), 2u);
  EXPECT_EQ((dictionary.to<std::map<float, std::string>>()), std::nullopt);
  EXPECT_EQ((whyNot<std::map<float, std::string>>(dictionary)), "has keys that the type does not tell apart");
  EXPECT_EQ((whyNot<std::set<float>>(dictionary.as<NSDictionary>().allKeys())), "is an array, not a set");
  EXPECT_EQ((whyNot<std::set<float>>(NSSet{0.1, static_cast<double>(0.1F)})),
            "has elements that the type does not tell apart");
}

TEST(ComingOut, SetsAreSets) {
  const NSObject set = NSSet{2, 1};
  EXPECT_EQ(set.to<std::set<int>>(), (std::set<int>{1, 2}));
  EXPECT_EQ(set.to<std::unordered_set<long>>(), (std::unordered_set<long>{1, 2}));
  EXPECT_EQ(set.to<std::set<std::string>>(), std::nullopt);
  EXPECT_EQ(set.to<std::vector<int>>(), std::nullopt);
  NSMutableSet changed = NSMutableSet::initWithSet({1, 2, 3});
  changed.removeObject(1);
  EXPECT_EQ(changed.to<std::set<int>>(), (std::set<int>{2, 3}));
}

TEST(ComingOut, OptionalsAreEmptyForNilAndTheNullObject) {
  using Maybe = std::optional<int>;
  EXPECT_EQ(NSObject().to<Maybe>(), std::optional<Maybe>(Maybe()));
  EXPECT_EQ(NSNull::null().to<Maybe>(), std::optional<Maybe>(Maybe()));
  EXPECT_EQ(NSObject(7).to<Maybe>(), std::optional<Maybe>(Maybe(7)));
  EXPECT_FALSE(NSObject("7").to<Maybe>().has_value());
  const NSObject samples = NSArray{1, NSNull::null(), 3};
  EXPECT_EQ(samples.to<std::vector<Maybe>>(), (std::vector<Maybe>{1, std::nullopt, 3}));
}

TEST(ComingOut, EnumeratorsAreTheirIntegers) {
  EXPECT_EQ(NSObject(200).to<Level>(), Level::high);
  EXPECT_EQ(NSObject(300).to<Level>(), std::nullopt);
  EXPECT_EQ(NSObject("low").to<Level>(), std::nullopt);
  EXPECT_EQ(NSObject(true).to<Flag>(), Flag::on);
  EXPECT_EQ(NSObject(1).to<Flag>(), std::nullopt);
}

TEST(ComingOut, DurationsAreSeconds) {
  EXPECT_EQ(NSObject(1.5).to<std::chrono::milliseconds>(), 1500ms);
  EXPECT_EQ(NSObject(2).to<std::chrono::seconds>(), 2s);
  EXPECT_EQ(NSObject(2.5).to<std::chrono::seconds>(), std::nullopt);
  EXPECT_EQ(NSObject(120.0).to<std::chrono::minutes>(), 2min);
  EXPECT_EQ(NSObject(119).to<std::chrono::minutes>(), std::nullopt);
  EXPECT_EQ(NSObject(2.5).to<std::chrono::duration<double>>(), std::chrono::duration<double>(2.5));
  EXPECT_EQ(NSObject(1e300).to<std::chrono::seconds>(), std::nullopt);
  EXPECT_EQ(NSObject(1e10).to<std::chrono::nanoseconds>(), std::nullopt);
  EXPECT_EQ(NSObject(std::nan("")).to<std::chrono::seconds>(), std::nullopt);
  using Seconds8 = std::chrono::duration<std::int8_t>;
  EXPECT_EQ(NSObject(127).to<Seconds8>(), Seconds8(127));
  EXPECT_EQ(NSObject(128).to<Seconds8>(), std::nullopt);
  EXPECT_EQ(whyNot<std::chrono::seconds>(2.5), "is 2.5, not a whole number of ticks that the type can hold");
  EXPECT_EQ(whyNot<std::chrono::seconds>("2"), "is a string, not a number of seconds");
}

TEST(ComingOut, EveryMillisecondComesBackAsItWentIn) {
  for (int count = -5000; count < 5000; ++count) {
    const std::chrono::milliseconds duration(count * 7919);
    ASSERT_EQ(NSObject(duration).to<std::chrono::milliseconds>(), duration);
    ASSERT_EQ(NSObject(duration).to<std::chrono::nanoseconds>(), duration);
  }
}

TEST(ComingOut, DatesArePointsInTime) {
  const system_clock::time_point time{1'700'000'000'123ms};
  const NSObject date = time;
  EXPECT_LT(std::chrono::abs(date.to<system_clock::time_point>().value() - time), 1us);
  EXPECT_EQ(date.to<std::chrono::sys_time<std::chrono::milliseconds>>(), time);
  EXPECT_EQ(date.to<std::chrono::sys_seconds>(), std::nullopt);
  EXPECT_TRUE(NSDate::date().to<system_clock::time_point>().has_value());
  EXPECT_EQ(NSDate::dateWithTimeIntervalSince1970(86400).to<std::chrono::sys_days>(),
            std::chrono::sys_days(std::chrono::year(1970) / 1 / 2));
  EXPECT_EQ(NSDate::dateWithTimeIntervalSince1970(1e300).to<system_clock::time_point>(), std::nullopt);
  EXPECT_EQ(NSObject(5).to<system_clock::time_point>(), std::nullopt);
  EXPECT_EQ(whyNot<system_clock::time_point>(5), "is a number, not a date");
  EXPECT_EQ(whyNot<std::chrono::sys_days>(NSDate::dateWithTimeIntervalSince1970(1)),
            "is 1970-01-01T00:00:01.000Z, not a whole number of ticks that the type can hold");
}

TEST(ComingOut, PairsAndTuplesAreArraysOfTheirLength) {
  const NSObject array = NSArray{1, "a"};
  EXPECT_EQ((array.to<std::pair<int, std::string>>()), (std::pair<int, std::string>(1, "a")));
  EXPECT_EQ((array.to<std::tuple<double, NSString>>()), (std::tuple<double, NSString>(1, "a")));
  EXPECT_EQ((array.to<std::tuple<int>>()), std::nullopt);
  EXPECT_EQ((array.to<std::pair<int, int>>()), std::nullopt);
  EXPECT_EQ((whyNot<std::pair<int, int>>(array)), "[1]: is a string, not a number");
  EXPECT_EQ((whyNot<std::tuple<int>>(array)), "has 2 elements, not 1");
}

TEST(ComingOut, WhatWentInComesOut) {
  using Nested = std::map<std::string, std::vector<std::tuple<Level, std::optional<double>, std::set<std::string>>>>;
  const Nested nested{{"a", {{Level::low, 2.5, {"x", "y"}}, {Level::high, std::nullopt, {}}}}, {"b", {}}};
  EXPECT_EQ(NSObject(nested).to<Nested>(), nested);
  NSMutableDictionary broken = NSMutableDictionary::dictionaryWithDictionary(nested);
  broken["a"] = NSArray{NSArray{3, 2.5, NSSet{"x"}}, NSArray{3, "no", NSSet{"x"}}};
  EXPECT_EQ(broken.to<Nested>(), std::nullopt);
  EXPECT_EQ(whyNot<Nested>(broken), "a[1][1]: is a string, not a number");
}

TEST(ComingOut, KeysInAReasonAreWrittenAsInAPath) {
  const NSObject dictionary = NSDictionary{{"a.b[c]\\", NSDictionary{{"x", "y"}}}, {5, NSDictionary{{"x", "y"}}}};
  using Inner = std::map<std::string, int>;
  EXPECT_EQ((whyNot<std::map<std::string, Inner>>(dictionary)), "a\\.b\\[c\\]\\\\.x: is a string, not a number");
  EXPECT_EQ((whyNot<std::map<int, Inner>>(NSDictionary{{5, NSDictionary{{"x", "y"}}}})),
            "[5].x: is a string, not a number");
}

struct Unknown {};

static_assert(velto::ComesOutOfObject<std::map<std::string, std::vector<std::optional<Level>>>>);
static_assert(velto::ComesOutOfObject<std::byte> && velto::ComesOutOfObject<std::string>);
static_assert(!velto::ComesOutOfObject<int*> && !velto::ComesOutOfObject<const char*>);
static_assert(!velto::ComesOutOfObject<std::string_view> && !velto::ComesOutOfObject<std::span<const int>>);
static_assert(!velto::ComesOutOfObject<int&> && !velto::ComesOutOfObject<const int> && !velto::ComesOutOfObject<void>);
static_assert(!velto::ComesOutOfObject<Unknown> && !velto::ComesOutOfObject<std::vector<Unknown>>);
static_assert(!velto::ComesOutOfObject<std::unique_ptr<int>> && !velto::ComesOutOfObject<std::optional<int*>>);
static_assert(!velto::ComesOutOfObject<std::multimap<int, int>> && !velto::ComesOutOfObject<std::wstring>);
static_assert(!velto::ComesOutOfObject<std::filesystem::path> && !velto::ComesOutOfObject<int[3]>);
static_assert(!velto::ComesOutOfObject<std::chrono::steady_clock::time_point>);
template <class T>
concept CanBeAskedFor = requires(const NSObject& value) {
  value.to<T>(), value.get<T>("a");
};
static_assert(CanBeAskedFor<int> && !CanBeAskedFor<int*> && !CanBeAskedFor<Unknown>);

}  // namespace
