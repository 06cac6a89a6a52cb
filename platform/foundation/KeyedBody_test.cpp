#include "platform/foundation/KeyedBody.h"

#include <map>
#include <random>
#include <string>

#include <gtest/gtest.h>

#include "platform/foundation/Foundation.h"

namespace velto {
namespace {

// The entries of a dictionary that can change.
class Entries {
 public:
  std::size_t count() const { return body_.count(); }
  std::size_t slots() const { return body_.table().slots(); }
  const NSObject* find(const NSObject& key) const { return body_.table().find(key); }
  NSObject valueOf(const NSObject& key) const { return valueAt(find(key)); }
  NSObject valueOfText(const std::string& text) const { return valueAt(body_.table().findText(text)); }
  void put(const NSObject& key, const NSObject& value) { body_.put(key, value); }
  bool remove(const NSObject& key) {
    const std::size_t before = count();
    body_.remove(key);
    return count() < before;
  }
  void clear() { body_.clear(); }
  std::string text() const {
    std::string text;
    for (std::size_t slot = 0; slot < slots(); ++slot) {
      const NSObject& key = body_.table().key(slot);
      if (!key.isNil()) text += key.description().string() + " ";
    }
    return text;
  }

 private:
  static NSObject valueAt(const NSObject* key) { return key != nullptr ? key[1] : NSObject(); }

  MutableKeyedBody& body_ = *new MutableKeyedBody(Tag::mutableDictionary);
  const NSObject owner_ = NSObject::adopt(Value(body_));
};

TEST(KeyedBody, FindsKeysBelowAtAndAboveTheSizeThatIsIndexed) {
  for (const int size : {0, 1, 15, 16, 17, 18, 1000}) {
    Entries entries;
    for (int each = 0; each < size; ++each) entries.put(each % 2 == 0 ? NSObject(each) : std::to_string(each), each);
    EXPECT_EQ(entries.count(), static_cast<std::size_t>(size));
    for (int each = 0; each < size; ++each) {
      const NSObject key = each % 2 == 0 ? NSObject(each) : std::to_string(each);
      EXPECT_EQ(entries.valueOf(key), each);
      EXPECT_EQ(entries.valueOfText(std::to_string(each)).isNil(), each % 2 == 0);
    }
    EXPECT_EQ(entries.find(size), nullptr);
    EXPECT_EQ(entries.find(nil), nullptr);
    EXPECT_FALSE(entries.remove("missing"));
  }
}

TEST(KeyedBody, BehavesLikeAMapUnderRandomUse) {
  std::mt19937 random(7);
  Entries entries;
  std::map<int, int> model;
  for (int step = 0; step < 50'000; ++step) {
    const int key = static_cast<int>(random() % 300);
    if (random() % 2 == 0) {
      entries.put(key, step);
      model[key] = step;
    } else {
      EXPECT_EQ(entries.remove(key), model.erase(key) == 1);
    }
    ASSERT_EQ(entries.count(), model.size());
    const int asked = static_cast<int>(random() % 300);
    const auto found = model.find(asked);
    ASSERT_EQ(entries.valueOf(asked), found != model.end() ? NSObject(found->second) : NSObject());
  }
}

TEST(KeyedBody, KeepsTheOrderWhenEntriesGoAndTheSlotsAreClosedUp) {
  Entries entries;
  for (int each = 0; each < 40; ++each) entries.put(each, nil);
  for (int each = 0; each < 40; ++each) {
    if (each % 10 != 3) entries.remove(each);
  }
  entries.put("new", nil);
  EXPECT_EQ(entries.text(), "3 13 23 33 new ");
  EXPECT_LE(entries.slots(), 16u);
}

TEST(KeyedBody, HoldsNoMoreSlotsThanItNeedsHoweverOftenEntriesComeAndGo) {
  Entries entries;
  for (int each = 0; each < 100'000; ++each) {
    entries.put(each, nil);
    if (each >= 10) entries.remove(each - 10);
    ASSERT_LE(entries.slots(), 64u);
  }
  for (int each = 99'990; each < 100'000; ++each) EXPECT_TRUE(entries.remove(each));
  EXPECT_EQ(entries.slots(), 0u);
}

TEST(KeyedBody, IsAsNewWhenItHasBeenCleared) {
  Entries entries;
  for (int each = 0; each < 20; ++each) entries.put(each, each);
  entries.clear();
  EXPECT_EQ(entries.count(), 0u);
  EXPECT_EQ(entries.find(5), nullptr);
  entries.put(5, 6);
  EXPECT_EQ(entries.valueOf(5), 6);
}

TEST(KeyedBody, AnImmutableOneIsSearchedLikeAnyOther) {
  for (const std::size_t size : {1u, 16u, 17u, 1000u}) {
    KeyedBody& body = KeyedBody::make(Tag::dictionary, size + 1);
    const NSObject dictionary = NSObject::adopt(Value(body));
    TextFilter filter;
    for (std::size_t each = 0; each < size; ++each) {
      EXPECT_TRUE(body.addPair(NSObject(each).value(), NSObject(2 * each).value(), filter));
      EXPECT_FALSE(body.addPair(NSObject(static_cast<double>(each)).value(), NSObject(0).value(), filter));
    }
    body.put(0, "first");
    body.put("last", 1);
    EXPECT_EQ(dictionary.count(), size + 1);
    EXPECT_EQ(dictionary[NSObject(0)], "first");
    EXPECT_EQ(dictionary["last"], 1);
    for (std::size_t each = 1; each < size; ++each) EXPECT_EQ(dictionary[NSObject(each)], 2 * each);
    EXPECT_TRUE(dictionary["none"].isNil());
  }
}

TEST(KeyedBody, AShortTextIsTakenOnceWhetherTheFilterKnowsItOrNot) {
  for (const std::size_t size : {1u, 16u, 17u, 200u}) {
    KeyedBody& body = KeyedBody::make(Tag::set, size);
    const NSObject set = NSObject::adopt(Value(body));
    TextFilter filter;
    for (std::size_t each = 0; each < size; ++each) {
      const NSObject text("text " + std::to_string(each));
      EXPECT_TRUE(body.addMember(text.value(), filter));
      EXPECT_FALSE(body.addMember(text.value(), filter));
      TextFilter anything = TextFilter::ofAnything();
      EXPECT_FALSE(body.addMember(text.value(), anything));
    }
    EXPECT_EQ(set.count(), size);
  }
}

TEST(KeyedBody, AKeyThatCanChangeIsFoundInABracedList) {
  const NSMutableString changing = NSMutableString::stringWithString("same");
  const NSDictionary before{{"same", 1}, {changing, 2}, {"other", 3}};
  EXPECT_EQ(before.count(), 2U);
  EXPECT_EQ(before["same"], 2);
  const NSDictionary after{{changing, 1}, {"same", 2}, {"other", 3}};
  EXPECT_EQ(after.count(), 2U);
  EXPECT_EQ(after["same"], 2);
  EXPECT_EQ(after[changing], 2);
}

TEST(KeyedBody, ATextIsFoundInWhateverFormItLies) {
  for (const std::string text :
       {"short", "exactly 14 by.", "one byte longer", "a text that is far too long for a handle"}) {
    for (const int others : {0, 100}) {
      NSMutableDictionary dictionary;
      for (int each = 0; each < others; ++each) dictionary.setObject(each, each);
      NSMutableString changing = NSMutableString::stringWithString("");
      dictionary.setObject(1, text);
      EXPECT_EQ(dictionary[NSMutableString::stringWithString(text)], 1);
      changing.setString(text + "!");
      dictionary.setObject(2, changing);
      EXPECT_EQ(dictionary[text + "!"], 2);
      EXPECT_EQ(dictionary[(text + "!").c_str()], 2);
      EXPECT_EQ(dictionary[text.c_str()], 1);
    }
  }
}

TEST(KeyedBody, DescribesKeysAndValuesInOrder) {
  EXPECT_EQ((NSDictionary{{"op", "sum"}, {"terms", NSArray{1, 2, 3.5}}}.description().string()),
            "{op = sum; terms = (1, 2, 3.5)}");
  EXPECT_EQ(NSDictionary::dictionary().description().string(), "{}");
}

TEST(KeyedBody, LargeOnesAreEqualWhateverTheirOrder) {
  NSMutableDictionary up = NSMutableDictionary::dictionary();
  NSMutableDictionary down = NSMutableDictionary::dictionary();
  for (int each = 0; each < 1000; ++each) {
    up.setObject(each, std::to_string(each));
    down.setObject(999 - each, std::to_string(999 - each));
  }
  EXPECT_EQ(up, down);
  EXPECT_EQ(up.hash(), down.hash());
  down.setObject(-1, "500");
  EXPECT_NE(up, down);
}

TEST(KeyedBody, IsWholeAgainWhenARemovedValueUsesIt) {
  NSMutableDictionary dictionary = NSMutableDictionary::dictionary();
  static const char byte = 0;
  int ended = 0;
  const auto valueThatLooks = [&] {
    return NSData::dataWithBytesNoCopy(&byte, 1, [&] {
      ++ended;
      dictionary.setObject(ended, "ended");
    });
  };
  dictionary.setObject(valueThatLooks(), "key");
  dictionary.setObject("other", "key");
  EXPECT_EQ(dictionary, (NSDictionary{{"key", "other"}, {"ended", 1}}));
  dictionary.setObject(valueThatLooks(), "key");
  dictionary.removeObjectForKey("key");
  EXPECT_EQ(dictionary, (NSDictionary{{"ended", 2}}));
  dictionary.setObject(valueThatLooks(), "key");
  dictionary.removeAllObjects();
  EXPECT_EQ(dictionary, (NSDictionary{{"ended", 3}}));
}

}  // namespace
}  // namespace velto
