// How a listener drops one connection, or all of them.

#include <algorithm>

#include "platform/foundation/Box.h"
#include "tests/support/BrokerLink.h"
#include "tests/support/LibraryTest.h"
#include "tests/support/RawPeer.h"

namespace velto::testing {
namespace {

constexpr const char* kTeardownName = "org.velto.test.teardown";

using ListenerTeardown = LibraryTest;

std::string clearedOut(const NSString& id) {
  return "Cleared out connections and objects for " + id.description().string();
}

TEST_F(ListenerTeardown, ClosingAnIdentifierThatWasNeverIssuedWritesOneLineAndChangesNothing) {
  Pair pair;
  pair.server.delegate->echo();
  clearLogOfHandshake();
  for (const NSString& unknown : {NSString("nobody"), NSString(nil)}) {
    log.clear();
    pair.server.listener->close(unknown);
    EXPECT_EQ(log.lines(), (std::vector<LogCapture::Line>{{2, clearedOut(unknown)}}));
  }
  EXPECT_EQ(pair.server.entries(pair.id), kAllEntries);
  pair.roundTrip();
  EXPECT_TRUE(pair.server.delegate->errors().empty());
}

TEST_F(ListenerTeardown, ClosingALiveConnectionWakesBothItsWaitersAndIsReported) {
  Pair pair;
  auto wait = [listener = pair.server.listener, id = pair.id] {
    NSError error;
    EXPECT_TRUE(listener->sendMessageSync({{"to", "wait for"}}, id, VKT_IPC_TIME_FOREVER, &error).isNil());
    return error;
  };
  auto first = inBackground(wait);
  auto second = inBackground(wait);
  pair.client.delegate->waitForMessages(2);
  ASSERT_EQ(pair.server.waiting(pair.id), 2u);
  pair.server.listener->close(pair.id);
  EXPECT_EQ(pair.server.entries(pair.id), kNoEntries);
  expectError(finish(first), 6, "Timed out waiting");
  expectError(finish(second), 6, "Timed out waiting");
  const Event event = pair.server.delegate->waitForError("Connection invalidated");
  EXPECT_EQ(event.connectionID, pair.id);
  expectError(event.error, 2, "Connection invalidated");
  EXPECT_FALSE(pair.server.listener->sendMessage({{"too", "late"}}, pair.id));
}

TEST_F(ListenerTeardown, ClosingALiveConnectionIsLoggedTwiceAroundItsInvalidation) {
  Pair pair;
  pair.server.listener->close(pair.id);
  ASSERT_TRUE(log.waitFor(2, clearedOut(pair.id), 2));
  ASSERT_TRUE(waitUntilAlone(pair.server.listener));
  EXPECT_EQ(log.count(2, clearedOut(pair.id)), 2u) << log.text();
  EXPECT_TRUE(log.inOrder({{2, "VeltoConnection connection " + pair.id.string() + " invalidated. Closing connection"},
                           {2, clearedOut(pair.id)}}))
      << log.text();
  EXPECT_EQ(pair.server.delegate->errors().size(), 1u);
}

TEST_F(ListenerTeardown, ACloseAtAnyMomentOfASynchronousSendEndsIt) {
  ListenerEnd server(kTeardownName);
  for (int round = 0; round < 30; ++round) {
    ClientEnd client(kTeardownName);
    const NSString id = client.ready();
    auto call = inBackground([&] {
      NSError error;
      EXPECT_TRUE(server.listener->sendMessageSync({{"round", round}}, id, VKT_IPC_TIME_FOREVER, &error).isNil());
      return error;
    });
    // Rounds differ in how far the send has come: not begun, registered, on its way.
    if (round % 3 == 1) eventually([&] { return server.waiting(id) == 1; });
    if (round % 3 == 2) client.delegate->waitForMessages(1);
    server.listener->close(id);
    const NSError error = finish(call);
    // Before the send had begun, the connection was not there any more.
    EXPECT_TRUE(error.code() == 6 || error.code() == 2) << error.description().view();
  }
}

TEST_F(ListenerTeardown, ClosesFromBothEndsAtOnceAreReportedOnce) {
  ListenerEnd server(kTeardownName);
  for (std::size_t round = 1; round <= 20; ++round) {
    ClientEnd client(kTeardownName);
    const NSString id = client.ready();
    auto here = inBackground([&] { server.listener->close(id); });
    client.connection->close();
    finish(here);
    server.delegate->waitForError("Connection invalidated", round);
    EXPECT_EQ(server.entries(id), kNoEntries);
  }
  server.listener->close();
  ASSERT_TRUE(waitUntilAlone(server.listener));
  EXPECT_EQ(server.delegate->errorCount("Connection invalidated"), 20u);
  EXPECT_EQ(server.delegate->errorCount("Connection interrupted"), 0u);
}

TEST_F(ListenerTeardown, CloseWithThreeConnectionsEndsAllOfThemAndTheLink) {
  ListenerEnd server(kTeardownName);
  ClientEnd clients[3]{ClientEnd(kTeardownName), ClientEnd(kTeardownName), ClientEnd(kTeardownName)};
  std::vector<NSString> ids;
  for (ClientEnd& client : clients) ids.push_back(client.ready());
  server.listener->close();
  for (const NSString& id : ids) EXPECT_EQ(server.entries(id), kNoEntries);
  EXPECT_EQ(server.listener->receivedProxyObjects().count(), 0u);
  EXPECT_FALSE(server.listener->daemonConnection());

  server.delegate->waitForError("Connection invalidated", 3);
  const Event link = server.delegate->waitForError("Daemon connection invalidated");
  EXPECT_TRUE(link.connectionID.isNil());
  expectError(link.error, 2, "Daemon connection invalidated");
  ASSERT_TRUE(log.waitForContaining(2, "Cleared out connections and objects for ", 6));
  ASSERT_TRUE(waitUntilAlone(server.listener));
  EXPECT_EQ(log.containing(2, "Cleared out connections and objects for ").size(), 6u) << log.text();
  EXPECT_EQ(server.delegate->errors().size(), 4u);
  for (const NSString& id : ids) {
    EXPECT_EQ(log.count(2, clearedOut(id)), 2u) << log.text();
    const auto errors = server.delegate->errors();
    EXPECT_EQ(std::count_if(errors.begin(), errors.end(), [&](const Event& event) { return event.connectionID == id; }),
              1);
  }
  for (ClientEnd& client : clients) client.delegate->waitForError("Listener connection invalidated");
}

TEST_F(ListenerTeardown, ASecondCloseDoesNothingVisible) {
  Pair pair;
  pair.server.listener->close();
  pair.server.delegate->waitForErrors(2);
  pair.client.delegate->waitForErrors(2);
  ASSERT_TRUE(waitUntilAlone(pair.server.listener));
  log.clear();
  pair.server.listener->close();
  EXPECT_TRUE(log.containing(2, "Cleared out").empty()) << log.text();
  EXPECT_TRUE(log.containing(0, "").empty()) << log.text();
  EXPECT_EQ(pair.server.delegate->errors().size(), 2u);
}

TEST_F(ListenerTeardown, CloseDropsProxiesWithoutConnectionAndKeepsConditionsWithoutConnection) {
  Pair pair;
  NSMutableDictionary proxies =
      NSMutableDictionary::dictionaryWithDictionary(pair.server.listener->receivedProxyObjects());
  proxies.setObject(proxies[pair.id], "stray");
  pair.server.listener->setReceivedProxyObjects(proxies);
  NSMutableDictionary conditions =
      NSMutableDictionary::dictionaryWithDictionary(pair.server.listener->connectionConditions());
  conditions.setObject(NSMutableArray::array(), "stray");
  pair.server.listener->setConnectionConditions(conditions);
  pair.server.listener->close();
  EXPECT_EQ(pair.server.entries("stray"),
            (ListenerEnd::Entries{.connection = false, .proxy = false, .conditions = true}));
}

TEST_F(ListenerTeardown, AfterCloseAClientWithTheEndpointIsStillAccepted) {
  Pair pair;
  const NSXPCListenerEndpoint endpoint = pair.client.connection->listenerEndpoint();
  pair.server.listener->close();
  pair.server.delegate->waitForErrors(2);
  BareClient late(endpoint);
  const NSString id = late.handshake();
  EXPECT_NE(id, pair.id);
  EXPECT_EQ(pair.server.entries(id), kAllEntries);
  // The registration was not withdrawn either.
  ClientEnd later("org.velto.test.pair");
  EXPECT_NE(later.ready(), id);
  pair.server.delegate->echo();
  EXPECT_EQ(later.connection->sendMessageSync({{"after", "close"}}, 20.0), NSDictionary({{"after", "close"}}));
}

TEST_F(ListenerTeardown, AnErrorFromAClientKeepsItsConnectionOpen) {
  Pair pair;
  pair.server.delegate->echo();
  clearLogOfHandshake();
  const NSError reported = NSError::errorWithDomain("some.domain", 3, {{"why", "none"}});
  pair.client.connection->listenerProxyObject()->call<&VeltoCommunicationMessageProtocol::connectionError>(reported);
  pair.server.delegate->waitForErrors(1);
  EXPECT_TRUE(log.lines().empty()) << log.text();
  EXPECT_TRUE(pair.server.delegate->errors().at(0).connectionID.isNil());
  EXPECT_EQ(pair.server.delegate->errors().at(0).error, reported);
  EXPECT_EQ(pair.server.entries(pair.id), kAllEntries);
  pair.roundTrip();
}

TEST_F(ListenerTeardown, AConnectionMayBeClosedInsideItsOwnCallbacks) {
  ListenerEnd server(kTeardownName);
  // Inside its readiness, and inside a message of it.
  server.delegate->onReady([&](const NSString& id) {
    if (server.delegate->readies().size() == 1) server.listener->close(id);
  });
  server.delegate->onMessage(
      [&](const NSDictionary&, const NSString& id, const VeltoReplyHandler&) { server.listener->close(id); });
  ClientEnd first(kTeardownName);
  first.delegate->waitForError("Listener connection invalidated");
  ClientEnd second(kTeardownName);
  second.ready();
  NSError error;
  EXPECT_TRUE(second.connection->sendMessageSync({{"end", "me"}}, VKT_IPC_TIME_FOREVER, &error).isNil());
  expectError(error, 6, "Timed out waiting");
  server.delegate->waitForError("Connection invalidated", 2);
}

TEST_F(ListenerTeardown, OneThatIsLetGoOfWithoutCloseEndsAndItsLinkIsTold) {
  const auto delegate = std::make_shared<RecordingDelegate>();
  auto listener = VeltoListener::initWithServiceName(kTeardownName, delegate);
  settle(listener->daemonConnection());
  const std::weak_ptr<VeltoListener> alive = listener;
  listener.reset();
  EXPECT_TRUE(eventually([&] { return alive.expired(); }));
  const Event event = delegate->waitForError("Daemon connection invalidated");
  EXPECT_TRUE(event.connectionID.isNil());
  expectError(event.error, 2, "Daemon connection invalidated");
  EXPECT_EQ(delegate->errors().size(), 1u);
  EXPECT_TRUE(eventually([] { return TestLink().find(kTeardownName).isNil(); })) << "its name is gone with it";
}

TEST_F(ListenerTeardown, OneWithConnectionsLivesUntilTheLastOfThemEnds) {
  const auto delegate = std::make_shared<RecordingDelegate>();
  delegate->echo();
  auto listener = VeltoListener::initWithServiceName(kTeardownName, delegate);
  settle(listener->daemonConnection());
  ClientEnd client(kTeardownName);
  const NSString id = client.ready();
  const std::weak_ptr<VeltoListener> alive = listener;
  listener.reset();
  EXPECT_EQ(client.connection->sendMessageSync({{"still", "there"}}, 20.0), NSDictionary({{"still", "there"}}));
  EXPECT_TRUE(delegate->errors().empty());
  client.connection->close();
  delegate->waitForError("Daemon connection invalidated");
  EXPECT_TRUE(eventually([&] { return alive.expired(); }));
  ASSERT_EQ(delegate->errors().size(), 2u);
  EXPECT_EQ(delegate->errors()[0].connectionID, id);
  expectError(delegate->errors()[0].error, 2, "Connection invalidated");
}

}  // namespace
}  // namespace velto::testing
