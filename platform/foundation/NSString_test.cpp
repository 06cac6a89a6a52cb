#include "platform/foundation/NSString.h"

#include <string>

#include <gtest/gtest.h>

#include "platform/foundation/Foundation.h"

namespace {

TEST(NSString, IsMadeFromPlainText) {
  EXPECT_EQ(NSString("text").string(), "text");
  EXPECT_EQ(NSString(std::string("text")).view(), "text");
  EXPECT_EQ(NSString(std::string_view("texts", 4)).view(), "text");
  EXPECT_STREQ(NSString("text").UTF8String(), "text");
  EXPECT_EQ(NSString("grün").length(), 5u);
  EXPECT_EQ(NSString("").length(), 0u);
  EXPECT_FALSE(NSString("").isNil());
}

TEST(NSString, NilAnswersEmptyText) {
  const NSString none = static_cast<const char*>(nullptr);
  EXPECT_TRUE(none.isNil());
  EXPECT_EQ(none.view(), "");
  EXPECT_EQ(none.string(), "");
  EXPECT_STREQ(none.UTF8String(), "");
  EXPECT_EQ(none.length(), 0u);
  EXPECT_TRUE(none.copy().isNil());
}

TEST(NSString, IsAlwaysValidUTF8) {
  EXPECT_EQ(NSString("a\xC3").string(), "a\uFFFD");
  EXPECT_EQ(NSString(std::string("\xED\xA0\x80")).string(), "\uFFFD\uFFFD\uFFFD");
  EXPECT_TRUE(NSString::stringWithUTF8("a\xC3").isNil());
  EXPECT_EQ(NSString::stringWithUTF8("grün").string(), "grün");
}

TEST(NSString, MayHoldNULCharacters) {
  const NSString text(std::string_view("a\0b", 3));
  EXPECT_EQ(text.length(), 3u);
  EXPECT_STREQ(text.UTF8String(), "a");
  EXPECT_NE(text, NSString("a"));
}

TEST(NSString, ComparesByText) {
  EXPECT_TRUE(NSString("a").isEqualToString("a"));
  EXPECT_FALSE(NSString("a").isEqualToString("b"));
  EXPECT_FALSE(NSString("a").isEqualToString(nil));
  EXPECT_FALSE(NSString().isEqualToString(nil));
  EXPECT_EQ(NSString("a"), "a");
  EXPECT_EQ(NSString("a"), NSMutableString::stringWithString("a"));
}

TEST(NSString, FormatsNumbersTextsAndObjects) {
  const NSString name = "adder";
  EXPECT_EQ(NSString::stringWithFormat("%@: %d of %.1f %s", name, 3, 4.0, "units").string(), "adder: 3 of 4.0 units");
  EXPECT_EQ(NSString::stringWithFormat("%@", NSArray{1, "two"}).string(), "(1, two)");
  EXPECT_EQ(NSString::stringWithFormat("%@", NSString()).string(), "(null)");
  EXPECT_EQ(NSString::stringWithFormat("plain").string(), "plain");
}

TEST(NSString, DescribesItselfWhole) {
  const NSString large = std::string(100'000, 'x');
  EXPECT_TRUE(large.description().isIdenticalTo(large));
}

TEST(NSMutableString, GrowsUnderEveryHandle) {
  NSMutableString text = NSMutableString::string();
  const NSString same = text;
  text.appendString("one");
  text.appendString(" two");
  text.appendString(nil);
  EXPECT_EQ(same.string(), "one two");
  text.setString("new");
  EXPECT_EQ(same.string(), "new");
  text.setString(nil);
  EXPECT_EQ(same.string(), "");
}

TEST(NSMutableString, AppendsItself) {
  NSMutableString text = NSMutableString::stringWithString("ab");
  text.appendString(text);
  EXPECT_EQ(text.NSString::string(), "abab");
}

TEST(NSMutableString, CopyIsASnapshot) {
  NSMutableString text = NSMutableString::stringWithString("one");
  const NSString copy = text.copy();
  const NSString description = text.description();
  text.appendString("!");
  EXPECT_EQ(copy.string(), "one");
  EXPECT_EQ(description.string(), "one");
  EXPECT_TRUE(copy.as<NSMutableString>().isNil());
  EXPECT_TRUE(copy.copy().isIdenticalTo(copy));
}

TEST(NSMutableString, ChangingNilDoesNothing) {
  NSMutableString none;
  none.appendString("text");
  none.setString("text");
  EXPECT_TRUE(none.isNil());
}

}  // namespace
