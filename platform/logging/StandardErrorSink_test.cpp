#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <utility>

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include "platform/foundation/Foundation.h"
#include "platform/logging/LogSink.h"
#include "platform/logging/LogTimer.h"
#include "platform/logging/StandardErrorTest.h"
#include "platform/logging/WriteWithoutWaiting.h"

namespace {

// A place that has not logged yet.
VKTLogAnchor newPlace() {
  static std::uint32_t count = 0;
  return VKTLogAnchor::anchorWithFile("StandardErrorSink_test", ++count, "newPlace");
}

void write(const VKTLogAnchor& place, const std::string& text) {
  velto::writeToStandardError(place, VKTLogLevelFailure, NSString(text));
}

// What logging a text writes to standard error.
std::string writtenBy(const std::string& text) {
  testing::internal::CaptureStderr();
  VKTLoggingLog(newPlace(), VKTLogLevelFailure, "%@", NSString(text));
  return testing::internal::GetCapturedStderr();
}

// The timer that the sink is offered: fires when the test says so.
void (*askedFor)() = nullptr;
int timersAsked = 0;
std::chrono::milliseconds askedDelay{0};

void askTimer(std::chrono::milliseconds delay, void (*function)()) {
  askedFor = function;
  askedDelay = delay;
  ++timersAsked;
}

// Standard error is a pipe, and there is a timer.
class StandardErrorSinkAtAPipe : public testing::Test {
 protected:
  StandardErrorSinkAtAPipe() {
    askedFor = nullptr;
    timersAsked = 0;
    velto::setLogTimer(askTimer);
  }
  ~StandardErrorSinkAtAPipe() override {
    // Nothing is left to tell for the test after this.
    while (askedFor != nullptr) {
      empty();
      fire();
    }
    velto::setLogTimer(nullptr);
  }

  void fire() {
    const auto function = std::exchange(askedFor, nullptr);
    ASSERT_NE(function, nullptr);
    function();
  }
  // Leaves no room for a single byte more.
  void fill() {
    const std::string piece(4096, 'x');
    while (velto::writeWithoutWaiting(STDERR_FILENO, piece) > 0) continue;
  }
  void empty() {
    while (!pipe_.readSome().empty()) continue;
  }

  velto::testing::StandardErrorPipe pipe_;
};

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
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends), 0);
  const velto::testing::File reading(ends[0]);
  const velto::testing::File writing(ends[1]);
  const velto::testing::File former(dup(STDERR_FILENO));
  dup2(writing.number(), STDERR_FILENO);
  write(newPlace(), "first");
  char buffer[256];
  const ssize_t length = recv(reading.number(), buffer, sizeof buffer, MSG_DONTWAIT);
  dup2(former.number(), STDERR_FILENO);
  ASSERT_GT(length, 0);
  EXPECT_EQ(std::string(buffer, static_cast<std::size_t>(length)), "VeltoIPC: first\n");
}

TEST_F(StandardErrorSinkAtAPipe, WhatHasNoRoomIsLostAndItsNumberToldWithTheNextLine) {
  fill();
  for (int each = 0; each < 3; ++each) write(newPlace(), "lost");
  empty();
  write(newPlace(), "again");
  EXPECT_EQ(pipe_.readSome(), "VeltoIPC: 3 lines were lost\nVeltoIPC: again\n");
}

TEST_F(StandardErrorSinkAtAPipe, ALineThatWasCutDoesNotRunIntoTheNext) {
  write(newPlace(), std::string(10'000, 'x'));
  empty();
  write(newPlace(), "again");
  EXPECT_EQ(pipe_.readSome(), "\nVeltoIPC: 1 line was lost\nVeltoIPC: again\n");
}

TEST_F(StandardErrorSinkAtAPipe, WhatHasNoRoomIsToldByATimerThatIsAskedForLessAndLess) {
  fill();
  for (int each = 0; each < 2; ++each) write(newPlace(), "lost");
  EXPECT_EQ(timersAsked, 1);
  EXPECT_EQ(askedDelay.count(), 1000);
  for (const int delay : {2000, 4000, 8000, 16000, 32000, 64000, 64000}) {
    fire();
    EXPECT_EQ(askedDelay.count(), delay);
  }
  empty();
  fire();
  EXPECT_EQ(pipe_.readSome(), "VeltoIPC: 2 lines were lost\n");
  EXPECT_EQ(askedFor, nullptr);
}

TEST_F(StandardErrorSinkAtAPipe, NobodyIsAskedForATimerBecauseOfAReaderThatHasGone) {
  pipe_.closeReadingEnd();
  write(newPlace(), "lost");
  EXPECT_EQ(timersAsked, 0);
  const velto::testing::StandardErrorPipe another;
  write(newPlace(), "seen");
  EXPECT_EQ(another.readSome(), "VeltoIPC: 1 line was lost\nVeltoIPC: seen\n");
}

TEST_F(StandardErrorSinkAtAPipe, ALineThatRepeatsIsToldInOneOnceItsSecondIsOver) {
  const VKTLogAnchor place = newPlace();
  for (int each = 0; each < 1000; ++each) write(place, "a\x1b");
  EXPECT_EQ(pipe_.readSome(), "VeltoIPC: a \n");
  EXPECT_EQ(timersAsked, 1);
  EXPECT_LE(askedDelay.count(), 1000);
  // Too early, it asks again.
  std::string told;
  while ((told = pipe_.readSome()).empty()) {
    ASSERT_NE(askedFor, nullptr);
    fire();
  }
  EXPECT_EQ(told, "VeltoIPC: a  (and 998 more like it)\n");
  EXPECT_EQ(askedFor, nullptr);
}

TEST_F(StandardErrorSinkAtAPipe, WithoutATimerTheNextLineTells) {
  velto::setLogTimer(nullptr);
  const VKTLogAnchor place = newPlace();
  std::string told;
  int lines = 0;
  while (told.find("more like it") == std::string::npos) {
    write(place, "a");
    ++lines;
    told += pipe_.readSome();
  }
  const std::string count = std::to_string(lines - 3);
  EXPECT_EQ(told, "VeltoIPC: a\nVeltoIPC: a (and " + count + " more like it)\nVeltoIPC: a\n");
}

TEST_F(StandardErrorSinkAtAPipe, OfManyDifferentLinesOfAPlaceTenAreShown) {
  const VKTLogAnchor place = newPlace();
  for (int each = 0; each < 10; ++each) {
    write(place, std::to_string(each));
    EXPECT_EQ(pipe_.readSome(), "VeltoIPC: " + std::to_string(each) + "\n");
  }
  write(place, "10");
  EXPECT_EQ(pipe_.readSome(), "");
}

TEST(StandardErrorSinkDeathTest, WhatWasHeldBackIsToldAtExit) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        for (int each = 0; each < 5; ++each) VKTLoggingLog(nil, VKTLogLevelFailure, "a");
        std::exit(0);
      },
      testing::ExitedWithCode(0), "^VeltoIPC: a\nVeltoIPC: a .and 3 more like it.\n$");
}

TEST(StandardErrorSinkDeathTest, TheChildOfAForkDoesNotTellWhatItsParentHeldBack) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        for (int each = 0; each < 2; ++each) VKTLoggingLog(nil, VKTLogLevelFailure, "a");
        if (fork() != 0) {
          wait(nullptr);
          std::_Exit(0);
        }
        std::exit(0);
      },
      testing::ExitedWithCode(0), "^VeltoIPC: a\n$");
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
