#include <map>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/foundation/Foundation.h"

namespace {

NSObject message() {
  return NSDictionary{
      {"a", NSDictionary{{"b", NSArray{1, 2.5, NSDictionary{{"c", "deep"}}}}, {"text", "t"}, {"none", NSNull::null()}}},
      {"dotted.key", 1},
      {"[0]", 2},
      {"back\\slash", 3},
      {"matrix", NSArray{NSArray{1, 2}, NSArray{3, 4}}},
      {7, "seven"}};
}

template <class T>
std::string errorAt(const char* path) {
  const velto::Lookup<T> found = message().get<T>(path);
  EXPECT_EQ(found.has_value(), found.error().empty()) << path;
  return found.error();
}

TEST(Path, LeadsThroughDictionariesAndArrays) {
  const NSObject object = message();
  EXPECT_EQ(*object.get<double>("a.b[1]"), 2.5);
  EXPECT_EQ(*object.get<std::string>("a.b[2].c"), "deep");
  EXPECT_EQ(*object.get<int>("matrix[1][0]"), 3);
  EXPECT_EQ(*object.get<std::vector<int>>("matrix[0]"), (std::vector<int>{1, 2}));
  EXPECT_EQ(*object.get<std::string>("[7]"), "seven");
  EXPECT_EQ(*object["matrix"].get<int>("[1][1]"), 4);
  EXPECT_TRUE(object.get<NSObject>("")->isIdenticalTo(object));
}

TEST(Path, ABackslashMakesDotsAndBracketsPartOfAKey) {
  EXPECT_EQ(*message().get<int>("dotted\\.key"), 1);
  EXPECT_EQ(*message().get<int>("\\[0\\]"), 2);
  EXPECT_EQ(*message().get<int>("back\\\\slash"), 3);
  EXPECT_EQ(errorAt<int>("dotted.key"), "dotted: there is nothing");
  EXPECT_EQ(errorAt<bool>("dotted\\.key"), "dotted\\.key: is a number, not a bool");
}

TEST(Path, SaysWhereItFoundSomethingElse) {
  EXPECT_EQ(errorAt<double>("a.b[2].c"), "a.b[2].c: is a string, not a number");
  EXPECT_EQ(errorAt<int>("a.b[1]"), "a.b[1]: is 2.5, not a whole number");
  EXPECT_EQ(errorAt<std::vector<int>>("a.b"), "a.b[1]: is 2.5, not a whole number");
  EXPECT_EQ((errorAt<std::map<std::string, std::string>>("a")), "a.b: is an array, not a string");
  EXPECT_EQ(errorAt<int>(""), "is a dictionary, not a number");
}

TEST(Path, SaysWhereThereIsNothing) {
  EXPECT_EQ(errorAt<int>("a.x"), "a.x: there is nothing");
  EXPECT_EQ(errorAt<int>("x.b.c"), "x: there is nothing");
  EXPECT_EQ(errorAt<int>("a.b[3]"), "a.b[3]: there is nothing");
  EXPECT_EQ(errorAt<int>("a.b[3].c"), "a.b[3]: there is nothing");
  EXPECT_EQ(errorAt<int>("[8]"), "[8]: there is nothing");
  EXPECT_EQ(errorAt<int>("matrix[18446744073709551615]"), "matrix[18446744073709551615]: there is nothing");
  EXPECT_EQ(NSObject().get<int>("a.b").error(), "there is nothing");
  EXPECT_EQ(NSObject().get<int>("").error(), "there is nothing");
}

TEST(Path, SaysWhatItCannotLeadThrough) {
  EXPECT_EQ(errorAt<int>("a.text.x"), "a.text: is a string, not a dictionary");
  EXPECT_EQ(errorAt<int>("a.text[0]"), "a.text: is a string, not an array");
  EXPECT_EQ(errorAt<int>("a.b.c"), "a.b: is an array, not a dictionary");
  EXPECT_EQ(errorAt<int>("a.none.c"), "a.none: is the null object, not a dictionary");
  EXPECT_EQ(NSObject(5).get<int>("a").error(), "is a number, not a dictionary");
}

TEST(Path, AnOptionalIsEmptyWhereThereIsNothingButNotWhereThereIsSomethingElse) {
  using Maybe = std::optional<int>;
  EXPECT_EQ(*message().get<Maybe>("a.x"), std::nullopt);
  EXPECT_EQ(*message().get<Maybe>("x.y.z"), std::nullopt);
  EXPECT_EQ(*message().get<Maybe>("a.none"), std::nullopt);
  EXPECT_EQ(*message().get<Maybe>("a.b[0]"), 1);
  EXPECT_EQ(errorAt<Maybe>("a.text"), "a.text: is a string, not a number");
  EXPECT_EQ(errorAt<Maybe>("a.text.x"), "a.text: is a string, not a dictionary");
}

TEST(Path, WhatIsNoPathIsToldSoWhateverTheValue) {
  const auto error = [](const char* path) { return NSObject().get<NSObject>(path).error(); };
  EXPECT_EQ(error("."), ".: is no path: at 0, a key is empty");
  EXPECT_EQ(error("a."), "a.: is no path: at 2, a key is empty");
  EXPECT_EQ(error("a..b"), "a..b: is no path: at 2, a key is empty");
  EXPECT_EQ(error(".a"), ".a: is no path: at 0, a key is empty");
  EXPECT_EQ(error("a.[0]"), "a.[0]: is no path: at 2, a key is empty");
  EXPECT_EQ(error("a[0]b"), "a[0]b: is no path: at 4, a dot or a bracket is missing");
  EXPECT_EQ(error("a[0"), "a[0: is no path: at 1, a bracket is not closed");
  EXPECT_EQ(error("a]"), "a]: is no path: at 1, a bracket closes that was not opened");
  EXPECT_EQ(error("a[]"), "a[]: is no path: at 2, an index is no number");
  EXPECT_EQ(error("a[-1]"), "a[-1]: is no path: at 2, an index is no number");
  EXPECT_EQ(error("a[1x]"), "a[1x]: is no path: at 2, an index is no number");
  EXPECT_EQ(error("a[18446744073709551616]"), "a[18446744073709551616]: is no path: at 2, an index is no number");
  EXPECT_EQ(error("a\\"), "a\\: is no path: at 1, a backslash stands before nothing special");
  EXPECT_EQ(error("a\\b"), "a\\b: is no path: at 1, a backslash stands before nothing special");
}

TEST(Lookup, IsAskedAsAnExpectedIs) {
  auto there = message().get<std::string>("a.text");
  ASSERT_TRUE(there);
  EXPECT_EQ(there->size(), 1u);
  *there += "!";
  EXPECT_EQ(there.value_or("other"), "t!");
  EXPECT_EQ(*std::move(there), "t!");
  if (const auto missing = message().get<int>("missing")) {
    ADD_FAILURE() << *missing;
  } else {
    EXPECT_EQ(missing.error(), "missing: there is nothing");
    EXPECT_EQ(missing.value_or(5), 5);
  }
  EXPECT_EQ(message().get<int>("missing").value_or(6), 6);
}

static_assert(!std::is_convertible_v<velto::Lookup<int>, bool>);
static_assert(!std::is_convertible_v<velto::Lookup<int>, int>);

}  // namespace
