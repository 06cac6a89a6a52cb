#include "platform/foundation/NSError.h"

#include <cstdlib>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "platform/foundation/Foundation.h"

namespace {

// An initialiser of ordinary priority, as in a user's program.
const NSDictionary madeBeforeMain{{NSLocalizedDescriptionKey, "early"}};

NSError listenerMissing() {
  return NSError::errorWithDomain("org.velto.VeltoIPC", 2, {{NSLocalizedDescriptionKey, "Listener not available"}});
}

TEST(NSError, HoldsItsParts) {
  const NSError error = listenerMissing();
  EXPECT_EQ(error.domain().string(), "org.velto.VeltoIPC");
  EXPECT_EQ(error.code(), 2);
  EXPECT_EQ(error.userInfo()[NSLocalizedDescriptionKey].stringValue(), "Listener not available");
  EXPECT_EQ(error.localizedDescription().string(), "Listener not available");
}

TEST(NSError, NilAnswersNothing) {
  const NSError none;
  EXPECT_TRUE(none.domain().isNil());
  EXPECT_EQ(none.code(), 0);
  EXPECT_TRUE(none.userInfo().isNil());
  EXPECT_TRUE(none.localizedDescription().isNil());
}

TEST(NSError, WhatIsMissingIsEmpty) {
  const NSError error = NSError::errorWithDomain(nil, -7, nil);
  EXPECT_EQ(error.domain().string(), "");
  EXPECT_FALSE(error.domain().isNil());
  EXPECT_EQ(error.userInfo(), NSDictionary::dictionary());
  EXPECT_TRUE(error.localizedDescription().isNil());
  EXPECT_EQ(error, NSError::errorWithDomain("", -7, NSDictionary::dictionary()));
}

TEST(NSError, ATextThatIsNoStringIsNone) {
  EXPECT_TRUE(NSError::errorWithDomain("d", 1, {{NSLocalizedDescriptionKey, 5}}).localizedDescription().isNil());
}

TEST(NSError, KeepsSnapshotsOfMutableParts) {
  NSMutableString domain = NSMutableString::stringWithString("domain");
  NSMutableDictionary userInfo = NSMutableDictionary::dictionary();
  const NSError error = NSError::errorWithDomain(domain, 1, userInfo);
  domain.appendString("!");
  userInfo.setObject(1, "new");
  EXPECT_EQ(error.domain().string(), "domain");
  EXPECT_EQ(error.userInfo().count(), 0u);
}

TEST(NSError, EqualsWhenAllPartsDo) {
  EXPECT_EQ(listenerMissing(), listenerMissing());
  EXPECT_EQ(listenerMissing().hash(), listenerMissing().hash());
  const NSDictionary userInfo = listenerMissing().userInfo();
  EXPECT_NE(listenerMissing(), NSError::errorWithDomain("other", 2, userInfo));
  EXPECT_NE(listenerMissing(), NSError::errorWithDomain("org.velto.VeltoIPC", 3, userInfo));
  EXPECT_NE(listenerMissing(), NSError::errorWithDomain("org.velto.VeltoIPC", 2, nil));
}

TEST(NSError, DescribesItself) {
  EXPECT_EQ(listenerMissing().description().string(), "org.velto.VeltoIPC code 2: Listener not available");
  EXPECT_EQ(NSError::errorWithDomain("d", -1, nil).description().string(), "d code -1");
}

TEST(NSError, TheKeyCanBeUsedByInitialisersBeforeMain) {
  EXPECT_EQ(madeBeforeMain[NSLocalizedDescriptionKey].stringValue(), "early");
  EXPECT_EQ(NSLocalizedDescriptionKey.string(), "NSLocalizedDescription");
}

TEST(NSErrorDeathTest, TheKeyCanBeUsedByThreadsWhileTheProcessExits) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        for (int each = 0; each < 2; ++each) {
          std::thread([] {
            for (;;) {
              if (listenerMissing().localizedDescription().length() != 22) std::abort();
            }
          }).detach();
        }
        std::exit(0);
      },
      testing::ExitedWithCode(0), "");
}

}  // namespace
