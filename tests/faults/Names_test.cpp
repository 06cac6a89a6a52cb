// A name is never taken from a service that lives, even when the kernel cannot say whether it does; and no other
// directory is used because the right one cannot be opened just now.

#include <cerrno>
#include <cstdlib>

#include "platform/xpc/transport/RuntimeDirectory.h"
#include "platform/xpc/transport/Sockets.h"
#include "tests/faults/FaultTest.h"

namespace velto::testing {
namespace {

using Names = FaultTest;

bool inDirectory(int descriptor) {
  return descriptor >= 0;
}

TEST_F(Names, ALivingServiceKeepsItsNameWhateverFailsWhenAnotherAsksForIt) {
  const auto living = transport::serveName("kept");
  ASSERT_TRUE(living.socket) << living.reason;
  struct Case {
    SystemCall call;
    int error;
    FaultPlan::Selection selection = FaultPlan::anyDescriptor;
  };
  const std::vector<Case> cases{{SystemCall::socketStream, EMFILE},
                                {SystemCall::socketStream, ENOMEM},
                                {SystemCall::connect, EAGAIN},
                                {SystemCall::connect, ENOMEM},
                                {SystemCall::connect, EACCES},
                                {SystemCall::peerUser, ENOMEM},
                                {SystemCall::status, EIO},
                                {SystemCall::openAt, EMFILE, inDirectory},
                                {SystemCall::openAt, ENFILE, inDirectory},
                                {SystemCall::openAt, EIO, inDirectory}};
  for (const Case& each : cases) {
    for (std::size_t occurrence = 1; occurrence <= 2; ++occurrence) {
      plan.plan(each.call, occurrence, each.error, each.selection);
      const auto second = transport::serveName("kept");
      plan.end();
      EXPECT_FALSE(second.socket) << nameOf(each.call) << " " << occurrence;
      EXPECT_FALSE(second.reason.empty());
      EXPECT_TRUE(transport::connectToService("kept").socket) << nameOf(each.call) << " " << occurrence;
    }
  }
  transport::stopServingName(living);
}

TEST_F(Names, ADeadServicesNameIsTakenOverAfterAFaultHasPassed) {
  { const auto dead = transport::serveName("left"); }
  plan.plan(SystemCall::connect, 1, ENOMEM);
  EXPECT_NE(transport::serveName("left").reason.find("cannot be told"), std::string::npos);
  plan.end();
  const auto next = transport::serveName("left");
  EXPECT_TRUE(next.socket) << next.reason;
  transport::stopServingName(next);
}

TEST_F(Names, ADirectoryThatCannotBeOpenedJustNowIsNotReplacedByAnother) {
  for (const int error : {EMFILE, ENFILE, ENOMEM, EIO}) {
    plan.plan(SystemCall::openAt, 1, error);
    const auto opened = transport::RuntimeDirectory::open();
    EXPECT_FALSE(opened.directory) << opened.path;
    EXPECT_NE(opened.reason.find(directory.path().string()), std::string::npos) << opened.reason;
    EXPECT_EQ(plan.count(SystemCall::makeDirectory), 0u);
    plan.end();
    EXPECT_EQ(transport::RuntimeDirectory::open().path, directory.path().string() + "/velto-ipc");
  }
}

TEST_F(Names, WithoutAnyDirectoryTheReasonIsSaid) {
  for (const int error : {EACCES, EROFS, ENOSPC, EDQUOT, EMLINK, EEXIST}) {
    ::unsetenv("XDG_RUNTIME_DIR");
    plan.plan([](SystemCall, int) { return Verdict::pass(); });
    plan.alsoFail(SystemCall::openAt, ENOENT);
    plan.alsoFail(SystemCall::makeDirectory, error);
    const auto opened = transport::RuntimeDirectory::open();
    EXPECT_EQ(plan.count(SystemCall::makeDirectory), 1u);
    EXPECT_FALSE(opened.directory);
    EXPECT_NE(opened.reason.find("no runtime directory"), std::string::npos) << opened.reason;
    EXPECT_EQ(NSXPCListener::anonymousListener(), nullptr);
    NSError told;
    EXPECT_EQ(NSXPCListener::listenerWithServiceName("nowhere", &told), nullptr);
    EXPECT_NE(told.localizedDescription().string().find("no runtime directory"), std::string::npos);
    plan.end();
    ::setenv("XDG_RUNTIME_DIR", directory.path().c_str(), 1);
  }
}

TEST_F(Names, AnAnonymousSocketWhoseNameCannotBeTakenAwayIsNotGivenOut) {
  plan.plan(SystemCall::unlinkAt, 1, EROFS);
  const auto made = transport::makeAnonymousSocket();
  plan.end();
  EXPECT_FALSE(made.socket);
  EXPECT_NE(made.reason.find("Read-only file system"), std::string::npos) << made.reason;
}

}  // namespace
}  // namespace velto::testing
