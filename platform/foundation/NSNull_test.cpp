#include "platform/foundation/NSNull.h"

#include <gtest/gtest.h>

#include "platform/foundation/Foundation.h"

namespace {

TEST(NSNull, IsOneObject) {
  EXPECT_TRUE(NSNull::null().isIdenticalTo(NSNull::null()));
  EXPECT_EQ(NSNull::null(), NSNull::null());
  EXPECT_FALSE(NSNull::null().isNil());
  EXPECT_NE(NSNull::null(), nil);
}

TEST(NSNull, StandsForNothingInAContainer) {
  const NSArray array{NSNull::null()};
  EXPECT_FALSE(array[0].as<NSNull>().isNil());
  EXPECT_EQ(array.description().string(), "(<null>)");
  EXPECT_TRUE(NSObject(0).as<NSNull>().isNil());
}

}  // namespace
