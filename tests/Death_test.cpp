// Ends and brokers that vanish without a word: killed, not closed.

#include <signal.h>

#include "tests/support/Arrangement.h"
#include "tests/support/BrokerLink.h"

namespace velto::testing {
namespace {

// The one end that is killed runs in a child process; the other, and the broker, here.
using Death = LibraryTest;

TEST_F(Death, OfTheListenersProcessIsHeardByItsClientAsInterruptionThenInvalidation) {
  ChildActor listener;
  ASSERT_EQ(listener.ask("listen doomed"), "listening");
  ClientEnd client("doomed");
  const NSString id = client.ready();
  auto call = inBackground([&] {
    NSError error;
    EXPECT_TRUE(client.connection->sendMessageSync({{"word", "silence"}}, VKT_IPC_TIME_FOREVER, &error).isNil());
    return error;
  });
  ASSERT_EQ(listener.ask("await 1 message"), "seen");
  listener.process().signal(SIGKILL);
  expectError(finish(call), 6, "Timed out waiting");

  const Event end = client.delegate->waitForError("Listener connection invalidated");
  EXPECT_EQ(end.connectionID, id);
  client.delegate->waitForError("Daemon connection invalidated");
  EXPECT_TRUE(log.inOrder(
      {{0, "Listener connection interrupted"}, {2, "Listener connection invalided. Shutting down connections"}}))
      << log.text();
  const auto errors = client.delegate->errors();
  const auto interrupted = std::find_if(errors.begin(), errors.end(), [](const Event& event) {
    return event.isError("Listener connection interrupted");
  });
  const auto invalidated = std::find_if(errors.begin(), errors.end(), [](const Event& event) {
    return event.isError("Listener connection invalidated");
  });
  ASSERT_LT(interrupted, invalidated);
  EXPECT_EQ(interrupted->connectionID, id);
  expectError(interrupted->error, 2, "Listener connection interrupted");
}

TEST_F(Death, OfTheListenersProcessEndsItsRegistration) {
  ChildActor listener;
  ASSERT_EQ(listener.ask("listen doomed"), "listening");
  TestLink link;
  EXPECT_FALSE(link.find("doomed").isNil());
  listener.process().signal(SIGKILL);
  EXPECT_TRUE(eventually([&] { return link.find("doomed").isNil(); }));
  ClientEnd late("doomed");
  late.delegate->waitForError("Listener not available");
}

TEST_F(Death, OfAClientsProcessLeavesItsEntriesThroughTheInterruptionUntilTheInvalidation) {
  ListenerEnd server("survivor");
  Mutex mutex;
  std::vector<std::pair<std::string, ListenerEnd::Entries>> seen;
  server.delegate->onError([&](const NSString& id, const NSError& error) {
    MutexLock lock(mutex);
    seen.emplace_back(error.localizedDescription().string(), server.entries(id));
  });
  ChildActor client;
  ASSERT_EQ(client.ask("connect survivor"), "connecting");
  ASSERT_EQ(client.ask("ready 20"), "yes");
  const std::string id = client.ask("id");
  client.process().signal(SIGKILL);
  ASSERT_TRUE(log.waitFor(2, "Cleared out connections and objects for " + id));
  {
    MutexLock lock(mutex);
    EXPECT_EQ(seen, (std::vector<std::pair<std::string, ListenerEnd::Entries>>{
                        {"Connection interrupted", kAllEntries}, {"Connection invalidated", kAllEntries}}));
  }
  EXPECT_EQ(server.entries(id), kNoEntries);
  const auto errors = server.delegate->errors();
  ASSERT_EQ(errors.size(), 2u);
  EXPECT_EQ(errors[0].connectionID, NSString(id));
  expectError(errors[0].error, 2, "Connection interrupted");
  EXPECT_EQ(errors[1].connectionID, NSString(id));
  EXPECT_TRUE(log.inOrder({{0, "VeltoConnection connection interrupted"},
                           {2, "VeltoConnection connection " + id + " invalidated. Closing connection"},
                           {2, "Cleared out connections and objects for " + id}}))
      << log.text();
  server.delegate->onError({});
}

TEST_F(Death, OfAClientsProcessWakesWhoWaitsForItsReply) {
  ListenerEnd server("survivor");
  ChildActor client;
  ASSERT_EQ(client.ask("connect survivor"), "connecting");
  ASSERT_EQ(client.ask("ready 20"), "yes");
  const std::string id = client.ask("id");
  auto call = inBackground([&] {
    NSError error;
    EXPECT_TRUE(server.listener->sendMessageSync({{"word", "silence"}}, id, VKT_IPC_TIME_FOREVER, &error).isNil());
    return error;
  });
  ASSERT_EQ(client.ask("await 1 message"), "seen");
  client.process().signal(SIGKILL);
  expectError(finish(call), 6, "Timed out waiting");
}

// With the broker's program.
class BrokerDeath : public QuietTest {
 protected:
  DaemonProcess daemon;
};

TEST_F(BrokerDeath, IsReportedAsInterruptionThenInvalidationOfTheLinks) {
  Pair pair;
  daemon.process().signal(SIGKILL);
  for (const auto& delegate : {pair.client.delegate, pair.server.delegate}) {
    delegate->waitForError("Daemon connection invalidated");
    const auto errors = delegate->errors();
    ASSERT_EQ(errors.size(), 2u);
    EXPECT_TRUE(errors[0].connectionID.isNil());
    expectError(errors[0].error, 2, "Daemon connection interrupted");
    EXPECT_TRUE(errors[1].connectionID.isNil());
    expectError(errors[1].error, 2, "Daemon connection invalidated");
  }
  EXPECT_EQ(log.count(0, "Daemon connection interrupted"), 2u) << log.text();
  EXPECT_EQ(log.count(0, "Daemon connection invalidated"), 2u) << log.text();
}

TEST_F(BrokerDeath, IsNotNoticedByLiveConnections) {
  Pair pair;
  pair.server.delegate->echo();
  pair.client.delegate->echo();
  daemon.process().signal(SIGKILL);
  pair.client.delegate->waitForError("Daemon connection invalidated");
  pair.server.delegate->waitForError("Daemon connection invalidated");
  pair.roundTrip();
  EXPECT_EQ(pair.server.listener->sendMessageSync({{"still", "there"}}, pair.id, 20.0),
            NSDictionary({{"still", "there"}}));
  // Nothing was recorded either: the client's errors are its own only.
  NSError error;
  EXPECT_TRUE(pair.client.connection->waitUntilReady(0.0, &error));
  EXPECT_TRUE(error.isNil());
  EXPECT_TRUE(pair.client.connection->daemonConnection());
}

TEST_F(BrokerDeath, ByATerminationSignalIsAnOrderlyEnd) {
  Pair pair;
  daemon.process().signal(SIGTERM);
  EXPECT_EQ(daemon.process().wait(), 0);
  pair.client.delegate->waitForError("Daemon connection invalidated");
  pair.server.delegate->waitForError("Daemon connection invalidated");
  pair.server.delegate->echo();
  pair.roundTrip();
}

TEST_F(BrokerDeath, IsFollowedByANewBrokerUnderTheSameName) {
  daemon.process().signal(SIGKILL);
  daemon.process().wait();
  DaemonProcess second;
  ASSERT_TRUE(second.listens()) << second.words();
  Pair pair;
  pair.server.delegate->echo();
  pair.roundTrip();
}

TEST_F(BrokerDeath, ASecondBrokerIsRefusedWhileTheFirstLives) {
  ASSERT_TRUE(daemon.listens()) << daemon.words();
  DaemonProcess second;
  EXPECT_FALSE(second.listens());
  EXPECT_EQ(second.process().wait(), 1);
  EXPECT_NE(second.words().find("org.velto.VeltoIPCDaemon"), std::string::npos) << second.words();
  Pair pair;
  pair.server.delegate->echo();
  pair.roundTrip();
}

}  // namespace
}  // namespace velto::testing
