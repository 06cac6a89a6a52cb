#include "platform/foundation/GoingIn.h"

#include <array>
#include <chrono>
#include <cstddef>
#include <deque>
#include <filesystem>
#include <forward_list>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <span>
#include <sstream>
#include <string>
#include <tuple>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include <gtest/gtest.h>

#include "platform/foundation/Foundation.h"

namespace {

using std::chrono::system_clock;

enum Plain { first, second };
enum class Scoped : std::uint8_t { low = 3, high = 200 };
enum class Flag : bool { off, on };

std::string described(const NSObject& object) {
  return object.description().string();
}

TEST(GoingIn, RangesAreArrays) {
  EXPECT_EQ(NSObject(std::vector<int>{1, 2}), (NSArray{1, 2}));
  EXPECT_EQ(NSObject(std::array<double, 2>{1.5, 2}), (NSArray{1.5, 2}));
  EXPECT_EQ(NSObject(std::list<std::string>{"a", "b"}), (NSArray{"a", "b"}));
  EXPECT_EQ(NSObject(std::deque<const char*>{"a"}), NSArray{"a"});
  EXPECT_EQ(NSObject(std::forward_list<NSString>{"a", "b"}), (NSArray{"a", "b"}));
  EXPECT_EQ(NSObject(std::span<const int>()), NSArray::array());
  EXPECT_EQ(NSObject(std::initializer_list<int>{4, 5}), (NSArray{4, 5}));
  const int plain[] = {6, 7};
  EXPECT_EQ(NSObject(plain), (NSArray{6, 7}));
}

TEST(GoingIn, TheProxiesOfARangeAreWhatTheyStandFor) {
  const NSObject flags = std::vector<bool>{true, false};
  EXPECT_EQ(described(flags), "(1, 0)");
  EXPECT_EQ(flags[0].as<NSNumber>().kind(), NSNumber::Kind::boolean);
}

TEST(GoingIn, RangesOfUnknownLengthGrow) {
  std::istringstream words("one two three four five six seven eight nine ten");
  struct Words {
    std::istream& in;
    std::istream_iterator<std::string> begin() { return std::istream_iterator<std::string>(in); }
    std::istream_iterator<std::string> end() { return {}; }
  };
  const NSObject array = Words{words};
  EXPECT_EQ(array.count(), 10u);
  EXPECT_EQ(array[0].stringValue(), "one");
  EXPECT_EQ(array[9].stringValue(), "ten");
}

TEST(GoingIn, RangesOfBytesAreData) {
  const NSData bytes = NSData::dataWithBytes("\1\2", 2);
  EXPECT_EQ(NSObject(std::vector<std::uint8_t>{1, 2}), bytes);
  EXPECT_EQ(NSObject(std::array<std::uint8_t, 2>{1, 2}), bytes);
  EXPECT_EQ(NSObject(std::vector<std::byte>{std::byte{1}, std::byte{2}}), bytes);
  EXPECT_EQ(NSObject(std::deque<std::uint8_t>{1, 2}), bytes);
  const std::vector<std::uint8_t> owner{1, 2};
  EXPECT_EQ(NSObject(std::span<const std::uint8_t>(owner)), bytes);
  EXPECT_EQ(NSData(std::as_bytes(std::span(owner))), bytes);
  EXPECT_EQ(NSObject(std::vector<std::uint8_t>()).count(), 0u);
}

TEST(GoingIn, MapsAreDictionaries) {
  EXPECT_EQ(NSObject(std::map<std::string, int>{{"a", 1}, {"b", 2}}), (NSDictionary{{"a", 1}, {"b", 2}}));
  EXPECT_EQ(NSObject(std::unordered_map<int, std::string>{{1, "a"}}), (NSDictionary{{1, "a"}}));
  const std::map<std::string_view, double, std::less<>> transparent{{"a", 1.5}};
  const NSDictionary dictionary = transparent;
  EXPECT_EQ(dictionary, (NSDictionary{{"a", 1.5}}));
  EXPECT_EQ(NSDictionary{transparent}, dictionary);
}

TEST(GoingIn, MapsWithEqualKeysLoseNothing) {
  const NSObject entries = std::multimap<std::string, int>{{"a", 1}, {"a", 2}};
  EXPECT_EQ(entries, (NSArray{NSArray{"a", 1}, NSArray{"a", 2}}));
  EXPECT_EQ(NSObject(std::multiset<int>{1, 1}), (NSArray{1, 1}));
}

TEST(GoingIn, SetsAreSets) {
  EXPECT_EQ(NSObject(std::set<int>{2, 1}), (NSSet{1, 2}));
  EXPECT_EQ(NSObject(std::unordered_set<std::string>{"a"}), NSSet{"a"});
  const std::set<int> numbers{1, 2};
  const NSSet set = numbers;
  EXPECT_EQ(set.count(), 2u);
  EXPECT_EQ(NSSet{numbers}, set);
  EXPECT_EQ((NSSet{numbers, std::set<int>{}}).count(), 2u);
}

TEST(GoingIn, OptionalsAreTheirValueOrNil) {
  EXPECT_EQ(NSObject(std::optional<int>(7)), NSObject(7));
  EXPECT_TRUE(NSObject(std::optional<int>()).isNil());
  EXPECT_TRUE(NSObject(std::optional<std::optional<int>>(std::optional<int>())).isNil());
  EXPECT_EQ(NSObject(std::optional<std::vector<int>>({1, 2})), (NSArray{1, 2}));
}

TEST(GoingIn, OptionalsWithoutAValueKeepTheirPlaceInArraysAndAreLeftOutOfDictionaries) {
  const std::vector<std::optional<int>> samples{1, std::nullopt, 3};
  EXPECT_EQ(NSObject(samples), (NSArray{1, NSNull::null(), 3}));
  EXPECT_EQ(NSArray(samples), NSObject(samples));
  EXPECT_EQ(NSObject(std::pair<int, std::optional<int>>(1, std::nullopt)), (NSArray{1, NSNull::null()}));
  const std::map<std::string, std::optional<int>> settings{{"a", 1}, {"b", std::nullopt}};
  EXPECT_EQ(NSObject(settings), (NSDictionary{{"a", 1}}));
  EXPECT_EQ(NSDictionary(settings), (NSDictionary{{"a", 1}}));
}

TEST(GoingIn, NilInAContainerRaises) {
  const auto make = [](const NSObject& object) { return object.count(); };
  EXPECT_THROW(make(std::vector<NSString>{"a", nil}), NSException);
  EXPECT_THROW(make(std::vector<const char*>{nullptr}), NSException);
  EXPECT_THROW(make(std::map<std::string, NSString>{{"a", nil}}), NSException);
  EXPECT_THROW(make(std::pair<int, NSString>(1, nil)), NSException);
  try {
    EXPECT_EQ(NSArray(std::vector<NSString>{"a", nil}).count(), 0u);
    ADD_FAILURE() << "no exception";
  } catch (const NSException& exception) {
    EXPECT_NE(exception.reason().find("an array"), std::string::npos) << exception.reason();
  }
}

TEST(GoingIn, EnumeratorsAreTheirUnderlyingIntegers) {
  EXPECT_EQ(NSObject(second), NSObject(1));
  EXPECT_EQ(NSObject(Scoped::high), NSObject(200));
  EXPECT_EQ(NSObject(Scoped::high).as<NSNumber>().kind(), NSNumber::Kind::unsignedInteger);
  EXPECT_EQ(NSObject(Flag::on).as<NSNumber>().kind(), NSNumber::Kind::boolean);
  EXPECT_EQ(NSObject(std::vector<Scoped>{Scoped::low}), NSArray{3});
}

TEST(GoingIn, DurationsAreSecondsAndPointsInTimeAreDates) {
  using namespace std::chrono_literals;
  EXPECT_EQ(NSObject(1500ms), NSObject(1.5));
  EXPECT_EQ(NSObject(2min), NSObject(120));
  EXPECT_EQ(NSObject(2min).as<NSNumber>().kind(), NSNumber::Kind::floatingPoint);
  const system_clock::time_point time{1'000'500ms};
  EXPECT_EQ(NSObject(time), NSDate::dateWithTimeIntervalSince1970(1000.5));
  const NSDate date = std::chrono::sys_days(std::chrono::year(1970) / 1 / 2);
  EXPECT_EQ(date.timeIntervalSince1970(), 86400);
}

TEST(GoingIn, PairsAndTuplesAreArrays) {
  EXPECT_EQ(NSObject(std::pair<int, std::string>(1, "a")), (NSArray{1, "a"}));
  EXPECT_EQ(NSObject(std::tuple<bool, double, std::vector<int>>(true, 2.5, {1, 2})),
            (NSArray{true, 2.5, NSArray{1, 2}}));
  EXPECT_EQ(NSObject(std::tuple<>()), NSArray::array());
}

TEST(GoingIn, WhatConvertsToAStringIsText) {
  EXPECT_EQ(NSObject(std::filesystem::path("/tmp")).stringValue(), "/tmp");
  struct Name {
    operator const char*() const { return "name"; }
  };
  EXPECT_EQ(NSObject(Name()).stringValue(), "name");
  const NSDictionary message{{"path", std::filesystem::path("/tmp")}};
  EXPECT_EQ(message["path"].stringValue(), "/tmp");
}

TEST(GoingIn, ContainersNest) {
  const std::map<std::string, std::vector<std::map<int, std::optional<std::string>>>> nested{{"a", {{{1, "x"}}, {}}}};
  EXPECT_EQ(described(NSDictionary(nested)), "{a = ({1 = x}, {})}");
  const NSDictionary message{{"op", "sum"}, {"terms", std::vector<double>{1, 2.5}}, {"limits", std::pair(0, 10)}};
  EXPECT_EQ(described(message), "{op = sum; terms = (1, 2.5); limits = (0, 10)}");
}

TEST(GoingIn, BracesAroundOneRangeAreThatRangeForAnArray) {
  const std::vector<int> numbers{1, 2};
  EXPECT_EQ(NSArray{numbers}, (NSArray{1, 2}));
  const NSArray copied = {numbers};
  EXPECT_EQ(copied, (NSArray{1, 2}));
  EXPECT_EQ((NSArray{numbers, numbers}), (NSArray{NSArray{1, 2}, NSArray{1, 2}}));
  EXPECT_EQ((NSArray{std::list<int>{1, 2}}), (NSArray{1, 2}));
  EXPECT_EQ((NSArray{std::pair(1, "a")}), (NSArray{1, "a"}));
  EXPECT_EQ((NSArray{std::vector{1}, std::list{2}}), (NSArray{NSArray::arrayWithObjects({1}), std::list{2}}));
  EXPECT_EQ((NSArray{{1, 2}}), (NSArray{1, 2}));
}

TEST(GoingIn, AVectorOfBytesIsAnArrayOfNumbersOnlyWhereAnArrayIsAskedFor) {
  const std::vector<std::uint8_t> bytes{1, 2};
  EXPECT_EQ(NSArray(bytes), (NSArray{1, 2}));
  EXPECT_EQ(NSArray{bytes}, (NSArray{1, 2}));
  EXPECT_EQ((NSArray{bytes, bytes}), (NSArray{NSData(bytes), NSData(bytes)}));
  EXPECT_EQ((NSDictionary{{"bytes", bytes}})["bytes"], NSData(bytes));
}

TEST(GoingIn, BracesOfTwoOrMoreAreAnArrayInADictionary) {
  const NSDictionary message{{"op", "sum"}, {"terms", {1, 2.5, "x", NSArray{1}}}};
  EXPECT_EQ(message, (NSDictionary{{"op", "sum"}, {"terms", NSArray{1, 2.5, "x", NSArray::arrayWithObjects({1})}}}));
  EXPECT_EQ((NSDictionary{{"words", {"a", "b"}}}), (NSDictionary{{"words", NSArray{"a", "b"}}}));
  EXPECT_EQ((NSDictionary{{"two", {1, nil}}}), (NSDictionary{{"two", NSArray{1}}}));
}

TEST(GoingIn, BracesOfPairsAreADictionaryInADictionary) {
  const NSDictionary message{{"point", {{"x", 1}, {"y", {1, 2}}, {"z", {{"deep", nil}, {"b", "c"}}}}}, {"b", "c"}};
  EXPECT_EQ(described(message), "{point = {x = 1; y = (1, 2); z = {b = c}}; b = c}");
}

template <class T>
concept TakesBracesOfOnePair = requires {
  T{{"k", {{"x", 1}}}};
};
template <class T>
concept TakesBracesOfTwoPairs = requires {
  T{{"k", {{"x", 1}, {"y", 2}}}};
};
template <class T>
concept TakesBracesOfPairsOfNumbers = requires {
  T{{"k", {{1, 2}, {3, 4}}}};
};
template <class T>
concept TakesBracesInAnArray = requires {
  T{{"k", {1, {2, 3}}}};
};

static_assert(!TakesBracesOfOnePair<NSDictionary> && TakesBracesOfTwoPairs<NSDictionary>);
static_assert(!TakesBracesOfPairsOfNumbers<NSDictionary> && !TakesBracesInAnArray<NSDictionary>);

TEST(GoingIn, BracesAroundOneValueOrNoneAreThatValueOrNil) {
  EXPECT_EQ((NSDictionary{{"k", {5}}}), (NSDictionary{{"k", 5}}));
  EXPECT_EQ((NSDictionary{{"k", {5}}, {"l", {1, 2}}}), (NSDictionary{{"k", 5}, {"l", NSArray{1, 2}}}));
  EXPECT_EQ((NSDictionary{{"k", {}}}).count(), 0u);
  EXPECT_EQ((NSDictionary{{"k", {}}, {"l", {1, 2}}}).count(), 1u);
}

TEST(GoingIn, ArgumentsOfAFormatConvertAsWell) {
  EXPECT_EQ(NSString::stringWithFormat("%@", std::vector<int>{1, 2}).view(), "(1, 2)");
}

// A class that is a range, but says itself what it stands for.
struct Samples : std::vector<int> {
  operator NSArray() const { return NSArray{"samples"}; }
};

TEST(GoingIn, AClassThatConvertsByItselfDoesSoStill) {
  const NSObject object = Samples();
  EXPECT_EQ(object, NSArray{"samples"});
}

struct Unknown {};
struct Node {
  std::vector<Node> children;
};

template <class From, class To = NSObject>
inline constexpr bool kConverts = std::is_convertible_v<From, To>;

static_assert(!kConverts<int*> && !kConverts<void*> && !kConverts<const int*> && !kConverts<void (*)()>);
static_assert(!kConverts<unsigned char*> && !kConverts<wchar_t*> && !kConverts<const char8_t*>);
static_assert(!kConverts<std::unique_ptr<int>> && !kConverts<std::shared_ptr<NSObject>>);
static_assert(!kConverts<NSObject*> && !kConverts<int Unknown::*>);
static_assert(!kConverts<Unknown> && !kConverts<Node> && !kConverts<std::vector<Node>>);
static_assert(!kConverts<std::vector<int*>> && !kConverts<std::map<std::string, Unknown>>);
static_assert(!kConverts<std::map<int*, int>> && !kConverts<std::optional<void*>>);
static_assert(!kConverts<std::pair<int, Unknown>> && !kConverts<std::tuple<int*>>);
static_assert(!kConverts<std::u8string> && !kConverts<std::wstring> && !kConverts<const char16_t (&)[2]>);
static_assert(!kConverts<std::chrono::steady_clock::time_point>);
static_assert(!kConverts<std::vector<int>, NSString> && !kConverts<std::vector<int>, NSDictionary>);
static_assert(!kConverts<std::map<int, int>, NSArray> && !kConverts<std::set<int>, NSArray>);
static_assert(!kConverts<std::vector<int>, NSSet> && !kConverts<std::vector<int>, NSData>);
static_assert(!kConverts<std::vector<int>, bool> && !kConverts<NSObject, bool>);
static_assert(velto::BecomesObject<std::vector<std::map<std::string, std::optional<Scoped>>>>);
static_assert(!velto::BecomesObject<std::vector<std::map<std::string, std::optional<Unknown>>>>);
static_assert(std::is_nothrow_move_constructible_v<NSObject> && std::is_nothrow_copy_constructible_v<NSString>);
static_assert(std::is_nothrow_constructible_v<NSObject, int> && std::is_nothrow_constructible_v<NSObject, const bool&>);

}  // namespace
