// What the standard library asks of a type: streams, hashes, order.

#include <algorithm>
#include <compare>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include <gtest/gtest.h>

#include "platform/foundation/Foundation.h"

namespace own {

// A class of a program, with a way to print it of its own.
class Wrapped : public NSObject {
 public:
  explicit Wrapped(const NSObject& object) : NSObject(object) {}
};
std::ostream& operator<<(std::ostream& out, const Wrapped&) {
  return out << "own";
}

}  // namespace own

namespace {

template <class T>
std::string printed(const T& value) {
  std::ostringstream out;
  out << value << ';';
  return out.str();
}

template <class T>
concept HasHash = requires(const T& value) {
  { std::hash<T>()(value) } -> std::same_as<std::size_t>;
};

TEST(StandardLibrary, StreamsPrintTheDescription) {
  EXPECT_EQ(printed(NSObject(2.5)), "2.5;");
  EXPECT_EQ(printed(NSString("text")), "text;");
  EXPECT_EQ(printed(NSMutableArray::arrayWithArray({1, "a"})), "(1, a);");
  EXPECT_EQ(printed(NSDictionary()), "(null);");
  EXPECT_EQ(printed(NSString::classObject()), "NSString;");
}

TEST(StandardLibrary, AProgramsOwnWayToPrintGoesFirst) {
  EXPECT_EQ(printed(own::Wrapped(1)), "own;");
}

TEST(StandardLibrary, EqualHandlesOfAnyClassHaveEqualHashes) {
  EXPECT_EQ(std::hash<NSObject>()(1), std::hash<NSNumber>()(1.0));
  EXPECT_EQ(std::hash<NSString>()("a"), std::hash<NSMutableString>()(NSMutableString::stringWithString("a")));
  EXPECT_NE(std::hash<NSString>()("a"), std::hash<NSString>()("b"));
  EXPECT_EQ((std::unordered_set<NSObject>{1, 1.0, "1", NSArray{1}}.size()), 3u);
  std::unordered_map<NSString, int> counts;
  ++counts["a"];
  ++counts["a"];
  EXPECT_EQ(counts["a"], 2);
}

static_assert(HasHash<NSObject> && HasHash<NSString> && HasHash<NSMutableString> && HasHash<NSNumber>);
static_assert(HasHash<NSArray> && HasHash<NSMutableArray> && HasHash<NSDictionary> && HasHash<NSMutableDictionary>);
static_assert(HasHash<NSSet> && HasHash<NSMutableSet> && HasHash<NSData> && HasHash<NSMutableData>);
static_assert(HasHash<NSDate> && HasHash<NSUUID> && HasHash<NSURL> && HasHash<NSError> && HasHash<NSNull>);
static_assert(HasHash<NSCondition> && HasHash<decltype(NSString::classObject())> && HasHash<own::Wrapped>);

TEST(StandardLibrary, StringsAreOrderedByTheirBytes) {
  EXPECT_LT(NSString("a"), NSString("b"));
  EXPECT_LT(NSString("Z"), NSString("a"));
  EXPECT_LT(NSString("a"), NSString("aa"));
  EXPECT_LT(NSString("z"), NSString("ä"));
  EXPECT_LT(NSString("\uFFFD"), NSString("\U0001F600"));
  EXPECT_LT(NSString(std::string_view("a\0a", 3)), NSString(std::string_view("a\0b", 3)));
  EXPECT_GE(NSString("a"), NSString("a"));
  EXPECT_EQ(NSString("a") <=> NSMutableString::stringWithString("a"), std::strong_ordering::equal);
  EXPECT_TRUE(NSString("a") < "b");
  EXPECT_TRUE(std::string("a") < NSString("b"));
}

TEST(StandardLibrary, NilComesBeforeEveryString) {
  EXPECT_LT(NSString(), NSString(""));
  EXPECT_GT(NSString(""), NSString());
  EXPECT_EQ(NSString() <=> NSString(), std::strong_ordering::equal);
}

TEST(StandardLibrary, StringsSortAndAreKeysOfMaps) {
  std::vector<NSString> words{"c", "a", "b"};
  std::sort(words.begin(), words.end());
  EXPECT_EQ(words, (std::vector<NSString>{"a", "b", "c"}));
  const std::map<NSString, int> map{{"b", 2}, {"a", 1}};
  EXPECT_EQ(map.begin()->first, NSString("a"));
}

static_assert(std::three_way_comparable<NSString> && std::totally_ordered<NSString>);
static_assert(!std::totally_ordered<NSObject> && !std::totally_ordered<NSArray>);

}  // namespace
