#include "platform/foundation/NSUUID.h"

#include <set>

#include <gtest/gtest.h>

#include "platform/foundation/Foundation.h"

namespace {

constexpr char kText[] = "E621E1F8-C36C-495A-93FC-0C247A3E6E5F";

TEST(NSUUID, NewOnesAreRandomOfVersionFour) {
  std::set<std::string> seen;
  for (int each = 0; each < 1000; ++each) {
    const NSUUID uuid = NSUUID::UUID();
    EXPECT_EQ(uuid.bytes()[6] >> 4, 4);
    EXPECT_EQ(uuid.bytes()[8] >> 6, 2);
    EXPECT_TRUE(seen.insert(uuid.UUIDString().string()).second);
  }
}

TEST(NSUUID, ReadsTheTextThatItWrites) {
  const NSUUID uuid = NSUUID::UUIDWithString(kText);
  EXPECT_EQ(uuid.UUIDString().string(), kText);
  EXPECT_EQ(uuid.description().string(), kText);
  EXPECT_EQ(uuid.bytes()[0], 0xe6);
  EXPECT_EQ(uuid.bytes()[15], 0x5f);
  EXPECT_EQ(NSUUID::UUIDWithBytes(uuid.bytes()), uuid);
  EXPECT_EQ(NSUUID::UUIDWithString("e621e1f8-c36c-495a-93fc-0c247a3e6e5f"), uuid);
}

TEST(NSUUID, RefusesEveryOtherText) {
  for (const char* text : {"", "E621E1F8C36C495A93FC0C247A3E6E5F", "E621E1F8-C36C-495A-93FC-0C247A3E6E5",
                           "E621E1F8-C36C-495A-93FC-0C247A3E6E5F0", "G621E1F8-C36C-495A-93FC-0C247A3E6E5F",
                           "{E621E1F8-C36C-495A-93FC-0C247A3E6E}", "E621E1F8+C36C-495A-93FC-0C247A3E6E5F",
                           "E621E1F-8C36C-495A-93FC-0C247A3E6E5F"}) {
    EXPECT_TRUE(NSUUID::UUIDWithString(text).isNil()) << text;
  }
  EXPECT_TRUE(NSUUID::UUIDWithString(nil).isNil());
}

TEST(NSUUID, NilAnswersNothing) {
  const NSUUID none;
  EXPECT_TRUE(none.UUIDString().isNil());
  EXPECT_EQ(none.bytes(), NSUUID::Bytes{});
}

TEST(NSUUID, EqualsByBytes) {
  EXPECT_EQ(NSUUID::UUIDWithString(kText), NSUUID::UUIDWithString(kText));
  EXPECT_EQ(NSUUID::UUIDWithString(kText).hash(), NSUUID::UUIDWithString(kText).hash());
  EXPECT_NE(NSUUID::UUID(), NSUUID::UUID());
}

}  // namespace
