#include "platform/foundation/NSDictionary.h"

#include <map>
#include <string>

#include <gtest/gtest.h>

#include "platform/foundation/Foundation.h"

namespace {

// As a send takes its message.
NSDictionary passed(NSDictionary message) {
  return message;
}

TEST(NSDictionary, ALiteralOfOnePairIsOneEntry) {
  const NSDictionary initialised = {{"op", "x"}};
  EXPECT_EQ(initialised.count(), 1u);
  EXPECT_EQ(initialised["op"].stringValue(), "x");
  const NSDictionary argument = passed({{"op", "x"}});
  EXPECT_EQ(argument.count(), 1u);
  EXPECT_EQ(argument, initialised);
}

TEST(NSDictionary, ALiteralOfSeveralPairsReadsLikeAMessage) {
  const NSDictionary message = passed({{"op", "sum"}, {"terms", NSArray{1, 2, 3.5}}});
  EXPECT_EQ(message.count(), 2u);
  EXPECT_EQ(message["op"].stringValue(), "sum");
  EXPECT_EQ(message["terms"][2].doubleValue(), 3.5);
  const NSDictionary two = passed({{"a", "b"}, {"c", "d"}});
  EXPECT_EQ(two.count(), 2u);
  EXPECT_EQ(two["c"].stringValue(), "d");
}

TEST(NSDictionary, LiteralsNest) {
  const NSDictionary message{{"outer", NSDictionary{{"inner", 1}}}};
  EXPECT_EQ(message["outer"]["inner"].integerValue(), 1);
}

TEST(NSDictionary, EmptyBracesAreNilAndDictionaryIsEmpty) {
  EXPECT_TRUE(passed({}).isNil());
  EXPECT_FALSE(NSDictionary::dictionary().isNil());
  EXPECT_EQ(NSDictionary::dictionary().count(), 0u);
}

TEST(NSDictionary, TakesMapsAndLists) {
  EXPECT_EQ(NSDictionary(std::map<std::string, int>{{"a", 1}}), (NSDictionary{{"a", 1}}));
  EXPECT_EQ(NSDictionary::dictionaryWithEntries({{"a", 1}}), (NSDictionary{{"a", 1}}));
}

TEST(NSDictionary, TheLastEntryOfAKeyWinsInTheFirstsPlace) {
  const NSDictionary dictionary{{"a", 1}, {"b", 2}, {"a", 3}};
  EXPECT_EQ(dictionary.description().string(), "{a = 3; b = 2}");
}

TEST(NSDictionary, CannotHoldNil) {
  EXPECT_THROW(static_cast<void>(NSDictionary::dictionaryWithEntries({{nil, nil}})), NSException);
}

TEST(NSDictionary, ABracedListLeavesEntriesWithNilOut) {
  const NSDictionary message{{"there", 1}};
  EXPECT_EQ((NSDictionary{{"key", message["missing"]}, {nil, "value"}, {"other", message["there"]}}),
            (NSDictionary{{"other", 1}}));
  EXPECT_EQ((NSDictionary{{"key", nil}}).count(), 0u);
}

template <class T>
concept CanBeAssignedTo = requires(T dictionary) {
  dictionary["key"] = 2;
};
template <class T>
concept CanBeAsked = requires(T value) {
  value ? 1 : 2;
};

TEST(NSDictionary, WhatWouldBeLostOrMisunderstoodDoesNotCompile) {
  EXPECT_FALSE(CanBeAssignedTo<NSDictionary>);
  EXPECT_FALSE(CanBeAssignedTo<NSObject>);
  EXPECT_FALSE(CanBeAssignedTo<const NSMutableDictionary>);
  EXPECT_TRUE(CanBeAssignedTo<NSMutableDictionary>);
  EXPECT_FALSE(CanBeAsked<NSObject>);
  EXPECT_TRUE(CanBeAsked<NSDictionary>);
  EXPECT_TRUE(CanBeAsked<NSString>);
  EXPECT_TRUE(CanBeAsked<NSError>);
}

TEST(NSDictionary, ANamedListIsNotEmptied) {
  const std::string text = "a text that is too long for a handle";
  std::initializer_list<NSDictionary::Entry> entries = {{"key", text}, {"other", NSArray{1}}};
  const NSDictionary first(entries);
  const NSDictionary second = entries;
  EXPECT_EQ(first, (NSDictionary{{"key", text}, {"other", NSArray{1}}}));
  EXPECT_EQ(first, second);
}

TEST(NSDictionary, AnyObjectMayBeAKey) {
  const NSDictionary dictionary{{1, "number"}, {NSArray{1}, "array"}, {NSNull::null(), "null"}, {"1", "text"}};
  EXPECT_EQ(dictionary.objectForKey(1.0).stringValue(), "number");
  EXPECT_EQ(dictionary.objectForKey(NSArray{1}).stringValue(), "array");
  EXPECT_EQ(dictionary.objectForKey(NSNull::null()).stringValue(), "null");
  EXPECT_EQ(dictionary.objectForKeyedSubscript("1").stringValue(), "text");
}

TEST(NSDictionary, AnswersNilForMissingAndNilKeys) {
  const NSDictionary dictionary{{"a", 1}};
  EXPECT_TRUE(dictionary.objectForKey("b").isNil());
  EXPECT_TRUE(dictionary.objectForKey(nil).isNil());
  EXPECT_TRUE(dictionary.objectForKeyedSubscript(nil).isNil());
}

TEST(NSDictionary, NilAnswersNothing) {
  const NSDictionary none;
  EXPECT_TRUE(none.objectForKey("a").isNil());
  EXPECT_TRUE(none.allKeys().isNil());
  EXPECT_TRUE(none.allValues().isNil());
  EXPECT_TRUE(none.copy().isNil());
}

TEST(NSDictionary, ListsKeysAndValuesInOrder) {
  const NSDictionary dictionary{{"z", 1}, {"a", 2}, {"m", 3}};
  EXPECT_EQ(dictionary.allKeys(), (NSArray{"z", "a", "m"}));
  EXPECT_EQ(dictionary.allValues(), (NSArray{1, 2, 3}));
}

TEST(NSDictionary, EqualityDoesNotRegardOrder) {
  EXPECT_EQ((NSDictionary{{"a", 1}, {"b", 2}}), (NSDictionary{{"b", 2.0}, {"a", 1}}));
  EXPECT_NE((NSDictionary{{"a", 1}}), (NSDictionary{{"a", 2}}));
  EXPECT_NE((NSDictionary{{"a", 1}}), (NSDictionary{{"b", 1}}));
  EXPECT_NE((NSDictionary{{"a", 1}}), (NSDictionary{{"a", 1}, {"b", 2}}));
}

TEST(NSMutableDictionary, ChangesUnderEveryHandle) {
  NSMutableDictionary dictionary = NSMutableDictionary::dictionary();
  const NSDictionary same = dictionary;
  dictionary.setObject(1, "a");
  dictionary.setObjectForKeyedSubscript(2, "b");
  EXPECT_EQ(same, (NSDictionary{{"a", 1}, {"b", 2}}));
  dictionary.setObject(3, "a");
  dictionary.removeObjectForKey("b");
  dictionary.removeObjectForKey("missing");
  dictionary.removeObjectForKey(nil);
  EXPECT_EQ(same, (NSDictionary{{"a", 3}}));
  dictionary.setObjectForKeyedSubscript(nil, "a");
  EXPECT_EQ(same.count(), 0u);
  dictionary.setObject(1, "a");
  dictionary.removeAllObjects();
  EXPECT_EQ(same, NSDictionary::dictionary());
}

TEST(NSMutableDictionary, CannotHoldNil) {
  NSMutableDictionary dictionary = NSMutableDictionary::dictionary();
  EXPECT_THROW(dictionary.setObject(nil, "key"), NSException);
  EXPECT_THROW(dictionary.setObject("value", nil), NSException);
  EXPECT_THROW(dictionary.setObjectForKeyedSubscript("value", nil), NSException);
  EXPECT_EQ(dictionary.count(), 0u);
}

TEST(NSMutableDictionary, RemovingItsOwnKeyByReferenceIsSafe) {
  NSMutableDictionary dictionary = NSMutableDictionary::dictionaryWithDictionary({{std::string("a key"), 1}, {2, 2}});
  dictionary.removeObjectForKey(*dictionary.begin());
  EXPECT_EQ(dictionary, (NSDictionary{{2, 2}}));
  for (int each = 0; each < 100; ++each) dictionary.setObject(*dictionary.begin(), each);
  EXPECT_EQ(dictionary.count(), 100u);
}

TEST(NSMutableDictionary, ARemovedKeyComesBackAtTheEnd) {
  NSMutableDictionary dictionary = NSMutableDictionary::dictionaryWithDictionary({{"a", 1}, {"b", 2}});
  dictionary.removeObjectForKey("a");
  dictionary.setObject(3, "a");
  EXPECT_EQ(dictionary.description().string(), "{b = 2; a = 3}");
}

TEST(NSMutableDictionary, CopyIsASnapshot) {
  NSMutableDictionary dictionary = NSMutableDictionary::dictionaryWithDictionary({{"a", 1}});
  const NSDictionary copy = dictionary.copy();
  dictionary.setObject(2, "b");
  EXPECT_EQ(copy, (NSDictionary{{"a", 1}}));
  EXPECT_TRUE(copy.as<NSMutableDictionary>().isNil());
  EXPECT_TRUE(copy.copy().isIdenticalTo(copy));
  NSMutableDictionary other = NSMutableDictionary::dictionaryWithDictionary(copy);
  other.removeAllObjects();
  EXPECT_EQ(copy.count(), 1u);
}

TEST(NSMutableDictionary, IsAssignedToByKey) {
  NSMutableDictionary message;
  message["number"] = 2;
  message["copy"] = message["number"];
  message[3] = "three";
  message["gone"] = true;
  message["gone"] = nil;
  EXPECT_EQ(message, (NSDictionary{{"number", 2}, {"copy", 2}, {3, "three"}}));
  EXPECT_EQ(message["number"].integerValue(), 2);
  EXPECT_TRUE(message["missing"].isNil());
  EXPECT_EQ(message.count(), 3u);
}

TEST(NSMutableDictionary, SettingInNilFillsItAndRemovingFromNilDoesNothing) {
  NSMutableDictionary none;
  none.removeObjectForKey("a");
  none.setObjectForKeyedSubscript(nil, "a");
  none.removeAllObjects();
  EXPECT_TRUE(none.isNil());
  EXPECT_THROW(none.setObject(nil, "a"), NSException);
  none.setObject(1, "a");
  none.setObjectForKeyedSubscript(2, "b");
  EXPECT_EQ(none, (NSDictionary{{"a", 1}, {"b", 2}}));
  EXPECT_EQ(NSMutableDictionary::dictionaryWithDictionary(nil), NSDictionary::dictionary());
}

}  // namespace
