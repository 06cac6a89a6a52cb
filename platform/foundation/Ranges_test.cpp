// The containers as ranges of C++20.

#include <algorithm>
#include <iterator>
#include <map>
#include <ranges>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "platform/foundation/Foundation.h"

namespace {

static_assert(std::forward_iterator<velto::ObjectIterator> && std::forward_iterator<velto::PairIterator>);
static_assert(std::ranges::forward_range<NSArray> && std::ranges::forward_range<const NSMutableArray>);
static_assert(std::ranges::forward_range<NSSet> && std::ranges::forward_range<const NSMutableSet>);
static_assert(std::ranges::forward_range<NSDictionary> && std::ranges::forward_range<const NSMutableDictionary>);
static_assert(std::ranges::forward_range<velto::Pairs> && std::ranges::forward_range<const velto::Pairs>);
static_assert(std::is_same_v<std::ranges::range_reference_t<NSDictionary>, const NSObject&>);
static_assert(!std::ranges::range<NSString> && !std::ranges::range<NSObject>);

TEST(Ranges, AlgorithmsWalkContainers) {
  const NSArray array{3, 1, 2};
  EXPECT_EQ(std::ranges::count_if(array, [](const NSObject& each) { return each.integerValue() > 1; }), 2);
  EXPECT_EQ(std::ranges::distance(NSDictionary{{"a", 1}, {"b", 2}}.pairs()), 2);
  EXPECT_NE(std::ranges::find(array, NSObject(2)), array.end());
  EXPECT_EQ(std::ranges::find(array, NSObject(7)), array.end());
}

TEST(Ranges, WalksCanBeRepeatedFromAnyPlace) {
  const NSArray array{1, 2, 3};
  velto::ObjectIterator walk = array.begin();
  const velto::ObjectIterator first = walk++;
  EXPECT_EQ(*first, NSObject(1));
  EXPECT_EQ(*walk, NSObject(2));
  EXPECT_EQ(std::vector<NSObject>(first, array.end()).size(), 3u);
  EXPECT_EQ(std::vector<NSObject>(walk, array.end()).size(), 2u);
}

TEST(Pairs, AreKeysWithTheirValues) {
  std::string text;
  for (const auto& [key, value] : NSDictionary{{"b", 1}, {2, "c"}}.pairs()) {
    text += key.description().string() + "=" + value.description().string() + " ";
  }
  EXPECT_EQ(text, "b=1 2=c ");
  for ([[maybe_unused]] const auto& pair : NSDictionary().pairs()) ADD_FAILURE();
  const velto::Pairs none = NSDictionary::dictionary().pairs();
  EXPECT_EQ(none.begin(), none.end());
}

TEST(Pairs, PassOverRemovedEntries) {
  NSMutableDictionary dictionary = NSMutableDictionary::dictionaryWithDictionary({{1, "a"}, {2, "b"}, {3, "c"}});
  dictionary.removeObjectForKey(2);
  std::vector<std::string> values;
  for (const auto& [key, value] : dictionary.pairs()) values.push_back(value.stringValue());
  EXPECT_EQ(values, (std::vector<std::string>{"a", "c"}));
}

TEST(Pairs, MayBeKeptWhenTheDictionaryIsGone) {
  velto::PairIterator::Pair kept = *NSDictionary{{"a key that is long enough", NSArray{1, 2}}}.pairs().begin();
  EXPECT_EQ(kept.key.stringValue(), "a key that is long enough");
  EXPECT_EQ(kept.value, (NSArray{1, 2}));
}

TEST(Pairs, RaiseWhenTheDictionaryChangesUnderfoot) {
  NSMutableDictionary dictionary = NSMutableDictionary::dictionaryWithDictionary({{1, 1}, {2, 2}});
  velto::PairIterator walk = dictionary.pairs().begin();
  dictionary.setObject(3, 3);
  EXPECT_THROW(*walk, NSException);
  EXPECT_THROW(++walk, NSException);
  EXPECT_THROW(*velto::PairIterator(), NSException);
}

// The views of this version of the standard library are none for older versions of this compiler.
#if !defined(__clang__) || __clang_major__ >= 16
TEST(Ranges, ViewsTakeContainers) {
  const NSArray terms{1, 2, 3};
  double sum = 0;
  for (const double each : terms | std::views::transform([](const NSObject& term) { return term.doubleValue(); })) {
    sum += each;
  }
  EXPECT_EQ(sum, 6);
  const auto isText = [](const NSObject& each) { return each.is<NSString>(); };
  EXPECT_EQ(std::ranges::distance(NSSet{1, "a", "b"} | std::views::filter(isText)), 2);
  EXPECT_EQ(std::ranges::distance(NSDictionary{{"a", 1}, {2, 2}} | std::views::filter(isText)), 1);
  const NSDictionary dictionary{{"a", 1}, {"b", 2}};
  const auto values = dictionary.pairs() | std::views::transform([](const auto& pair) { return pair.value; });
  EXPECT_EQ(NSObject(values), (NSArray{1, 2}));
}

TEST(Ranges, ViewsBecomeArrays) {
  const std::vector<int> numbers{1, 2, 3, 4};
  const auto isEven = [](int each) { return each % 2 == 0; };
  EXPECT_EQ(NSObject(numbers | std::views::filter(isEven)), (NSArray{2, 4}));
  EXPECT_EQ((NSArray{numbers | std::views::filter(isEven)}), (NSArray{2, 4}));
  auto evens = numbers | std::views::filter(isEven);
  EXPECT_EQ(NSArray(evens), (NSArray{2, 4}));
  EXPECT_EQ(NSObject(std::views::iota(0, 100)).count(), 100u);
  const std::map<std::string, int> map{{"a", 1}};
  EXPECT_EQ(NSObject(map | std::views::keys), NSArray{"a"});
}
#endif

}  // namespace
