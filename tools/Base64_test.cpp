#include "tools/Base64.h"

#include <gtest/gtest.h>

namespace velto::tools {
namespace {

using Bytes = std::vector<std::uint8_t>;

TEST(Base64, IsReadAsItIsWritten) {
  EXPECT_EQ(bytesFromBase64(""), Bytes());
  EXPECT_EQ(bytesFromBase64("Zg=="), (Bytes{'f'}));
  EXPECT_EQ(bytesFromBase64("Zm8="), (Bytes{'f', 'o'}));
  EXPECT_EQ(bytesFromBase64("Zm9v"), (Bytes{'f', 'o', 'o'}));
  EXPECT_EQ(bytesFromBase64("Zm9vYg=="), (Bytes{'f', 'o', 'o', 'b'}));
  EXPECT_EQ(bytesFromBase64("+/+/"), (Bytes{0xFB, 0xFF, 0xBF}));
}

TEST(Base64, OtherSpellingsAreRefused) {
  for (const char* text : {"Z", "Zg", "Zg=", "Zg===", "====", "=", "Zh==", "Zm9=", "Zm 9v", "Zm9v\n",
                           "Z===", "Zg==Zg==", "-_-_", "Zm9\xC3", "=Zg="}) {
    EXPECT_EQ(bytesFromBase64(text), std::nullopt) << text;
  }
}

}  // namespace
}  // namespace velto::tools
