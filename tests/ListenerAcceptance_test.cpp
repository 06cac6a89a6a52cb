// How a listener is registered, how it takes in its clients, and what it keeps of them.

#include "platform/foundation/Box.h"
#include "platform/foundation/NSSynchronized.h"
#include "tests/support/BrokerLink.h"
#include "tests/support/LibraryTest.h"
#include "tests/support/RawPeer.h"

namespace velto::testing {
namespace {

constexpr const char* kAcceptanceName = "org.velto.test.acceptance";

using ListenerAcceptance = LibraryTest;

std::size_t tableSize(const NSMutableDictionary& table, const std::shared_ptr<VeltoListener>& listener) {
  NSSynchronized lock(listener->connectionConditions());
  return table.count();
}

TEST_F(ListenerAcceptance, StartAndAcceptanceAreLoggedStepByStep) {
  log.clear();
  ListenerEnd server(kAcceptanceName);
  EXPECT_TRUE(log.inOrder({{2, "DaemonConnection Created"}, {2, "Sending ListenerEndpoint"}})) << log.text();
  ClientEnd client(kAcceptanceName);
  const std::string id = client.ready().string();
  ASSERT_TRUE(log.waitFor(2, "VeltoConnection Pinged VeltoListener"));
  EXPECT_TRUE(log.inOrder({{2, "VeltoListener Setting Up New Connection: " + id},
                           {2, "Sending ConnectionUUID " + id},
                           {2, "VeltoConnection Pinged VeltoListener"}}))
      << log.text();
  EXPECT_TRUE(log.inOrder({{2, "Sending ConnectionUUID " + id}, {2, "Connection ID received " + id}})) << log.text();
}

TEST_F(ListenerAcceptance, TwoClientsGetTheirOwnIdentifiersAndEntries) {
  ListenerEnd server(kAcceptanceName);
  ClientEnd one(kAcceptanceName);
  ClientEnd other(kAcceptanceName);
  const NSString first = one.ready();
  const NSString second = other.ready();
  EXPECT_NE(first, second);
  for (const NSString& id : {first, second}) {
    EXPECT_EQ(server.entries(id), kAllEntries);
    EXPECT_EQ(server.waiting(id), 0u);
    EXPECT_TRUE(server.listener->isConnectionActive_internal(id));
    EXPECT_TRUE(unbox<NSXPCConnection>(server.listener->receivedConnections()[id]));
    EXPECT_TRUE(unbox<PeerProxy>(server.listener->receivedProxyObjects()[id]));
  }
  EXPECT_EQ(tableSize(server.listener->receivedConnections(), server.listener), 2u);
  EXPECT_EQ(tableSize(server.listener->receivedProxyObjects(), server.listener), 2u);
  EXPECT_EQ(tableSize(server.listener->connectionConditions(), server.listener), 2u);
}

TEST_F(ListenerAcceptance, WhoComesAgainGetsANewIdentifierAndTheOldOneIsGone) {
  ListenerEnd server(kAcceptanceName);
  NSString old;
  {
    ClientEnd client(kAcceptanceName);
    old = client.ready();
  }
  EXPECT_EQ(server.delegate->waitForError("Connection invalidated").connectionID, old);
  ASSERT_TRUE(log.waitFor(2, "Cleared out connections and objects for " + old.string()));
  EXPECT_EQ(server.entries(old), kNoEntries);
  EXPECT_FALSE(server.listener->isConnectionActive_internal(old));
  ClientEnd again(kAcceptanceName);
  EXPECT_NE(again.ready(), old);
  EXPECT_EQ(tableSize(server.listener->receivedConnections(), server.listener), 1u);
}

TEST_F(ListenerAcceptance, WhenAClientGoesTheDelegateHearsOfItBeforeTheEntriesAreCleared) {
  ListenerEnd server(kAcceptanceName);
  ListenerEnd::Entries meanwhile = kNoEntries;
  server.delegate->onError([&](const NSString& id, const NSError&) {
    if (id) meanwhile = server.entries(id);
  });
  std::string id;
  {
    ClientEnd client(kAcceptanceName);
    id = client.ready().string();
  }
  ASSERT_TRUE(log.waitFor(2, "Cleared out connections and objects for " + id));
  EXPECT_EQ(meanwhile, kAllEntries);
  const Event event = server.delegate->waitForError("Connection invalidated");
  expectError(event.error, 2, "Connection invalidated");
  EXPECT_TRUE(log.inOrder({{2, "VeltoConnection connection " + id + " invalidated. Closing connection"},
                           {2, "Cleared out connections and objects for " + id}}))
      << log.text();
  EXPECT_EQ(server.delegate->errors().size(), 1u);
}

TEST_F(ListenerAcceptance, InsideConnectionReadyTheConnectionIsActiveButCannotBeSentTo) {
  ListenerEnd server(kAcceptanceName);
  std::promise<ListenerEnd::Entries> seen;
  server.delegate->onReady([&](const NSString& id) {
    EXPECT_TRUE(server.listener->isConnectionActive_internal(id));
    EXPECT_EQ(server.waiting(id), 0u);
    NSError error;
    EXPECT_FALSE(server.listener->sendMessage({{"too", "early"}}, id, &error));
    expectError(error, 2, "Connection is not available");
    EXPECT_FALSE(server.listener->sendMessage({{"too", "early"}}, id));
    seen.set_value(server.entries(id));
  });
  ClientEnd client(kAcceptanceName);
  client.ready();
  std::future<ListenerEnd::Entries> entries = seen.get_future();
  EXPECT_EQ(finish(entries), (ListenerEnd::Entries{.connection = true, .proxy = false, .conditions = true}));
  EXPECT_EQ(log.count(0, "VeltoIPCListener Connection is not available"), 2u) << log.text();
  EXPECT_EQ(server.entries(client.ready()), kAllEntries);
}

TEST_F(ListenerAcceptance, TheClientIsToldOfTypesThenOfItsIdentifierAfterConnectionReadyHasReturned) {
  ListenerEnd server(kAcceptanceName);
  BareClient client(TestLink().find(kAcceptanceName));
  std::promise<std::size_t> toldMeanwhile;
  server.delegate->onReady([&](const NSString&) { toldMeanwhile.set_value(client.exported->calls().size()); });
  const NSString id = client.handshake();
  std::future<std::size_t> told = toldMeanwhile.get_future();
  EXPECT_EQ(finish(told), 0u);
  EXPECT_EQ(id, server.delegate->readies().at(0).connectionID);
  const auto calls = client.exported->calls();
  ASSERT_EQ(calls.size(), 2u);
  EXPECT_EQ(calls[0].method, "setStrictMessageTypesRemote:");
  EXPECT_TRUE(calls[0].flag);
  EXPECT_EQ(calls[1].method, "connectionUUID:");
  // Once per connection: another ping changes nothing.
  client.proxy->call<&VeltoCommunicationMessageProtocol::ping>();
  server.delegate->echo();
  std::promise<void> replied;
  client.proxy->call<&VeltoCommunicationMessageProtocol::connectionID>(
      id, NSDictionary::dictionary(), [&](const NSDictionary&) { replied.set_value(); });
  std::future<void> reply = replied.get_future();
  finish(reply);
  EXPECT_EQ(client.exported->calls().size(), 2u);
}

TEST_F(ListenerAcceptance, StrictTypesReachOnlyClientsThatComeLater) {
  const NSDictionary dated{{"when", NSDate::dateWithTimeIntervalSince1970(5)}};
  ListenerEnd server(kAcceptanceName);
  server.delegate->echo();
  ClientEnd before(kAcceptanceName);
  before.ready();
  server.listener->setStrictMessageTypes(false);
  ClientEnd after(kAcceptanceName);
  after.ready();
  NSError error;
  EXPECT_TRUE(before.connection->sendMessageSync(dated, 20.0, &error).isNil());
  expectError(error, 3, "SendMessage failed message type check");
  EXPECT_EQ(after.connection->sendMessageSync(dated, 20.0, &error), dated);
}

TEST_F(ListenerAcceptance, APlainListenerIsKnownToNobody) {
  const auto plain = VeltoListener::init();
  const auto delegate = std::make_shared<RecordingDelegate>();
  plain->setDelegate(delegate);
  log.clear();
  EXPECT_FALSE(plain->daemonConnection());
  EXPECT_EQ(plain->receivedConnections().count(), 0u);
  EXPECT_FALSE(plain->receivedConnections().isNil());
  EXPECT_FALSE(plain->receivedProxyObjects().isNil());
  EXPECT_FALSE(plain->connectionConditions().isNil());
  NSError error;
  EXPECT_FALSE(plain->sendMessage({{"to", "nobody"}}, "nobody", &error));
  expectError(error, 2, "Connection is not available");
  plain->close();
  EXPECT_EQ(log.lines(), (std::vector<LogCapture::Line>{{0, "VeltoIPCListener Connection is not available"}}));
  EXPECT_TRUE(delegate->events().empty());
}

// A connection's handlers hold the listener weakly. Its exported object, which is the listener, is taken away from the
// connection here, so that the end of the connection finds no listener.
TEST_F(ListenerAcceptance, AfterTheListenerIsReleasedAnArrivingInvalidationOnlyLogs) {
  const auto delegate = std::make_shared<RecordingDelegate>();
  auto listener = VeltoListener::initWithServiceName(kAcceptanceName, delegate);
  settle(listener->daemonConnection());
  ClientEnd client(kAcceptanceName);
  const NSString id = client.ready();
  const std::weak_ptr<VeltoListener> gone = listener;
  auto connection = unbox<NSXPCConnection>(listener->receivedConnections()[id]);
  connection->setExportedObject<VeltoCommunicationMessageProtocol>(std::make_shared<RecordingPeer>());
  listener->setReceivedProxyObjects(NSMutableDictionary::dictionary());
  listener.reset();
  ASSERT_TRUE(eventually([&] { return gone.expired(); }));
  client.connection->close();
  EXPECT_TRUE(log.waitFor(2, "VeltoConnection connection " + id.string() + " invalidated. Closing connection"));
  client.delegate->waitForErrors(2);
  EXPECT_EQ(delegate->errorCount("Connection invalidated"), 0u);
  EXPECT_TRUE(log.containing(2, "Cleared out").empty()) << log.text();
}

TEST_F(ListenerAcceptance, ALetGoListenerWithALiveClientGoesOnUntilThatClientLeaves) {
  const auto delegate = std::make_shared<RecordingDelegate>();
  delegate->echo();
  auto listener = VeltoListener::initWithServiceName(kAcceptanceName, delegate);
  settle(listener->daemonConnection());
  auto client = std::make_unique<ClientEnd>(kAcceptanceName);
  client->ready();
  const std::weak_ptr<VeltoListener> gone = listener;
  listener.reset();
  EXPECT_EQ(client->connection->sendMessageSync({{"still", "there"}}, 20.0), NSDictionary({{"still", "there"}}));
  client.reset();
  EXPECT_TRUE(eventually([&] { return gone.expired(); }));
  EXPECT_EQ(delegate->errorCount("Connection invalidated"), 1u);
}

TEST(ListenerRegistration, ANilNameIsPassedOnAsItIs) {
  RuntimeDirectory directory;
  LogCapture log;
  const auto broker = ScriptedBroker::start();
  broker->answerWith(nil);
  const auto delegate = std::make_shared<RecordingDelegate>();
  const auto listener = VeltoListener::initWithServiceName(nil, delegate);
  ASSERT_TRUE(listener);
  settle(listener->daemonConnection());
  EXPECT_EQ(broker->calls().at(0), "register (null)");
  EXPECT_TRUE(delegate->events().empty());
  listener->close();
  broker->stop();
  waitUntilAlone(broker);
}

}  // namespace
}  // namespace velto::testing
