// A listener's registration, and what becomes of its link to the broker.

#include <csignal>

#include "platform/xpc/NSXPCError.h"
#include "tests/conformance/ListenerFixture.h"

namespace velto::testing {
namespace {

using ListenerStart = ListenerHere;
INSTANTIATE_TEST_SUITE_P(, ListenerStart, kArrangementsHere, printArrangement);

TEST_P(ListenerStart, KeepsWhatItWasGivenAndHasTheDefaults) {
  PROVES("listener.start.12", "delegate is the object that was given");
  PROVES("listener.start.14", "a listener with a name has the defaults of init: empty tables, strict types");
  const ListenerEnd server(kName);
  EXPECT_EQ(server.listener->delegate(), server.delegate);
  EXPECT_NE(server.listener->daemonConnection(), nullptr);
  EXPECT_EQ(server.listener->receivedConnections().count(), 0u);
  EXPECT_EQ(server.listener->connectionConditions().count(), 0u);
  EXPECT_EQ(server.listener->receivedProxyObjects().count(), 0u);
  EXPECT_EQ(linesOfEnds(), (Lines{{2, "DaemonConnection Created"}, {2, "Sending ListenerEndpoint"}}));
  const auto client = bareClient();
  client->handshake();
  EXPECT_TRUE(client->exported->waitFor("setStrictMessageTypesRemote:").flag);
}

TEST_P(ListenerStart, DoesNotKeepTheDelegateAlive) {
  PROVES("listener.start.13", "nothing of a listener or its link keeps the delegate alive");
  auto delegate = std::make_shared<RecordingDelegate>();
  const std::weak_ptr<RecordingDelegate> watched = delegate;
  const auto listener = VeltoListener::initWithServiceName(kName, delegate);
  settle(listener->daemonConnection());
  {
    ClientEnd client(kName);
    client.ready();
    delegate.reset();
    EXPECT_TRUE(eventually([&] { return watched.expired(); }));
    EXPECT_EQ(listener->delegate(), nullptr);
  }
  listener->close();
  waitUntilAlone(listener);
  // Of the listener and the client; nobody else hears of the listener's link.
  log.waitFor(0, "Daemon connection invalidated", 2);
}

TEST_P(ListenerStart, IsReachedUnderItsName) {
  PROVES("listener.start.15", "once registered under a name, a client that looks the name up reaches this listener");
  const ListenerEnd server(kName);
  const ListenerEnd other("org.velto.test.other");
  ClientEnd client(kName);
  const NSString id = client.ready();
  ASSERT_TRUE(server.delegate->waitForReadies(1));
  EXPECT_EQ(server.delegate->readies().front().connectionID, id);
  EXPECT_TRUE(other.delegate->readies().empty());
}

TEST_P(ListenerStart, TellsOfARegistrationThatTheBrokerRefuses) {
  PROVES("listener.broker.1",
         "a registration that fails is logged at level 0 as \"Velto Remote Proxy Error\" with the error, then told to "
         "the delegate");
  PROVES("listener.broker.2",
         "a registration that fails reaches the delegate with a nil identifier and the platform's error unchanged");
  std::vector<Lines> linesAtCallback;
  const auto delegate = std::make_shared<RecordingDelegate>();
  std::atomic<bool> done{false};
  delegate->onError([&](const NSString&, const NSError&) {
    linesAtCallback.push_back(linesOfEnds());
    done = true;
  });
  const auto listener = VeltoListener::initWithServiceName("", delegate);
  ASSERT_TRUE(eventually([&] { return done.load(); }));
  delegate->quiesce();
  const Event event = delegate->errors().front();
  EXPECT_TRUE(event.connectionID.isNil());
  expectPlatformError(event.error, NSXPCCallRefused);
  const LogCapture::Line line{0, "Velto Remote Proxy Error " + event.error.description().string()};
  ASSERT_EQ(linesAtCallback.size(), 1u);
  EXPECT_EQ(std::count(linesAtCallback[0].begin(), linesAtCallback[0].end(), line), 1);
  listener->close();
  delegate->waitForError("Daemon connection invalidated");
  waitUntilAlone(listener);
  EXPECT_EQ(delegate->errors().size(), 2u);
}

TEST_P(ListenerStart, TellsOfABrokerLinkThatIsInvalidated) {
  PROVES(
      "listener.broker.7",
      "a broker link that is invalidated is told with a nil identifier and code 2 \"Daemon connection invalidated\"");
  PROVES("listener.broker.9", "the broker link reports to the delegate given at the start, also after another was set");
  const ListenerEnd server(kName);
  const auto later = std::make_shared<RecordingDelegate>();
  server.listener->setDelegate(later);
  server.listener->daemonConnection()->invalidate();
  const Event event = server.delegate->waitForError("Daemon connection invalidated");
  EXPECT_TRUE(event.connectionID.isNil());
  expectError(event.error, 2, "Daemon connection invalidated");
  waitUntilAlone(server.listener);
  EXPECT_EQ(server.delegate->errors().size(), 1u);
  EXPECT_TRUE(later->events().empty());
}

using ListenerWithoutItsBroker = ListenerHere;
INSTANTIATE_TEST_SUITE_P(, ListenerWithoutItsBroker, ::testing::Values(Arrangement::endsHereWithDaemon),
                         printArrangement);

TEST_P(ListenerWithoutItsBroker, TellsOfTheInterruptionAndServesItsConnectionsAsBefore) {
  PROVES(
      "listener.broker.8",
      "a broker link that is interrupted is told with a nil identifier and code 2 \"Daemon connection interrupted\"");
  PROVES("listener.broker.10", "the loss of the broker leaves the connections as they are");
  const TwoEnds ends;
  ends.server.delegate->echo();
  ends.client.delegate->echo();
  daemon->process().signal(SIGKILL);
  const Event event = ends.server.delegate->waitForError("Daemon connection interrupted");
  EXPECT_TRUE(event.connectionID.isNil());
  expectError(event.error, 2, "Daemon connection interrupted");
  ends.server.delegate->waitForError("Daemon connection invalidated");
  EXPECT_EQ(ends.server.delegate->errors().size(), 2u);
  EXPECT_EQ(ends.server.entries(ends.id), kAllEntries);
  EXPECT_EQ(ends.client.connection->sendMessageSync(plainMessage(), kLong), plainMessage());
  EXPECT_EQ(ends.server.listener->sendMessageSync(plainMessage(), ends.id, kLong), plainMessage());
}

}  // namespace
}  // namespace velto::testing
