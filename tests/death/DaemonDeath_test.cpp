// The broker's program itself, killed, stopped and started again from outside.

#include <signal.h>

#include "tests/death/Heard.h"
#include "tests/support/Arrangement.h"

namespace velto::testing {
namespace {

class DaemonDeath : public QuietTest {
 protected:
  void SetUp() override { ASSERT_TRUE(daemon->listens()) << daemon->words(); }

  // Stopped when it returns.
  void stop() {
    daemon->process().signal(SIGSTOP);
    siginfo_t information{};
    ASSERT_EQ(waitid(P_PID, static_cast<id_t>(daemon->process().processID()), &information, WSTOPPED), 0);
  }

  void restart() {
    daemon->process().signal(SIGKILL);
    daemon->process().wait();
    daemon = std::make_unique<DaemonProcess>();
    ASSERT_TRUE(daemon->listens()) << daemon->words();
  }

  static bool neverReady(const ClientEnd& client) {
    auto call = inBackground([&] {
      NSError error;
      return !client.connection->waitUntilReady(4.0 * static_cast<double>(kBound.count()), &error) && error;
    });
    return finish(call);
  }

  std::unique_ptr<DaemonProcess> daemon = std::make_unique<DaemonProcess>();
};

TEST_F(DaemonDeath, WhileALookUpWaitsIsHeardAsTheTableSays) {
  stop();
  ClientEnd client("org.velto.test.waits");
  daemon->process().signal(SIGKILL);
  EXPECT_TRUE(neverReady(client));
  client.delegate->waitForError("Daemon connection invalidated");
  waitForLoggedErrors(log, {client.delegate.get()});
  expectRow(rowOf(kBrokerDies, "before it answered the look-up"),
            {heardBy(*client.delegate, nil), LoggedFailures(log), {}, false, false});
}

TEST_F(DaemonDeath, BeforeALookUpIsHeardAsTheTableSays) {
  daemon->process().signal(SIGKILL);
  daemon->process().wait();
  ClientEnd client("org.velto.test.late");
  EXPECT_TRUE(neverReady(client));
  client.delegate->waitForError("Daemon connection invalidated");
  waitForLoggedErrors(log, {client.delegate.get()});
  expectRow(rowOf(kBrokerDies, "could not be reached"),
            {heardBy(*client.delegate, nil), LoggedFailures(log), {}, false, false});
}

TEST_F(DaemonDeath, WhileItIsStoppedLiveConnectionsGoOnAndLookUpsWait) {
  Pair pair;
  pair.server.delegate->echo();
  stop();
  pair.roundTrip();
  ClientEnd late("org.velto.test.pair");
  NSError error;
  EXPECT_FALSE(late.connection->waitUntilReady(0.01, &error));
  expectError(error, 6, "Timed out waiting");
  daemon->process().signal(SIGCONT);
  late.ready();
  EXPECT_EQ(late.connection->sendMessageSync({{"after", "all"}}, 20.0), NSDictionary({{"after", "all"}}));
  EXPECT_TRUE(late.delegate->errors().empty());
  EXPECT_TRUE(pair.client.delegate->errors().empty());
}

TEST_F(DaemonDeath, TheNextBrokerKnowsTheListenersThatLiveAndServesWhoComes) {
  Pair old;
  old.server.delegate->echo();
  restart();
  ClientEnd early("org.velto.test.pair");
  early.ready();
  EXPECT_EQ(early.connection->sendMessageSync({{"who", "old"}}, 20.0), NSDictionary({{"who", "old"}}));
  EXPECT_EQ(old.server.delegate->messages().size(), 1u);
  ListenerEnd next("org.velto.test.pair");
  next.delegate->echo();
  ClientEnd late("org.velto.test.pair");
  late.ready();
  EXPECT_EQ(late.connection->sendMessageSync({{"who", "next"}}, 20.0), NSDictionary({{"who", "next"}}));
  EXPECT_EQ(next.delegate->messages().size(), 1u);
  // The connection that was there before is still there.
  old.roundTrip();
  EXPECT_TRUE(old.client.delegate->errors().size() == 2u);
}

// The broker cannot know yet that the listener is gone: either answer may come first, but one must come.
TEST_F(DaemonDeath, ARegistrationWhoseListenerIsGoneStrandsNobody) {
  ChildActor listener;
  ASSERT_EQ(listener.ask("listen doomed"), "listening");
  stop();
  listener.process().signal(SIGKILL);
  listener.process().wait();
  ClientEnd client("doomed");
  daemon->process().signal(SIGCONT);
  EXPECT_TRUE(neverReady(client));
  client.delegate->waitForErrors(1);
  const bool isUnavailable = client.delegate->errorCount("Listener not available") > 0;
  if (!isUnavailable) client.delegate->waitForError("Daemon connection invalidated");
  waitForLoggedErrors(log, {client.delegate.get()});
  const Heard heard = heardBy(*client.delegate, nil);
  EXPECT_EQ(heard.connection,
            rowOf(kListenerDies, isUnavailable ? "before the look-up" : "could not be reached").hears);
  EXPECT_TRUE(eventually([&] {
    ClientEnd late("doomed");
    return neverReady(late) && late.delegate->waitForErrors(1) &&
           late.delegate->errors().at(0).isError("Listener not available");
  }));
}

}  // namespace
}  // namespace velto::testing
