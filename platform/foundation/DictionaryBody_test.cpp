#include "platform/foundation/DictionaryBody.h"

#include <string>

#include <gtest/gtest.h>

#include "platform/foundation/Foundation.h"

namespace {

TEST(DictionaryBody, DescribesKeysAndValuesInOrder) {
  EXPECT_EQ((NSDictionary{{"op", "sum"}, {"terms", NSArray{1, 2, 3.5}}}.description().string()),
            "{op = sum; terms = (1, 2, 3.5)}");
  EXPECT_EQ(NSDictionary::dictionary().description().string(), "{}");
}

TEST(DictionaryBody, LargeOnesAreEqualWhateverTheirOrder) {
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

TEST(DictionaryBody, IsWholeAgainWhenARemovedValueUsesIt) {
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
