#include <cerrno>
#include <cstdlib>
#include <string>

#include <gtest/gtest.h>
#include <unistd.h>

#include "platform/foundation/Foundation.h"
#include "platform/logging/LogSink.h"

namespace {

// What logging a text writes to standard error.
std::string writtenBy(const std::string& text) {
  testing::internal::CaptureStderr();
  VKTLoggingLog(VKTLogGetAnchor(), VKTLogLevelFailure, "%@", NSString(text));
  return testing::internal::GetCapturedStderr();
}

TEST(StandardErrorSink, WritesOneLine) {
  EXPECT_EQ(writtenBy("it failed"), "VeltoIPC: it failed\n");
}

TEST(StandardErrorSink, IsTheSinkAgainAfterAnEmptyOneIsSet) {
  int lines = 0;
  VKTLogSetSink([&](const VKTLogAnchor&, int, const NSString&) { ++lines; });
  EXPECT_EQ(writtenBy("unseen"), "");
  VKTLogSetSink(nullptr);
  EXPECT_EQ(writtenBy("seen"), "VeltoIPC: seen\n");
  EXPECT_EQ(lines, 1);
}

TEST(StandardErrorSink, ATextCannotFakeFurtherLines) {
  EXPECT_EQ(writtenBy("a\nVeltoIPC: b\r\x1b[2Jc"), "VeltoIPC: a VeltoIPC: b  [2Jc\n");
}

TEST(StandardErrorSink, ALongTextIsCut) {
  const std::string line = writtenBy(std::string(100'000, 'x'));
  EXPECT_EQ(line, "VeltoIPC: " + std::string(16 * 1024, 'x') + "\n");
}

TEST(StandardErrorSink, ALineIsOneWrite) {
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  const int former = dup(STDERR_FILENO);
  dup2(ends[1], STDERR_FILENO);
  velto::writeToStandardError(nil, 0, "first");
  char buffer[256];
  const ssize_t length = read(ends[0], buffer, sizeof buffer);
  dup2(former, STDERR_FILENO);
  close(former);
  close(ends[0]);
  close(ends[1]);
  EXPECT_EQ(std::string(buffer, static_cast<std::size_t>(length)), "VeltoIPC: first\n");
}

TEST(StandardErrorSinkDeathTest, ABrokenPipeDoesNotKillTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        int ends[2];
        if (pipe(ends) != 0) std::_Exit(1);
        dup2(ends[1], STDERR_FILENO);
        close(ends[0]);
        close(ends[1]);
        errno = 0;
        VKTLoggingLog(VKTLogGetAnchor(), VKTLogLevelFailure, "into the void");
        std::_Exit(errno == 0 ? 0 : 2);
      },
      testing::ExitedWithCode(0), "");
}

TEST(StandardErrorSinkDeathTest, AClosedStandardErrorDoesNotKillTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        close(STDERR_FILENO);
        VKTLoggingLog(VKTLogGetAnchor(), VKTLogLevelFailure, "into the void");
        std::_Exit(0);
      },
      testing::ExitedWithCode(0), "");
}

}  // namespace
