// Which lines a program logs that is started with this or that in its environment: each in a process of its own.
#include "platform/logging/LogLevel.h"

#include <climits>
#include <cstdlib>
#include <functional>
#include <ostream>
#include <string>

#include <gtest/gtest.h>

#include "platform/logging/DeferredLog.h"

namespace {

void logOneOfEach() {
  VKTLoggingLog(VKTLogGetAnchor(), VKTLogLevelProgress, "progress");
  VKTLoggingLog(VKTLogGetAnchor(), VKTLogLevelFailure, "failure");
  VKTLoggingLog(VKTLogGetAnchor(), VKTLogLevelProgress, "progress");
}

// Ends the process after something was logged with VELTO_LOG as it is; null: there is none.
[[noreturn]] void exitAfter(const char* variable, const std::function<void()>& logging) {
  variable == nullptr ? unsetenv("VELTO_LOG") : setenv("VELTO_LOG", variable, 1);
  logging();
  std::exit(0);
}

constexpr const char* kFailureOnly = "^VeltoIPC: failure\n$";

struct Setting {
  const char* variable;
  const char* written;

  friend void PrintTo(const Setting& setting, std::ostream* out) {
    *out << (setting.variable == nullptr ? "nothing" : setting.variable);
  }
};

class LogLevelDeathTest : public testing::TestWithParam<Setting> {
 protected:
  LogLevelDeathTest() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

TEST_P(LogLevelDeathTest, IsTakenFromTheEnvironment) {
  EXPECT_EXIT(exitAfter(GetParam().variable, logOneOfEach), testing::ExitedWithCode(0), GetParam().written);
}

INSTANTIATE_TEST_SUITE_P(
    Of, LogLevelDeathTest,
    testing::Values(Setting{nullptr, kFailureOnly}, Setting{"", kFailureOnly}, Setting{"off", "^$"},
                    Setting{"failures", kFailureOnly},
                    Setting{"progress", "^VeltoIPC: progress\nVeltoIPC: failure\nVeltoIPC: progress\n$"},
                    Setting{"Off",
                            "^VeltoIPC: VELTO_LOG is \"Off\", which is none of off, failures and progress: "
                            "failures are logged\nVeltoIPC: failure\n$"}));

class ALevelOfTheProgramDeathTest : public LogLevelDeathTest {};

TEST_F(ALevelOfTheProgramDeathTest, GoesBeforeTheEnvironment) {
  const auto logging = [] {
    VKTLogSetLevel(VKTLogLevelFailure);
    logOneOfEach();
    VKTLogSetLevel(VKTLogLevelOff);
    logOneOfEach();
  };
  EXPECT_EXIT(exitAfter("progress", logging), testing::ExitedWithCode(0), kFailureOnly);
  EXPECT_EXIT(exitAfter("nonsense", logging), testing::ExitedWithCode(0), kFailureOnly);
}

TEST_F(ALevelOfTheProgramDeathTest, GoesBeforeWhatTheEnvironmentHasSaidAlready) {
  const auto logging = [] {
    logOneOfEach();
    VKTLogSetLevel(VKTLogLevelFailure);
    logOneOfEach();
  };
  EXPECT_EXIT(exitAfter("off", logging), testing::ExitedWithCode(0), kFailureOnly);
}

TEST_F(ALevelOfTheProgramDeathTest, MayBeTheHighest) {
  const auto logging = [] {
    VKTLogSetLevel(INT_MAX);
    VKTLoggingLog(VKTLogGetAnchor(), 1000, "detail");
  };
  EXPECT_EXIT(exitAfter("off", logging), testing::ExitedWithCode(0), "^VeltoIPC: detail\n$");
}

TEST_F(ALevelOfTheProgramDeathTest, HoldsForLinesThatAreLoggedLater) {
  const auto logging = [] { velto::logLater(VKTLogGetAnchor(), VKTLogLevelProgress, "progress"); };
  EXPECT_EXIT(exitAfter("failures", logging), testing::ExitedWithCode(0), "^$");
  EXPECT_EXIT(exitAfter("progress", logging), testing::ExitedWithCode(0), "^VeltoIPC: progress\n$");
}

}  // namespace
