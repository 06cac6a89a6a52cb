#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
#include <iterator>
#include <list>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/foundation/Foundation.h"
#include "platform/foundation/WalkBound.h"

namespace {

using namespace std::chrono_literals;

enum class Colour : std::uint8_t { red = 1, green, blue = 7 };
VELTO_NAMES(Colour, red, green)

enum class Level { low, high };

struct Term {
  double factor = 0;
  std::optional<std::chrono::seconds> when;
  VELTO_FIELDS(Term, factor, when)
  friend bool operator==(const Term&, const Term&) = default;
};

struct Order {
  std::string name;
  std::vector<Term> terms;
  std::map<std::string, Term> byName;
  std::optional<Term> last;
  Level level = Level::low;
  std::vector<std::uint8_t> bytes;
  VELTO_FIELDS(Order, name, terms, (byName, "by.name"), last, level, bytes)
  friend bool operator==(const Order&, const Order&) = default;
};

struct Handles {
  NSString text;
  std::optional<NSArray> array;
  VELTO_FIELDS(Handles, text, array)
};

struct Settings {
  int retries = 3;
  std::vector<int> ports = {80};
  VELTO_FIELDS(Settings, (retries, velto::orDefault), (ports, velto::orDefault))
};

struct Strict {
  int x = 0;
  std::optional<int> y;
  VELTO_FIELDS_ONLY(Strict, x, y)
};

template <class Others>
struct Keeps {
  int x = 0;
  Others others;
  std::optional<int> y;
  VELTO_FIELDS(Keeps, x, (others, velto::everythingElse), y)
};
using KeepsDictionary = Keeps<NSDictionary>;

struct Tree {
  std::string name;
  std::vector<Tree> children;
  VELTO_FIELDS(Tree, (name, velto::orDefault), (children, velto::orDefault))
};

std::string structDescribed(const NSObject& object) {
  return object.description().string();
}

// Why a value is no T; "" if it is one.
template <class T>
std::string whyNot(const NSObject& value) {
  return value.get<T>().error();
}

Order someOrder() {
  return {"sum", {{1.5, 2s}, {2, std::nullopt}}, {{"a", {3, 4s}}}, Term{5, std::nullopt}, Level::high, {1, 2}};
}

TEST(Structs, AreDictionariesOfTheirMembersInTheirOrder) {
  const NSObject order = someOrder();
  EXPECT_EQ(structDescribed(order),
            "{name = sum; terms = ({factor = 1.5; when = 2}, {factor = 2}); by.name = {a = {factor = 3; when = 4}}; "
            "last = {factor = 5}; level = 1; bytes = {length = 2, bytes = 0x0102}}");
  EXPECT_TRUE(order.is<NSDictionary>());
}

TEST(Structs, ComeOutAsTheyWentIn) {
  EXPECT_EQ(NSObject(someOrder()).to<Order>(), someOrder());
  EXPECT_EQ(NSObject(Order()).to<Order>(), Order());
  const std::list<std::map<int, std::optional<Term>>> nested{{{1, Term{1, 1s}}, {2, Term{2, 2s}}}, {}};
  EXPECT_EQ((NSObject(nested).to<std::list<std::map<int, std::optional<Term>>>>()), nested);
}

TEST(Structs, ConvertWhereverAnObjectOrADictionaryIsExpected) {
  const Term term{1, 2s};
  const NSDictionary plain{{"factor", 1.0}, {"when", 2.0}};
  const NSDictionary converted = term;
  EXPECT_EQ(converted, plain);
  EXPECT_EQ(NSDictionary{term}, plain);
  EXPECT_EQ((NSArray{term, 1}), (NSArray{plain, 1}));
  EXPECT_EQ((NSDictionary{{"one", term}, {"two", {term, term}}}),
            (NSDictionary{{"one", plain}, {"two", {plain, plain}}}));
  NSDictionary replied;
  const std::function<void(NSDictionary)> reply = [&replied](NSDictionary dictionary) { replied = dictionary; };
  reply(term);
  EXPECT_EQ(replied, plain);
}

TEST(Structs, AreFoundAtAPath) {
  const NSDictionary message{{"orders", NSArray{someOrder(), someOrder()}}};
  EXPECT_EQ(message.get<Order>("orders[1]").value_or(Order()), someOrder());
  EXPECT_EQ(message.get<Term>("orders[0].terms[1]")->factor, 2);
  EXPECT_EQ(message.get<Term>("orders[0].terms[2]").error(), "orders[0].terms[2]: there is nothing");
  EXPECT_EQ(message.get<Term>("orders[0].terms").error(), "orders[0].terms: is an array, not a dictionary");
}

TEST(Structs, SayWhereWhatIsMissingOrOfAnotherKindLies) {
  NSMutableDictionary order = NSMutableDictionary::dictionaryWithDictionary(someOrder());
  order["terms"] = NSArray{Term(), NSDictionary{{"when", 1}}};
  EXPECT_EQ(whyNot<Order>(order), "terms[1].factor: there is nothing");
  order["terms"] = NSArray{Term(), "text"};
  EXPECT_EQ(whyNot<Order>(order), "terms[1]: is a string, not a dictionary");
  order["terms"] = NSArray::array();
  order["by.name"] = NSDictionary{{"a[0]", NSDictionary{{"factor", 1}, {"when", 2.5}}}};
  EXPECT_EQ(whyNot<Order>(order),
            "by\\.name.a\\[0\\].when: is 2.5, not a whole number of ticks that the type can hold");
  EXPECT_EQ(order.get<double>("by\\.name.a\\[0\\].when").value_or(0), 2.5);
  EXPECT_FALSE(order.to<Order>().has_value());
  EXPECT_EQ((NSDictionary{{"order", order}}).get<Order>("order").error(), "order." + whyNot<Order>(order));
  EXPECT_EQ(whyNot<Order>(nil), "there is nothing");
  EXPECT_EQ(whyNot<Order>(5), "is a number, not a dictionary");
}

TEST(Structs, LeaveOutOptionalsWithoutAValueAndHandlesThatAreNil) {
  EXPECT_EQ(NSObject(Term()), (NSDictionary{{"factor", 0.0}}));
  EXPECT_EQ(NSObject(Handles()), NSDictionary::dictionary());
  EXPECT_EQ(NSObject(Handles{"a", NSArray()}), (NSDictionary{{"text", "a"}}));
}

TEST(Structs, NeedEveryMemberButOptionals) {
  EXPECT_EQ(whyNot<Handles>(NSDictionary::dictionary()), "text: there is nothing");
  EXPECT_EQ((NSDictionary{{"text", "a"}}).to<Handles>()->array, std::nullopt);
  EXPECT_EQ((NSDictionary{{"text", "a"}, {"array", NSNull::null()}}).to<Handles>()->array, std::nullopt);
  EXPECT_EQ(whyNot<Handles>(NSDictionary{{"text", "a"}, {"array", 1}}), "array: is a number, not of the class NSArray");
}

TEST(Structs, KeepADefaultOnlyForWhatIsMissing) {
  const auto settings = NSDictionary{{"retries", 5}}.to<Settings>();
  ASSERT_TRUE(settings.has_value());
  EXPECT_EQ(settings->retries, 5);
  EXPECT_EQ(settings->ports, std::vector<int>{80});
  EXPECT_EQ((NSDictionary{{"ports", NSArray{1, 2}}}).to<Settings>()->ports, (std::vector<int>{1, 2}));
  EXPECT_EQ(whyNot<Settings>(NSDictionary{{"retries", "5"}}), "retries: is a string, not a number");
  EXPECT_EQ(whyNot<Settings>(NSDictionary{{"retries", NSNull::null()}}), "retries: is the null object, not a number");
  EXPECT_EQ(structDescribed(Settings()), "{retries = 3; ports = (80)}");
}

TEST(Structs, IgnoreKeysThatAreNoneOfTheirs) {
  EXPECT_TRUE((NSDictionary{{"factor", 1}, {"unknown", 1}, {5, 6}}).to<Term>().has_value());
}

TEST(Structs, RefuseKeysThatAreNoneOfTheirsIfToldSo) {
  EXPECT_TRUE((NSDictionary{{"x", 1}, {"y", 2}}).to<Strict>().has_value());
  EXPECT_TRUE((NSDictionary{{"x", 1}}).to<Strict>().has_value());
  EXPECT_EQ(whyNot<Strict>(NSDictionary{{"x", 1}, {"z.z", 2}}), "z\\.z: there is no such field");
  EXPECT_EQ(whyNot<std::vector<Strict>>(NSArray{Strict(), NSDictionary{{7, 1}, {"y", 2}, {"x", 1}}}),
            "[1][7]: there is no such field");
  EXPECT_EQ(whyNot<Strict>(NSDictionary{{"z", 2}}), "x: there is nothing");
  NSMutableDictionary changed = NSMutableDictionary::dictionaryWithDictionary({{"z", 1}, {"x", 1}});
  changed.removeObjectForKey("z");
  EXPECT_EQ(whyNot<Strict>(changed), "");
}

TEST(Structs, KeepWhatIsInNoOtherMember) {
  const auto kept = NSDictionary{{"a", 1}, {"y", 2}, {5, NSArray{6}}, {"x", 3}, {"b", "c"}}.to<KeepsDictionary>();
  ASSERT_TRUE(kept.has_value());
  EXPECT_EQ(structDescribed(kept->others), "{a = 1; 5 = (6); b = c}");
  EXPECT_EQ(kept->y, 2);
  EXPECT_EQ(structDescribed(*kept), "{x = 3; a = 1; 5 = (6); b = c; y = 2}");
  EXPECT_TRUE((NSDictionary{{"x", 1}}).to<KeepsDictionary>()->others.isNil());
}

TEST(Structs, KeepWhatIsLeftOfManyEntriesToo) {
  std::map<std::string, int> entries{{"x", 1}, {"y", 2}};
  for (int at = 0; at < 1000; ++at) entries["key " + std::to_string(at)] = at;
  NSMutableDictionary changed = NSMutableDictionary::dictionaryWithDictionary(entries);
  changed.removeObjectForKey("key 0");
  const auto kept = changed.to<KeepsDictionary>();
  ASSERT_TRUE(kept.has_value());
  EXPECT_EQ(kept->others.count(), 999u);
  EXPECT_EQ(kept->others["key 999"].integerValue(), 999);
  EXPECT_TRUE(kept->others["x"].isNil());
  EXPECT_FALSE(kept->others.is<NSMutableDictionary>());
  EXPECT_EQ(NSObject(*kept), changed);
}

TEST(Structs, KeepTheRestInWhatTheyLike) {
  const NSDictionary dictionary{{"x", 1}, {"a", 2}};
  auto kept = dictionary.to<Keeps<NSMutableDictionary>>();
  ASSERT_TRUE(kept.has_value());
  kept->others["b"] = 3;
  EXPECT_EQ(NSObject(*kept), (NSDictionary{{"x", 1}, {"a", 2}, {"b", 3}}));
  using Map = std::map<std::string, int>;
  EXPECT_EQ(dictionary.to<Keeps<Map>>()->others, (Map{{"a", 2}}));
  EXPECT_EQ(whyNot<Keeps<Map>>(NSDictionary{{"x", 1}, {"a.b", "c"}}), "a\\.b: is a string, not a number");
}

TEST(Structs, DoNotLetTheRestPassForAMember) {
  EXPECT_EQ(NSObject(KeepsDictionary{1, {{"x", 2}, {"y", 3}, {"z", 4}}, std::nullopt}),
            (NSDictionary{{"x", 1}, {"z", 4}}));
}

TEST(Structs, NestAsDeepAsTheLimitAndNoDeeper) {
  const auto nested = [](std::size_t levels) {
    NSDictionary tree = NSDictionary::dictionary();
    for (std::size_t level = 1; level < levels; ++level) tree = NSDictionary{{"children", NSArray{tree}}};
    return tree;
  };
  EXPECT_TRUE(nested(velto::kMaximumNestedStructs).to<Tree>().has_value());
  const std::string error = whyNot<Tree>(nested(velto::kMaximumNestedStructs + 1));
  EXPECT_NE(error.find("children[0]: nests deeper than 128 structs"), std::string::npos) << error;
  EXPECT_FALSE(nested(1'000'000).to<Tree>().has_value());
  const NSArray siblings = std::vector<NSDictionary>(100, nested(velto::kMaximumNestedStructs));
  EXPECT_EQ(whyNot<std::vector<Tree>>(siblings), "");
}

// A container that tells how much was to be reserved.
struct Reserving {
  struct Large {
    std::array<int, 1000> numbers;
    VELTO_FIELDS(Large, numbers)
  };
  using value_type = Large;
  std::size_t reserved = 0;
  std::vector<Large> elements;

  const Large* begin() const { return elements.data(); }
  const Large* end() const { return elements.data() + elements.size(); }
  void reserve(std::size_t count) { reserved = count; }
  void push_back(Large element) { elements.push_back(element); }
};

TEST(Structs, TakeNoMemoryBeforeTheyHaveComeOut) {
  const NSArray numbers = std::vector<int>(100'000, 1);
  Reserving into;
  velto::Mismatch why;
  EXPECT_FALSE(velto::comeOut(numbers, into, &why));
  EXPECT_LE(into.reserved * sizeof(Reserving::Large), 100'000 * sizeof(NSObject));
  EXPECT_TRUE(into.elements.empty());
  EXPECT_EQ(why.text(""), "[0]: is a number, not a dictionary");
}

TEST(Names, TravelAsTexts) {
  EXPECT_EQ(NSObject(Colour::green), NSObject("green"));
  EXPECT_EQ(NSObject("green").to<Colour>(), Colour::green);
  const std::map<Colour, std::optional<Colour>> map{{Colour::red, Colour::green}};
  EXPECT_EQ(NSObject(map), (NSDictionary{{"red", "green"}}));
  EXPECT_EQ((NSObject(map).to<std::map<Colour, std::optional<Colour>>>()), map);
}

TEST(Names, ThatAreUnknownAreRefused) {
  EXPECT_EQ(whyNot<std::vector<Colour>>(NSArray{"red", "blue"}), "[1]: is blue, not one of red, green");
  EXPECT_EQ(whyNot<Colour>("Red"), "is Red, not one of red, green");
  EXPECT_EQ(whyNot<Colour>(1), "is a number, not a string");
  EXPECT_EQ(whyNot<Colour>(std::string(100'000, '\n')).find('\n'), std::string::npos);
  EXPECT_LT(whyNot<Colour>(std::string(100'000, 'x')).size(), 200u);
}

TEST(Names, ThatAnEnumeratorLacksLeaveItItsInteger) {
  EXPECT_EQ(NSObject(Colour::blue), NSObject(7));
  EXPECT_EQ(NSObject(Colour::blue).to<Colour>(), std::nullopt);
}

}  // namespace
