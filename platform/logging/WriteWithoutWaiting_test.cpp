#include "platform/logging/WriteWithoutWaiting.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <ostream>
#include <string>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include "platform/logging/StandardErrorTest.h"

namespace {

using velto::testing::File;
using velto::testing::PipeEnds;

using Write = std::size_t (*)(int, std::string_view) noexcept;

struct Way {
  const char* name;
  Write write;

  friend void PrintTo(const Way& way, std::ostream* out) { *out << way.name; }
};

const Way kWays[] = {{"asItComes", velto::writeWithoutWaiting},
                     {"reopened", velto::writeReopened},
                     {"whileThereIsRoom", velto::writeWhileThereIsRoom}};

// A terminal whose other end is held and not read.
struct Terminal {
  File other{posix_openpt(O_RDWR | O_NOCTTY)};
  File end;

  Terminal() {
    grantpt(other.number());
    unlockpt(other.number());
    end = File(open(ptsname(other.number()), O_RDWR | O_NOCTTY));
    termios raw{};
    tcgetattr(end.number(), &raw);
    cfmakeraw(&raw);
    tcsetattr(end.number(), TCSANOW, &raw);
  }
};

// Writes until nothing is taken any more.
std::size_t fill(Write write, int descriptor) {
  // Of an odd size, so that some room is left in which it does not fit.
  const std::string piece(1000, 'x');
  std::size_t total = 0;
  errno = 0;
  while (const std::size_t taken = write(descriptor, piece)) total += taken;
  return total;
}

class AWay : public testing::TestWithParam<Way> {};

TEST_P(AWay, WaitsForNobodyWhoShouldReadAPipe) {
  const PipeEnds ends;
  EXPECT_GE(fill(GetParam().write, ends.writing.number()), 1000u);
  EXPECT_EQ(errno, EAGAIN);
}

TEST_P(AWay, WritesAgainWhenThereIsRoomAgain) {
  const PipeEnds ends;
  fill(GetParam().write, ends.writing.number());
  ends.readSome();
  EXPECT_GT(fill(GetParam().write, ends.writing.number()), 0u);
  EXPECT_EQ(errno, EAGAIN);
}

TEST_P(AWay, LeavesTheFlagsThatOthersShareAlone) {
  const PipeEnds ends;
  const int former = fcntl(ends.writing.number(), F_GETFL);
  EXPECT_EQ(GetParam().write(ends.writing.number(), "text"), 4u);
  EXPECT_EQ(fcntl(ends.writing.number(), F_GETFL), former);
  EXPECT_EQ(ends.readSome(), "text");
}

TEST_P(AWay, SaysThatNobodyReadsAnyMore) {
  signal(SIGPIPE, SIG_IGN);
  PipeEnds ends;
  ends.reading = File();
  EXPECT_EQ(GetParam().write(ends.writing.number(), "text"), 0u);
  EXPECT_EQ(errno, EPIPE);
}

INSTANTIATE_TEST_SUITE_P(WriteWithoutWaiting, AWay, testing::ValuesIn(kWays));

class ATerminal : public testing::TestWithParam<Way> {};

TEST_P(ATerminal, ThatNobodyReadsIsWaitedForByNobody) {
  const Terminal terminal;
  EXPECT_GT(fill(GetParam().write, terminal.end.number()), 0u);
  EXPECT_EQ(errno, EAGAIN);
}

TEST_P(ATerminal, ThatIsStoppedTakesNothingUntilItGoesOn) {
  const Terminal terminal;
  tcflow(terminal.end.number(), TCOOFF);
  EXPECT_EQ(GetParam().write(terminal.end.number(), "text"), 0u);
  EXPECT_EQ(errno, EAGAIN);
  tcflow(terminal.end.number(), TCOON);
  EXPECT_EQ(GetParam().write(terminal.end.number(), "text"), 4u);
}

INSTANTIATE_TEST_SUITE_P(WriteWithoutWaiting, ATerminal, testing::ValuesIn(kWays));

TEST(WriteWithoutWaiting, AFullSocketIsWaitedForByNobody) {
  int ends[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
  const File reading(ends[0]);
  const File writing(ends[1]);
  EXPECT_GT(fill(velto::writeWithoutWaiting, writing.number()), 0u);
  EXPECT_EQ(errno, EAGAIN);
}

TEST(WriteWithoutWaiting, ADiskAndTheNullDeviceTakeEverything) {
  const std::unique_ptr<FILE, int (*)(FILE*)> file(std::tmpfile(), std::fclose);
  const File null(open("/dev/null", O_WRONLY));
  const std::string text(std::size_t{1024} * 1024, 'x');
  EXPECT_EQ(velto::writeWithoutWaiting(fileno(file.get()), text), text.size());
  EXPECT_EQ(velto::writeWithoutWaiting(null.number(), text), text.size());
}

TEST(WriteWithoutWaiting, WhatDoesNotFitAsAWholeIsCutAndSaidToBe) {
  const PipeEnds ends;
  const std::string text(std::size_t{1024} * 1024, 'x');
  const std::size_t written = velto::writeWithoutWaiting(ends.writing.number(), text);
  EXPECT_GT(written, 0u);
  EXPECT_LT(written, text.size());
  EXPECT_EQ(errno, EAGAIN);
}

TEST(WriteWithoutWaiting, AClosedDescriptorIsAnError) {
  EXPECT_EQ(velto::writeWithoutWaiting(-1, "text"), 0u);
  EXPECT_EQ(errno, EBADF);
  EXPECT_EQ(velto::writeWhileThereIsRoom(-1, "text"), 0u);
}

TEST(WriteWithoutWaiting, APipeWithANameThatNobodyReadsAnyMoreIsClosedToo) {
  signal(SIGPIPE, SIG_IGN);
  std::string folder = testing::TempDir() + "fifo-XXXXXX";
  ASSERT_NE(mkdtemp(folder.data()), nullptr);
  const std::string path = folder + "/fifo";
  ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
  File reading(open(path.c_str(), O_RDONLY | O_NONBLOCK));
  const File writing(open(path.c_str(), O_WRONLY));
  EXPECT_EQ(velto::writeReopened(writing.number(), "text"), 4u);
  reading = File();
  EXPECT_EQ(velto::writeReopened(writing.number(), "text"), 0u);
  EXPECT_EQ(errno, EPIPE);
  unlink(path.c_str());
  rmdir(folder.c_str());
}

TEST(WriteWithoutWaiting, AWayThatADescriptorDoesNotKnowSaysSo) {
  const Terminal terminal;
  EXPECT_EQ(velto::writeMarkedNotToWait(terminal.end.number(), "text"), 0u);
  EXPECT_EQ(errno, EOPNOTSUPP);
  EXPECT_EQ(velto::writeReopened(-1, "text"), 0u);
  EXPECT_EQ(errno, EOPNOTSUPP);
}

}  // namespace
