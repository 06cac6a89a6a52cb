#include "platform/xpc/transport/Sockets.h"

#include <fstream>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/un.h>

#include "platform/xpc/system/SystemCalls.h"
#include "platform/xpc/testing/Support.h"
#include "platform/xpc/transport/RuntimeDirectory.h"

namespace velto::transport {
namespace {

using velto::testing::PrivateRuntimeDirectory;

class Places : public ::testing::Test {
 protected:
  // What is said of the place that the environment names.
  static std::string reason() {
    const auto runtime = RuntimeDirectory::open();
    EXPECT_FALSE(runtime.directory) << runtime.path;
    return runtime.reason;
  }
  const PrivateRuntimeDirectory own;
};

TEST_F(Places, AreOfThisUserAloneInTheDirectoryThatTheEnvironmentNames) {
  const auto runtime = RuntimeDirectory::open();
  ASSERT_TRUE(runtime.directory) << runtime.reason;
  EXPECT_EQ(runtime.path, own.path() + "/velto-ipc");
  struct stat status {};
  ASSERT_EQ(::fstat(runtime.directory.get(), &status), 0);
  EXPECT_EQ(status.st_uid, ::geteuid());
  EXPECT_EQ(status.st_mode & 0777, 0700U);
}

TEST_F(Places, ThatCannotBeUsedAreAnErrorAndNoOtherIsTaken) {
  const std::string path = own.path();
  ASSERT_EQ(::chmod(path.c_str(), 0777), 0);
  EXPECT_NE(reason().find("$XDG_RUNTIME_DIR cannot be used: " + path + " can be written to by others"),
            std::string::npos);
  ASSERT_EQ(::chmod(path.c_str(), 0700), 0);
  ::setenv("XDG_RUNTIME_DIR", (path + "/missing").c_str(), 1);
  EXPECT_NE(reason().find(path + "/missing: No such file or directory"), std::string::npos);
  std::ofstream(path + "/file") << "text";
  ::setenv("XDG_RUNTIME_DIR", (path + "/file").c_str(), 1);
  EXPECT_NE(reason().find(path + "/file: Not a directory"), std::string::npos);
  ::setenv("XDG_RUNTIME_DIR", "somewhere", 1);
  EXPECT_NE(reason().find("somewhere is not an absolute path"), std::string::npos);
  ::setenv("XDG_RUNTIME_DIR", path.c_str(), 1);
  std::filesystem::create_symlink("/tmp", path + "/velto-ipc");
  EXPECT_NE(reason().find(path + "/velto-ipc: "), std::string::npos) << "a link is not followed";
  std::filesystem::remove(path + "/velto-ipc");
  ASSERT_EQ(::mkdir((path + "/velto-ipc").c_str(), 0700), 0);
  ASSERT_EQ(::chmod((path + "/velto-ipc").c_str(), 0720), 0);
  EXPECT_NE(reason().find(path + "/velto-ipc can be written to by others"), std::string::npos);
}

TEST_F(Places, AreAPrivateDirectoryWhereTheEnvironmentNamesNone) {
  ::unsetenv("XDG_RUNTIME_DIR");
  const auto runtime = RuntimeDirectory::open();
  ASSERT_TRUE(runtime.directory) << runtime.reason;
  struct stat status {};
  ASSERT_EQ(::fstat(runtime.directory.get(), &status), 0);
  EXPECT_EQ(status.st_uid, ::geteuid());
  EXPECT_EQ(status.st_mode & 0777, 0700U);
}

TEST(ServiceNames, AreThoseThatCanBeAFilesName) {
  std::string reason;
  EXPECT_TRUE(isFileName("org.velto.VeltoIPCDaemon", reason));
  EXPECT_TRUE(isFileName(std::string(255, 'n'), reason));
  for (const std::string& bad : {std::string(), std::string(256, 'n'), std::string("a/b"), std::string("a\0b", 3),
                                 std::string("."), std::string("..")}) {
    reason.clear();
    EXPECT_FALSE(isFileName(bad, reason)) << bad;
    EXPECT_FALSE(reason.empty()) << bad;
  }
}

TEST(NamedSockets, AreReachedByTheirName) {
  const PrivateRuntimeDirectory own;
  const auto served = serveName("service");
  ASSERT_TRUE(served.socket) << served.reason;
  EXPECT_EQ(served.path, own.path() + "/velto-ipc/service");
  const auto attempt = connectToService("service");
  EXPECT_TRUE(attempt.socket) << attempt.reason;
}

TEST(NamedSockets, ServeANameOf255BytesToo) {
  const PrivateRuntimeDirectory own;
  const std::string name(255, 'x');
  const auto served = serveName(name);
  ASSERT_TRUE(served.socket) << served.reason;
  EXPECT_TRUE(connectToService(name).socket);
}

TEST(NamedSockets, ANameIsNotTakenFromAProcessThatServesIt) {
  const PrivateRuntimeDirectory own;
  const auto first = serveName("service");
  const auto second = serveName("service");
  EXPECT_FALSE(second.socket);
  EXPECT_NE(second.reason.find("served already"), std::string::npos) << second.reason;
  EXPECT_TRUE(connectToService("service").socket) << "the first must be untouched";
}

TEST(NamedSockets, ANameIsTakenOverFromADeadProcess) {
  const PrivateRuntimeDirectory own;
  { const auto dead = serveName("service"); }
  ASSERT_TRUE(std::filesystem::exists(own.path() + "/velto-ipc/service"));
  const auto next = serveName("service");
  ASSERT_TRUE(next.socket) << next.reason;
  EXPECT_TRUE(connectToService("service").socket);
}

TEST(NamedSockets, GivingANameUpRemovesItButNotThatOfASuccessor) {
  const PrivateRuntimeDirectory own;
  auto first = serveName("service");
  first.socket.reset();
  const auto second = serveName("service");
  ASSERT_TRUE(second.socket) << second.reason;
  stopServingName(first);
  EXPECT_TRUE(connectToService("service").socket) << "the name is the successor's";
  stopServingName(second);
  EXPECT_FALSE(std::filesystem::exists(own.path() + "/velto-ipc/service"));
}

TEST(NamedSockets, WhatIsNoSocketOrALinkIsNotConnectedTo) {
  const PrivateRuntimeDirectory own;
  ASSERT_TRUE(RuntimeDirectory::open().directory);
  std::ofstream(own.path() + "/velto-ipc/file") << "text";
  EXPECT_NE(connectToService("file").reason.find("not a socket"), std::string::npos);
  const auto served = serveName("service");
  std::filesystem::create_symlink("service", own.path() + "/velto-ipc/link");
  EXPECT_FALSE(connectToService("link").socket);
  EXPECT_NE(connectToService("nobody").reason.find("no service under"), std::string::npos);
}

TEST(NamedSockets, UnderAFreshNameAreReachedByItAndListedUntilNobodyServesThem) {
  const PrivateRuntimeDirectory own;
  const auto one = serveFreshName("door-");
  const auto other = serveFreshName("door-");
  ASSERT_TRUE(one.socket && other.socket) << one.reason << other.reason;
  EXPECT_TRUE(connectToService(one.name).socket);
  const std::string from = RuntimeDirectory::named();
  EXPECT_EQ(namesBeginningWith("door-", from).size(), 2u);
  EXPECT_TRUE(namesBeginningWith("window-", from).empty());
  forgetName(one.name, from);
  EXPECT_EQ(namesBeginningWith("door-", from).size(), 2u) << "somebody serves it";
  stopServingName(one);
  EXPECT_EQ(namesBeginningWith("door-", from), std::vector<std::string>{other.name});
}

TEST(NamedSockets, ThatWerePassedOnServeAndTellOfWhoHasThem) {
  const PrivateRuntimeDirectory own;
  auto made = serveName("passed");
  const auto taken = takeOverServing(std::move(made.socket), "passed");
  ASSERT_TRUE(taken.socket) << taken.reason;
  EXPECT_EQ(taken.path, own.path() + "/velto-ipc/passed");
  EXPECT_TRUE(connectToService("passed").socket);
  stopServingName(taken);
  EXPECT_TRUE(connectToService("passed").absent);
}

TEST(NamedSockets, WhatWasPassedOnAndDoesNotListenIsRefused) {
  const PrivateRuntimeDirectory own;
  auto [one, other] = velto::testing::socketPair();
  EXPECT_NE(takeOverServing(std::move(one), "").reason.find("does not listen"), std::string::npos);
  system::Descriptor file(system::systemCalls().openAt(AT_FDCWD, "/dev/null", O_RDONLY));
  EXPECT_NE(takeOverServing(std::move(file), "").reason.find("is no socket"), std::string::npos);
}

TEST(AnonymousSockets, HaveNoNameAndAreReachedThroughTheirHandle) {
  const PrivateRuntimeDirectory own;
  const auto made = makeAnonymousSocket();
  ASSERT_TRUE(made.socket) << made.reason;
  EXPECT_TRUE(std::filesystem::is_empty(own.path() + "/velto-ipc"));
  EXPECT_TRUE(connectToEndpoint(made.handle.get()).socket);
}

TEST(AnonymousSockets, TheirPipeHangsUpWithTheWritingEnd) {
  const PrivateRuntimeDirectory own;
  auto made = makeAnonymousSocket();
  pollfd entry{made.hangUpRead.get(), 0, 0};
  EXPECT_EQ(::poll(&entry, 1, 0), 0);
  made.hangUpWrite.reset();
  EXPECT_EQ(::poll(&entry, 1, 0), 1);
  EXPECT_TRUE(entry.revents & POLLHUP);
}

TEST(AnonymousSockets, ADeadListenerCannotBeReached) {
  const PrivateRuntimeDirectory own;
  auto made = makeAnonymousSocket();
  made.socket.reset();
  const auto attempt = connectToEndpoint(made.handle.get());
  EXPECT_FALSE(attempt.socket);
  EXPECT_FALSE(attempt.full);
}

TEST(AnonymousSockets, AFullBacklogIsToldFromAnEndpointThatIsGone) {
  const PrivateRuntimeDirectory own;
  const auto made = makeAnonymousSocket();
  ASSERT_EQ(::listen(made.socket.get(), 0), 0);  // the shortest queue there is
  std::vector<ConnectAttempt> attempts;
  do {
    attempts.push_back(connectToEndpoint(made.handle.get()));
  } while (attempts.back().socket && attempts.size() < 100);
  EXPECT_TRUE(attempts.back().full);
  system::Descriptor accepted(system::systemCalls().accept(made.socket.get()));
  EXPECT_TRUE(connectToEndpoint(made.handle.get()).socket) << "room again";
}

}  // namespace
}  // namespace velto::transport
