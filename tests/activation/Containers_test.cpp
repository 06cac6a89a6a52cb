// Processes that see different file systems, of which they share the broker's directory and nothing else. Where this
// machine lets nobody make such a view, there is nothing to be tried.
#include <cstdlib>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <unistd.h>

#include "tests/activation/StartedBroker.h"
#include "tests/support/Brokers.h"

namespace velto::testing {
namespace {

// A shell in a view of its own, after these commands. The outer runtime directory is $0, the program $1.
std::vector<std::string> inOwnView(const std::string& commands, const std::string& runtime,
                                   const std::vector<std::string>& program) {
  std::vector<std::string> command{"/usr/bin/unshare", "--mount"};
  if (::geteuid() != 0) command.insert(command.end(), {"--user", "--map-current-user", "--keep-caps"});
  command.insert(command.end(), {"sh", "-c", "set -e; " + commands + "; exec \"$@\"", runtime});
  command.insert(command.end(), program.begin(), program.end());
  return command;
}

// In which only the broker's directory is the same, at another place; the outer runtime directory cannot be seen.
constexpr char kContainer[] =
    "mount -t tmpfs none /mnt; mkdir -m 700 /mnt/run /mnt/run/velto-ipc; mount --bind \"$0/velto-ipc\" /mnt/run/velto-ipc; "
    "mount -t tmpfs none \"$0\"; export XDG_RUNTIME_DIR=/mnt/run";

class Containers : public ::testing::Test {
 protected:
  void SetUp() override {
    ChildProcess tried(inOwnView(kContainer, path, {"test", "!", "-e", path + "/velto-ipc"}), ChildProcess::Errors::joinOutput);
    const auto words = tried.readLine();
    if (tried.wait() != 0) GTEST_SKIP() << "views of one's own are not to be had here: " << words.value_or("");
  }
  static std::vector<std::string> guest(const std::string& role, const std::string& name) {
    return {VELTO_ACTIVATION_GUEST, role, name};
  }

  const RuntimeDirectory directory;
  const std::string path = directory.path().string();
  DaemonProcess broker;
};

TEST_F(Containers, AListenerAndAClientThatShareOnlyTheBrokersDirectoryFindEachOther) {
  ChildProcess listener(inOwnView(kContainer, path, guest("serve", "inside")));
  ASSERT_EQ(listener.readLine(), "serving");
  ChildProcess client(inOwnView(kContainer, path, guest("find", "inside")));
  EXPECT_EQ(client.readLine(), "found");
  EXPECT_EQ(found("inside"), "found") << "and so does one outside";
}

TEST_F(Containers, WithoutProcTheErrorSaysSo) {
  ChildProcess client(inOwnView("mount -t tmpfs none /proc", path, guest("connect", "anything")));
  const auto said = client.readLine();
  ASSERT_TRUE(said);
  EXPECT_NE(said->find("/proc is not mounted here, and endpoints are reached through /proc/self/fd: mount it"),
            std::string::npos)
      << *said;
}

}  // namespace
}  // namespace velto::testing
