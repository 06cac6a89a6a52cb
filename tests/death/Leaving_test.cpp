// Processes that end, or fork, with live connections.

#include <signal.h>

#include "tests/death/DyingProcess.h"
#include "tests/peer/Payload.h"
#include "tests/support/LibraryTest.h"

namespace velto::testing {
namespace {

struct Leave {
  const char* way;
  // What the listener hears of it.
  std::vector<std::string> errors;
};

class Leaving : public LibraryTest, public ::testing::WithParamInterface<Leave> {};

TEST_P(Leaving, WithALiveConnectionEndsTheProcessWellAndIsHeard) {
  ListenerEnd server("left");
  server.delegate->echo();
  DyingProcess client("client", {});
  ASSERT_EQ(client.ask("connect left"), "connecting");
  ASSERT_EQ(client.ask("ready 20"), "yes");
  ASSERT_EQ(client.ask("sync 20 echo:1"), "reply echo:1");
  ASSERT_EQ(client.ask("async silence:"), "sent");
  // Messages are on their way to it while it leaves.
  const NSString id = server.delegate->readies().at(0).connectionID;
  for (int number = 0; number < 50; ++number) server.listener->sendMessage(messageOf("silence:"), id);
  ASSERT_TRUE(client.process().writeLine(std::string("leave ") + GetParam().way));
  EXPECT_EQ(client.process().wait(), 0);
  server.delegate->waitForError("Connection invalidated");
  std::vector<std::string> heard;
  for (const Event& event : server.delegate->errors()) {
    if (event.error.domain().view() != kErrorDomain) continue;
    EXPECT_EQ(event.connectionID, id);
    heard.push_back(event.error.localizedDescription().string());
  }
  EXPECT_EQ(heard, GetParam().errors);
}

INSTANTIATE_TEST_SUITE_P(InEveryWay, Leaving,
                         ::testing::Values(Leave{"exit", {"Connection invalidated"}},
                                           Leave{"atexit", {"Connection invalidated"}},
                                           Leave{"abandon", {"Connection interrupted", "Connection invalidated"}},
                                           Leave{"_exit", {"Connection interrupted", "Connection invalidated"}}),
                         [](const ::testing::TestParamInfo<Leave>& information) {
                           const std::string way = information.param.way;
                           return way == "_exit" ? std::string("AtOnce") : way;
                         });

using Forking = LibraryTest;

// A fork holds copies of every descriptor of its parent. If any of them stayed open, the death of the parent would go
// unnoticed for as long as the fork lives.
TEST_F(Forking, AForkThatLivesOnDoesNotHideTheDeathOfItsParent) {
  ListenerEnd server("forked");
  server.delegate->echo();
  DyingProcess client("client", {});
  ASSERT_EQ(client.ask("connect forked"), "connecting");
  ASSERT_EQ(client.ask("ready 20"), "yes");
  ASSERT_EQ(client.ask("fork"), "error 6 Timed out waiting, 0 sockets");
  // The parent's connection is as it was.
  ASSERT_EQ(client.ask("sync 20 echo:1"), "reply echo:1");
  const NSString id = server.delegate->readies().at(0).connectionID;
  EXPECT_EQ(server.listener->sendMessageSync(messageOf("echo:2"), id, 20.0), messageOf("echo:2"));
  EXPECT_TRUE(server.delegate->errors().empty());
  // Nothing of what the fork sent has come.
  EXPECT_EQ(server.delegate->messages().size(), 1u);
  client.process().signal(SIGKILL);
  server.delegate->waitForError("Connection invalidated");
  EXPECT_EQ(server.delegate->errorCount("Connection interrupted"), 1u);
}

TEST_F(Forking, AForkOfAListenersProcessDoesNotKeepItsRegistration) {
  DyingProcess listener("listener", {});
  ASSERT_EQ(listener.ask("listen forked"), "listening");
  ClientEnd client("forked");
  client.ready();
  const std::string id = client.connection->getID().string();
  ASSERT_EQ(listener.ask("fork " + id), "error 6 Timed out waiting, 0 sockets");
  EXPECT_EQ(client.connection->sendMessageSync(messageOf("echo:1"), 20.0), messageOf("echo:1"));
  listener.process().signal(SIGKILL);
  client.delegate->waitForError("Listener connection invalidated");
  EXPECT_TRUE(eventually([] {
    ClientEnd late("forked");
    late.delegate->waitForErrors(1);
    return late.delegate->errors().at(0).isError("Listener not available");
  }));
}

}  // namespace
}  // namespace velto::testing
