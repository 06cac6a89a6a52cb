// How a client comes to its listener, waits for it, and ends.

#include <future>

#include "platform/xpc/NSXPCError.h"
#include "tests/support/BrokerLink.h"
#include "tests/support/LibraryTest.h"
#include "tests/support/RawPeer.h"

namespace velto::testing {
namespace {

constexpr const char* kLifecycleName = "org.velto.test.lifecycle";

// An error that no call has written, to see whether one does.
NSError untouched() {
  return NSError::errorWithDomain("untouched", 0, NSDictionary::dictionary());
}

class ClientLifecycle : public LibraryTest {
 protected:
  // A listener that never answers a ping, registered under the name.
  std::shared_ptr<BareListener> mute() {
    auto made = BareListener::start();
    TestLink().registerEndpoint(made->endpoint(), kLifecycleName);
    return made;
  }
};

TEST_F(ClientLifecycle, EstablishmentIsLoggedStepByStep) {
  ListenerEnd server(kLifecycleName);
  log.clear();
  ClientEnd client(kLifecycleName);
  const std::string id = client.ready().string();
  log.waitFor(2, "Connection Configured and Pinged");
  EXPECT_TRUE(log.inOrder({{2, "DaemonConnection Created"},
                           {2, "Getting ListenerEndpoint"},
                           {2, "Connection Configuration Started"},
                           {2, "Connection Configured and Pinged"}}))
      << log.text();
  EXPECT_TRUE(log.inOrder({{2, "Connection Configuration Started"}, {2, "Connection ID received " + id}}))
      << log.text();
  EXPECT_TRUE(log.containing(0, "").empty()) << log.text();
  EXPECT_TRUE(client.connection->daemonConnection());
  EXPECT_TRUE(client.connection->listenerConnection());
  EXPECT_TRUE(client.connection->listenerProxyObject());
  EXPECT_EQ(client.connection->listenerEndpoint(), TestLink().find(kLifecycleName));
}

TEST_F(ClientLifecycle, WithoutListenerTheWaitEndsAtOnceWithThatError) {
  ClientEnd client(kLifecycleName);
  auto waiting = inBackground([&] {
    NSError error;
    const bool ready = client.connection->waitUntilReady(3600.0, &error);
    return std::pair(ready, error);
  });
  const auto [ready, error] = finish(waiting);
  EXPECT_FALSE(ready);
  expectError(error, 2, "Listener not available");
  const Event event = client.delegate->waitForError("Listener not available");
  EXPECT_TRUE(event.connectionID.isNil());
  EXPECT_EQ(event.error, error);
  EXPECT_EQ(log.count(0, std::string("Endpoint for ") + kLifecycleName + " is Nill"), 1u) << log.text();
  // The link stays open, and nothing asks again.
  EXPECT_TRUE(client.connection->daemonConnection());
  ListenerEnd late(kLifecycleName);
  EXPECT_FALSE(client.connection->waitUntilReady(0.2));
  EXPECT_TRUE(late.delegate->events().empty());
  EXPECT_EQ(client.delegate->events().size(), 1u);
}

TEST_F(ClientLifecycle, WithAListenerThatNeverAnswersTheWaitTimesOut) {
  const auto listener = mute();
  ClientEnd client(kLifecycleName);
  const auto start = std::chrono::steady_clock::now();
  NSError error;
  EXPECT_FALSE(client.connection->waitUntilReady(0.25, &error));
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(250));
  expectError(error, 6, "Timed out waiting");
  listener->exported->waitFor("ping");
  EXPECT_EQ(listener->exported->calls().size(), 1u);
  EXPECT_TRUE(client.delegate->events().empty());
  EXPECT_TRUE(client.connection->getID().isNil());
}

TEST_F(ClientLifecycle, AWaitOfZeroOrLessLooksOnceAndReturns) {
  const auto listener = mute();
  ClientEnd client(kLifecycleName);
  for (const double timeout : {0.0, -0.5, -1.0, -1e300}) {
    NSError error;
    auto waiting = inBackground([&] { return client.connection->waitUntilReady(timeout, &error); });
    EXPECT_FALSE(finish(waiting)) << timeout;
    expectError(error, 6, "Timed out waiting");
    EXPECT_FALSE(client.connection->waitUntilReady(timeout)) << "without an out-pointer";
  }
  listener->waitForClient()->call<&VeltoCommunicationMessageProtocol::connectionUUID>(NSString("an identifier"));
  client.delegate->waitForReadies(1);
  for (const double timeout : {0.0, -0.5, -1.0}) EXPECT_TRUE(client.connection->waitUntilReady(timeout)) << timeout;
}

TEST_F(ClientLifecycle, AWaitAfterReadinessReturnsAtOnceAndWritesNil) {
  Pair pair;
  NSError error = untouched();
  EXPECT_TRUE(pair.client.connection->waitUntilReady(3600.0, &error));
  EXPECT_TRUE(error.isNil());
}

TEST_F(ClientLifecycle, AWaitAfterReadinessWritesTheErrorThatWasRecordedEarlier) {
  Pair pair;
  const NSError recorded = NSError::errorWithDomain("some.domain", 4, NSDictionary::dictionary());
  pair.client.connection->connectionError(recorded);
  NSError error;
  EXPECT_TRUE(pair.client.connection->waitUntilReady(0.0, &error));
  EXPECT_EQ(error, recorded);
  EXPECT_EQ(pair.client.delegate->errors().at(0).connectionID, pair.id);
}

TEST_F(ClientLifecycle, AnErrorWakesTheWaitThatIsUnderWay) {
  const auto listener = mute();
  ClientEnd client(kLifecycleName);
  listener->waitForClient();
  NSError error;
  auto waiting = inBackground([&] { return client.connection->waitUntilReady(3600.0, &error); });
  const NSError recorded = NSError::errorWithDomain("some.domain", 4, NSDictionary::dictionary());
  client.connection->connectionError(recorded);
  EXPECT_FALSE(finish(waiting));
  EXPECT_EQ(error, recorded);
}

TEST_F(ClientLifecycle, ReadyThenClosedIsStillReadyAndTellsOfTheEnd) {
  Pair pair;
  pair.client.connection->close();
  pair.client.delegate->waitForError("Listener connection invalidated");
  NSError error;
  EXPECT_TRUE(pair.client.connection->waitUntilReady(0.0, &error));
  expectError(error, 2, "Listener connection invalidated");
  EXPECT_EQ(pair.client.connection->getID(), pair.id);
}

TEST_F(ClientLifecycle, CloseIsToldTwiceOnceWithTheIdentifierAndOnceWithout) {
  Pair pair;
  auto& connection = *pair.client.connection;
  connection.close();
  EXPECT_FALSE(connection.daemonConnection());
  EXPECT_FALSE(connection.listenerConnection());
  EXPECT_FALSE(connection.listenerProxyObject());
  EXPECT_TRUE(connection.listenerEndpoint().isNil());
  EXPECT_EQ(pair.client.delegate->waitForError("Listener connection invalidated").connectionID, pair.id);
  EXPECT_TRUE(pair.client.delegate->waitForError("Daemon connection invalidated").connectionID.isNil());
  EXPECT_EQ(log.count(2, "Listener connection invalided. Shutting down connections"), 1u) << log.text();
  EXPECT_EQ(pair.client.delegate->errors().size(), 2u);
}

TEST_F(ClientLifecycle, TheListenersEndOfAConnectionClosesTheClient) {
  Pair pair;
  std::promise<bool> closedWhenTold;
  pair.client.delegate->onError([&, client = pair.client.connection](const NSString&, const NSError& error) {
    if (error.localizedDescription() != NSString("Listener connection invalidated")) return;
    closedWhenTold.set_value(!client->listenerProxyObject() && !client->daemonConnection());
  });
  pair.server.listener->close(pair.id);
  const Event event = pair.client.delegate->waitForError("Listener connection invalidated");
  EXPECT_EQ(event.connectionID, pair.id);
  expectError(event.error, 2, "Listener connection invalidated");
  EXPECT_EQ(log.count(2, "Listener connection invalided. Shutting down connections"), 1u);
  EXPECT_TRUE(closedWhenTold.get_future().get()) << "the client closes itself before it tells";
  pair.client.delegate->waitForError("Daemon connection invalidated");
  pair.client.delegate->quiesce();
}

TEST_F(ClientLifecycle, ASecondCloseDoesNothing) {
  Pair pair;
  pair.client.connection->close();
  pair.client.delegate->waitForErrors(2);
  ASSERT_TRUE(waitUntilAlone(pair.client.connection));
  log.clear();
  pair.client.connection->close();
  EXPECT_TRUE(log.containing(2, "Listener connection").empty()) << log.text();
  EXPECT_TRUE(log.containing(0, "").empty()) << log.text();
  EXPECT_EQ(pair.client.delegate->errors().size(), 2u);
}

TEST_F(ClientLifecycle, ClosingAPlainObjectDoesNothing) {
  log.clear();
  const auto plain = VeltoConnection::init();
  const auto delegate = std::make_shared<RecordingDelegate>();
  plain->setDelegate(delegate);
  plain->close();
  plain->close();
  NSError error;
  EXPECT_FALSE(plain->waitUntilReady(0.0, &error));
  expectError(error, 6, "Timed out waiting");
  EXPECT_FALSE(plain->sendMessage({{"to", "nobody"}}, &error));
  expectError(error, 2, "Connection is not available");
  EXPECT_TRUE(plain->getID().isNil());
  EXPECT_EQ(log.lines().size(), 1u) << log.text();
  EXPECT_TRUE(delegate->events().empty());
}

TEST_F(ClientLifecycle, ANilErrorBecomesCodeSeven) {
  const auto listener = mute();
  ClientEnd client(kLifecycleName);
  listener->waitForClient()->call<&VeltoCommunicationMessageProtocol::connectionError>(NSError(nil));
  const Event event = client.delegate->waitForError("Unknown error sent from listener");
  EXPECT_TRUE(event.connectionID.isNil());
  expectError(event.error, 7, "Unknown error sent from listener");
  NSError error;
  EXPECT_FALSE(client.connection->waitUntilReady(3600.0, &error));
  EXPECT_EQ(error, event.error);
}

TEST_F(ClientLifecycle, ANilIdentifierIsStoredLikeAnyOtherAndASecondOneReplacesIt) {
  const auto listener = mute();
  ClientEnd client(kLifecycleName);
  const auto proxy = listener->waitForClient();
  proxy->call<&VeltoCommunicationMessageProtocol::connectionUUID>(NSString(nil));
  client.delegate->waitForReadies(1);
  EXPECT_TRUE(client.connection->waitUntilReady(0.0));
  EXPECT_TRUE(client.connection->getID().isNil());
  NSError error;
  EXPECT_FALSE(client.connection->sendMessage({{"no", "identifier"}}, &error));
  expectError(error, 2, "Connection is not available");
  proxy->call<&VeltoCommunicationMessageProtocol::connectionUUID>(NSString("second"));
  client.delegate->waitForReadies(2);
  EXPECT_EQ(client.connection->getID(), NSString("second"));
  EXPECT_EQ(client.delegate->readies().at(1).connectionID, NSString("second"));
}

TEST_F(ClientLifecycle, ADelegateSetLaterHearsOfTheClientsOwnEvents) {
  const auto listener = mute();
  ClientEnd client(kLifecycleName);
  const auto proxy = listener->waitForClient();
  const auto second = std::make_shared<RecordingDelegate>();
  client.connection->setDelegate(second);
  EXPECT_EQ(client.connection->delegate(), second);
  proxy->call<&VeltoCommunicationMessageProtocol::connectionUUID>(NSString("id"));
  second->waitForReadies(1);
  client.connection->close();
  second->waitForError("Listener connection invalidated");
  client.delegate->waitForError("Daemon connection invalidated");
  EXPECT_EQ(second->events().size(), 2u);
  EXPECT_EQ(client.delegate->events().size(), 1u);
}

TEST_F(ClientLifecycle, TheDelegateIsNotKeptAlive) {
  ListenerEnd server(kLifecycleName);
  auto delegate = std::make_shared<RecordingDelegate>();
  const std::weak_ptr<RecordingDelegate> gone = delegate;
  const auto connection = VeltoConnection::initWithServiceName(kLifecycleName, delegate);
  ASSERT_TRUE(connection->waitUntilReady(20.0));
  delegate->waitForReadies(1);
  delegate.reset();
  EXPECT_TRUE(eventually([&] { return gone.expired(); }));
  EXPECT_FALSE(connection->delegate());
  connection->close();
  EXPECT_TRUE(waitUntilAlone(connection));
}

TEST_F(ClientLifecycle, AnEstablishedConnectionKeepsItselfAliveUntilItIsClosed) {
  ListenerEnd server(kLifecycleName);
  server.delegate->echo();
  const auto delegate = std::make_shared<RecordingDelegate>();
  auto connection = VeltoConnection::initWithServiceName(kLifecycleName, delegate);
  ASSERT_TRUE(connection->waitUntilReady(20.0));
  const std::weak_ptr<VeltoConnection> alive = connection;
  connection.reset();
  const NSString id = server.delegate->readies().at(0).connectionID;
  delegate->echo();
  EXPECT_EQ(server.listener->sendMessageSync({{"still", "there"}}, id, 20.0), NSDictionary({{"still", "there"}}));
  server.listener->close(id);
  EXPECT_TRUE(eventually([&] { return alive.expired(); }));
  EXPECT_EQ(delegate->errorCount("Listener connection invalidated"), 1u);
}

TEST_F(ClientLifecycle, OneThatIsNotEstablishedEndsWhenItIsLetGoOfAndItsLinkIsTold) {
  const auto delegate = std::make_shared<RecordingDelegate>();
  auto connection = VeltoConnection::initWithServiceName(kLifecycleName, delegate);
  delegate->waitForError("Listener not available");
  const std::weak_ptr<VeltoConnection> alive = connection;
  connection.reset();
  const Event event = delegate->waitForError("Daemon connection invalidated");
  EXPECT_TRUE(event.connectionID.isNil());
  expectError(event.error, 2, "Daemon connection invalidated");
  EXPECT_TRUE(eventually([&] { return alive.expired(); }));
  EXPECT_EQ(delegate->errors().size(), 2u);
}

// What a delegate heard of one connection: that so many calls were not answered, then its end.
void expectUnanswered(const RecordingDelegate& delegate, const NSString& id, std::size_t calls, const char* end) {
  delegate.waitForError(end);
  RecordingDelegate::Events heard = delegate.errors();
  std::erase_if(heard, [&](const Event& event) { return event.connectionID != id; });
  ASSERT_EQ(heard.size(), calls + 1);
  for (std::size_t call = 0; call < calls; ++call) expectPlatformError(heard[call].error, NSXPCConnectionInvalid);
  expectError(heard[calls].error, 2, end);
}

TEST_F(ClientLifecycle, CallsThatAreNotAnsweredAreToldBeforeTheEndWhoeverCloses) {
  for (const bool atClient : {true, false}) {
    Pair pair;
    // With a handler and without; the other end's delegate keeps what it could answer with.
    ASSERT_TRUE(pair.client.connection->sendMessage({{"first", true}}, nullptr, [](const NSDictionary&) {}));
    ASSERT_TRUE(pair.client.connection->sendMessage({{"first", false}}));
    ASSERT_TRUE(pair.server.listener->sendMessage({{"only", true}}, pair.id));
    pair.server.delegate->waitForMessages(2);
    pair.client.delegate->waitForMessages(1);
    if (atClient) {
      pair.client.connection->close();
    } else {
      pair.server.listener->close(pair.id);
    }
    expectUnanswered(*pair.client.delegate, pair.id, 2, "Listener connection invalidated");
    expectUnanswered(*pair.server.delegate, pair.id, 1, "Connection invalidated");
    pair.client.delegate->waitForError("Daemon connection invalidated");
  }
}

}  // namespace
}  // namespace velto::testing
