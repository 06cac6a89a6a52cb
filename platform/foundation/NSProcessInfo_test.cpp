#include "platform/foundation/NSProcessInfo.h"

#include <array>
#include <set>
#include <string>

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include "platform/foundation/Foundation.h"

namespace {

std::string next() {
  return NSProcessInfo::processInfo().globallyUniqueString().string();
}

std::string partNaming(pid_t process) {
  std::string part = "-";
  part += std::to_string(process);
  part += "-";
  return part;
}

TEST(NSProcessInfo, IsOneObject) {
  EXPECT_EQ(&NSProcessInfo::processInfo(), &NSProcessInfo::processInfo());
}

TEST(NSProcessInfo, EveryUniqueStringIsNew) {
  std::set<std::string> seen;
  for (int each = 0; each < 1000; ++each) EXPECT_TRUE(seen.insert(next()).second);
}

TEST(NSProcessInfo, UniqueStringsNameTheProcess) {
  EXPECT_NE(next().find(partNaming(getpid())), std::string::npos);
}

TEST(NSProcessInfo, AForkedProcessDrawsStringsOfItsOwn) {
  next();
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    const std::string text = next();
    _exit(write(ends[1], text.data(), text.size()) == static_cast<ssize_t>(text.size()) ? 0 : 1);
  }
  close(ends[1]);
  std::array<char, 256> buffer{};
  const ssize_t length = read(ends[0], buffer.data(), buffer.size());
  close(ends[0]);
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  ASSERT_GT(length, 0);
  const std::string fromChild(buffer.data(), static_cast<std::size_t>(length));
  EXPECT_NE(fromChild.find(partNaming(child)), std::string::npos);
  // The random part alone differs too: process numbers come back one day.
  EXPECT_NE(fromChild.substr(0, 36), next().substr(0, 36));
}

}  // namespace
