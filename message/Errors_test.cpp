#include "message/Errors.h"

#include <gtest/gtest.h>

TEST(Errors, CarryDomainCodeAndTheDescriptionAlone) {
  const NSError error = velto::makeError(VeltoIPCTimeoutError, "Timed out waiting");
  EXPECT_EQ(error.domain(), "org.velto.VeltoIPC");
  EXPECT_EQ(error.code(), 6);
  EXPECT_EQ(error.userInfo(), (NSDictionary{{NSLocalizedDescriptionKey, "Timed out waiting"}}));
}

TEST(Errors, FailWritesTheErrorAndAnswersFalse) {
  NSError error;
  EXPECT_FALSE(velto::fail(&error, VeltoIPCConnectionError, "Connection is not available"));
  EXPECT_EQ(error, velto::makeError(VeltoIPCConnectionError, "Connection is not available"));
  EXPECT_EQ(error.code(), 2);
}

TEST(Errors, FailWithoutAnOutPointerAnswersFalseAllTheSame) {
  EXPECT_FALSE(velto::fail(nullptr, VeltoIPCMessageTypeError, "SendMessage failed message type check"));
}
