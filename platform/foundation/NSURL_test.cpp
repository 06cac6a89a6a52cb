#include "platform/foundation/NSURL.h"

#include <string_view>

#include <gtest/gtest.h>

#include "platform/foundation/Foundation.h"

namespace {

TEST(NSURL, KeepsItsTextAsGiven) {
  const NSURL url = NSURL::URLWithString("https://example.org/a%20b?ü=1#x");
  EXPECT_EQ(url.absoluteString().string(), "https://example.org/a%20b?ü=1#x");
  EXPECT_EQ(url.description(), url.absoluteString());
}

TEST(NSURL, RefusesEmptyTextsSpacesAndControlCharacters) {
  for (const NSString& text : {NSString(""), NSString("a b"), NSString("a\tb"), NSString("a\n"), NSString("a\x7f"),
                               NSString(std::string_view("a\0b", 3)), NSString()}) {
    EXPECT_TRUE(NSURL::URLWithString(text).isNil());
  }
}

TEST(NSURL, EqualsByText) {
  EXPECT_EQ(NSURL::URLWithString("a:b"), NSURL::URLWithString("a:b"));
  EXPECT_EQ(NSURL::URLWithString("a:b").hash(), NSURL::URLWithString("a:b").hash());
  EXPECT_NE(NSURL::URLWithString("a:b"), NSURL::URLWithString("a:c"));
  EXPECT_NE(NSURL::URLWithString("a:b"), NSString("a:b"));
}

TEST(NSURL, KeepsASnapshotOfAMutableText) {
  NSMutableString text = NSMutableString::stringWithString("a:b");
  const NSURL url = NSURL::URLWithString(text);
  text.appendString(" c");
  EXPECT_EQ(url.absoluteString().string(), "a:b");
}

TEST(NSURL, NilAnswersNil) {
  EXPECT_TRUE(NSURL().absoluteString().isNil());
}

}  // namespace
