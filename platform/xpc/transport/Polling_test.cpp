#include "platform/xpc/transport/Polling.h"

#include <gtest/gtest.h>

namespace velto::transport {
namespace {

// Waits that begin without a look until one begins with it.
unsigned sleptThrough(Polling& polling) {
  unsigned count = 0;
  while (!polling.begin()) ++count;
  return count;
}

void lookInVain(Polling& polling) {
  while (polling.goOn()) {
  }
}

TEST(Polling, BeginsWithALook) {
  Polling polling;
  EXPECT_TRUE(polling.begin());
}

TEST(Polling, EachFailureDoublesTheWaitsThatAreSleptThroughUpToABound) {
  Polling polling;
  ASSERT_TRUE(polling.begin());
  lookInVain(polling);
  unsigned before = sleptThrough(polling);
  EXPECT_GE(before, 1U);
  for (int failure = 0; failure < 20; ++failure) {
    lookInVain(polling);
    const unsigned now = sleptThrough(polling);
    EXPECT_TRUE(now >= 2 * before || now == 8192) << now << " after " << before;
    before = now;
  }
  EXPECT_EQ(before, 8192U);
}

TEST(Polling, ALookThatPaidForgetsTheFailures) {
  Polling polling;
  ASSERT_TRUE(polling.begin());
  for (int failure = 0; failure < 12; ++failure) {
    lookInVain(polling);
    sleptThrough(polling);
  }
  polling.hasPaid();
  EXPECT_TRUE(polling.begin());
  lookInVain(polling);
  // One, or as many as when the processor was gone for long.
  const unsigned pause = sleptThrough(polling);
  EXPECT_TRUE(pause == 1 || pause == 64) << pause;
}

}  // namespace
}  // namespace velto::transport
