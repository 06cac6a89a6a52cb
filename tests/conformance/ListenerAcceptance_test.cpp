// How a listener takes up a connection.

#include "platform/foundation/NSSynchronized.h"
#include "tests/conformance/ListenerFixture.h"

namespace velto::testing {
namespace {

using ListenerAcceptance = ListenerHere;
INSTANTIATE_TEST_SUITE_P(, ListenerAcceptance, kArrangementsHere, printArrangement);

TEST_P(ListenerAcceptance, LogsThenEntersTheConnectionThenTellsTheDelegate) {
  PROVES("listener.accept.2",
         "acceptance first logs \"VeltoListener Setting Up New Connection:\" with the identifier, at level 2");
  PROVES("listener.accept.10",
         "acceptance enters the conditions, an empty array, and the connection itself before connectionReady");
  PROVES("listener.accept.11",
         "\"Sending ConnectionUUID\" is logged with the identifier at level 2, after the entries and before "
         "connectionReady");
  PROVES("listener.accept.12", "connectionReady is called with the identifier, before the proxy is taken");
  const ListenerEnd server(kName);
  log.clear();
  Lines atReady;
  std::optional<ListenerEnd::Entries> entries;
  NSObject conditions;
  server.delegate->onReady([&](const NSString& id) {
    atReady = linesOfEnds();
    entries = server.entries(id);
    conditions = server.listener->connectionConditions()[id];
  });
  const auto client = bareClient();
  const std::string id = client->handshake().string();
  server.delegate->quiesce();
  EXPECT_EQ(atReady,
            (Lines{{2, "VeltoListener Setting Up New Connection: " + id}, {2, "Sending ConnectionUUID " + id}}));
  EXPECT_EQ(entries, (ListenerEnd::Entries{.connection = true, .proxy = false, .conditions = true}));
  EXPECT_TRUE(conditions.isKindOfClass(NSMutableArray::classObject()));
  EXPECT_EQ(conditions.count(), 0u);
  EXPECT_EQ(server.delegate->readies().size(), 1u);
}

TEST_P(ListenerAcceptance, HoldsNoLockInConnectionReady) {
  PROVES("listener.accept.13", "connectionReady is called with no lock held");
  const ListenerEnd server(kName);
  bool ran = false;
  server.delegate->onReady([&](const NSString& id) {
    auto other = inBackground([&, id] {
      NSSynchronized lock(server.listener->connectionConditions());
      return server.listener->isConnectionActive_internal(id);
    });
    EXPECT_TRUE(finish(other));
    ran = true;
  });
  ClientEnd client(kName);
  client.ready();
  server.delegate->quiesce();
  EXPECT_TRUE(ran);
}

TEST_P(ListenerAcceptance, SendsTheFlagAndThenTheIdentifierAndNothingElse) {
  PROVES(
      "listener.accept.15",
      "the client is sent the strict-types flag, then its identifier, once each, after connectionReady has returned");
  PROVES("listener.accept.26", "no peer call but these two reaches a client that only connects");
  const ListenerEnd server(kName);
  server.delegate->echo();
  const auto client = bareClient();
  const NSString id = client->handshake();
  // A round trip, so that nothing more is under way.
  const ReplyProbe reply;
  client->proxy->call<&VeltoCommunicationMessageProtocol::connectionID>(id, plainMessage(), reply.handler());
  reply.wait();
  const std::vector<PeerCall> calls = client->exported->calls();
  ASSERT_EQ(calls.size(), 2u);
  EXPECT_EQ(calls[0].method, "setStrictMessageTypesRemote:");
  EXPECT_TRUE(calls[0].flag);
  EXPECT_EQ(calls[1].method, "connectionUUID:");
  EXPECT_EQ(calls[1].connectionID, server.delegate->readies().front().connectionID);
}

TEST_P(ListenerAcceptance, SendsTheFlagOfTheMomentAfterConnectionReady) {
  PROVES("listener.accept.16", "the strict-types flag that is sent is the one of that moment");
  const ListenerEnd server(kName);
  server.delegate->onReady([&](const NSString&) { server.listener->setStrictMessageTypes(false); });
  const auto client = bareClient();
  client->handshake();
  EXPECT_FALSE(client->exported->waitFor("setStrictMessageTypesRemote:").flag);
}

TEST_P(ListenerAcceptance, GivesTwoClientsTwoIdentifiersAndTwoEntries) {
  PROVES("listener.accept.1", "every connection gets a new identifier");
  PROVES("listener.accept.18", "two clients have two identifiers and two entries in each table");
  const TwoEnds ends;
  ClientEnd second(kName);
  const NSString secondID = second.ready();
  EXPECT_NE(ends.id, secondID);
  EXPECT_EQ(ends.server.entries(ends.id), kAllEntries);
  EXPECT_EQ(ends.server.entries(secondID), kAllEntries);
  EXPECT_EQ(ends.server.listener->receivedConnections().count(), 2u);
  EXPECT_EQ(ends.server.listener->receivedProxyObjects().count(), 2u);
  EXPECT_EQ(ends.server.listener->connectionConditions().count(), 2u);
  EXPECT_EQ(ends.server.delegate->readies().size(), 2u);
}

TEST_P(ListenerAcceptance, GivesAClientThatConnectsAnewANewIdentifier) {
  PROVES("listener.accept.19", "a client that connects anew gets a new identifier, and the old one leaves the tables");
  const ListenerEnd server(kName);
  NSString former;
  {
    ClientEnd client(kName);
    former = client.ready();
  }
  log.waitFor(2, "Cleared out connections and objects for " + former.string());
  ClientEnd client(kName);
  const NSString id = client.ready();
  EXPECT_NE(id, former);
  EXPECT_EQ(server.entries(former), kNoEntries);
  EXPECT_EQ(server.entries(id), kAllEntries);
}

TEST_P(ListenerAcceptance, NeedsNoDelegate) {
  PROVES("listener.accept.20", "without a delegate a connection is accepted all the same");
  PROVES("listener.accept.21", "with the delegate gone a connection is accepted all the same");
  auto gone = std::make_shared<RecordingDelegate>();
  const auto without = VeltoListener::initWithServiceName("org.velto.test.without", nullptr);
  const auto withGone = VeltoListener::initWithServiceName("org.velto.test.gone", gone);
  settle(without->daemonConnection());
  settle(withGone->daemonConnection());
  gone.reset();
  {
    ClientEnd first("org.velto.test.without");
    ClientEnd second("org.velto.test.gone");
    EXPECT_TRUE(without->isConnectionActive_internal(first.ready()));
    EXPECT_TRUE(withGone->isConnectionActive_internal(second.ready()));
    EXPECT_TRUE(without->sendMessage(plainMessage(), first.connection->getID()));
    EXPECT_TRUE(withGone->sendMessage(plainMessage(), second.connection->getID()));
    first.delegate->waitForMessages(1);
    second.delegate->waitForMessages(1);
  }
  without->close();
  withGone->close();
  waitUntilAlone(without);
  waitUntilAlone(withGone);
  // Of both listeners and both clients; nobody else hears of the listeners' links.
  log.waitFor(0, "Daemon connection invalidated", 4);
}

TEST_P(ListenerAcceptance, TellsTheDelegateOfTheMoment) {
  PROVES("listener.accept.22", "every callback goes to the delegate of that moment");
  const TwoEnds ends;
  const auto later = std::make_shared<RecordingDelegate>();
  ends.server.listener->setDelegate(later);
  later->echo();
  const auto client = bareClient();
  client->handshake();
  EXPECT_EQ(ends.client.connection->sendMessageSync(plainMessage(), kLong), plainMessage());
  ends.client.connection->close();
  const Event event = later->waitForError("Connection invalidated");
  EXPECT_EQ(event.connectionID, ends.id);
  EXPECT_EQ(later->readies().size(), 1u);
  EXPECT_EQ(later->messages().size(), 1u);
  EXPECT_EQ(ends.server.delegate->events().size(), 1u) << "no more than the first connectionReady";
}

TEST_P(ListenerAcceptance, EntersTheConditionsUnderTheirMonitor) {
  PROVES("listener.accept.23", "the conditions' entry is put in under the monitor of the conditions' table");
  const ListenerEnd server(kName);
  const auto client = bareClient();
  std::future<NSString> ready;
  {
    NSSynchronized lock(server.listener->connectionConditions());
    client->proxy->call<&VeltoCommunicationMessageProtocol::ping>();
    log.waitForContaining(2, "VeltoListener Setting Up New Connection: ");
    ready = inBackground([&] { return client->exported->waitFor("connectionUUID:").connectionID; });
    EXPECT_TRUE(isHeldUp(ready));
    EXPECT_EQ(server.listener->connectionConditions().count(), 0u);
    EXPECT_TRUE(server.delegate->readies().empty());
  }
  EXPECT_EQ(server.entries(finish(ready)), kAllEntries);
}

TEST_P(ListenerAcceptance, UsesTheTablesThatItsAccessorsName) {
  PROVES("listener.accept.25", "the tables are reached through their accessors: one that was replaced counts at once");
  const ListenerEnd server(kName);
  const NSMutableDictionary conditions = NSMutableDictionary::dictionary();
  const NSMutableDictionary connections = NSMutableDictionary::dictionary();
  const NSMutableDictionary proxies = NSMutableDictionary::dictionary();
  server.listener->setConnectionConditions(conditions);
  server.listener->setReceivedConnections(connections);
  server.listener->setReceivedProxyObjects(proxies);
  ClientEnd client(kName);
  const NSString id = client.ready();
  NSSynchronized lock(conditions);
  EXPECT_FALSE(conditions[id].isNil());
  EXPECT_FALSE(connections[id].isNil());
  EXPECT_FALSE(proxies[id].isNil());
  EXPECT_TRUE(server.listener->receivedProxyObjects().isIdenticalTo(proxies));
  EXPECT_TRUE(server.listener->connectionConditions().isIdenticalTo(conditions));
  EXPECT_TRUE(server.listener->receivedConnections().isIdenticalTo(connections));
}

using ListenerReadiness = ListenerHere;
INSTANTIATE_TEST_SUITE_P(, ListenerReadiness, kArrangementsHere, printArrangement);

TEST_P(ListenerReadiness, CannotBeSentToInsideConnectionReady) {
  PROVES("listener.ready.1", "a send from inside connectionReady fails with code 2 and its log line");
  PROVES("listener.ready.3", "inside connectionReady the connection is active");
  const ListenerEnd server(kName);
  NSError error;
  bool sent = true;
  bool active = false;
  server.delegate->onReady([&](const NSString& id) {
    log.clear();
    sent = server.listener->sendMessage(plainMessage(), id, &error);
    active = server.listener->isConnectionActive_internal(id);
    EXPECT_EQ(linesOfEnds(), (Lines{{0, "VeltoIPCListener Connection is not available"}}));
  });
  ClientEnd client(kName);
  client.ready();
  server.delegate->quiesce();
  EXPECT_FALSE(sent);
  expectError(error, 2, "Connection is not available");
  EXPECT_TRUE(active);
  EXPECT_TRUE(client.delegate->messages().empty());
}

TEST_P(ListenerReadiness, KeepsTheConditionsOfSynchronousSendsInsideConnectionReadyUntilClose) {
  PROVES("listener.ready.2",
         "a synchronous send from inside connectionReady fails with code 2, and each leaves a wait condition behind "
         "until the connection is closed");
  const ListenerEnd server(kName);
  std::vector<std::size_t> waiting;
  server.delegate->onReady([&](const NSString& id) {
    for (int count = 0; count < 2; ++count) {
      NSError error;
      EXPECT_TRUE(server.listener->sendMessageSync(plainMessage(), id, VKT_IPC_TIME_FOREVER, &error).isNil());
      expectError(error, 2, "Connection is not available");
      waiting.push_back(server.waiting(id));
    }
  });
  ClientEnd client(kName);
  client.delegate->echo();
  const NSString id = client.ready();
  server.delegate->quiesce();
  EXPECT_EQ(waiting, (std::vector<std::size_t>{1, 2}));
  EXPECT_EQ(server.listener->sendMessageSync(plainMessage(), id, kLong), plainMessage());
  EXPECT_EQ(server.waiting(id), 2u);
  server.listener->close(id);
  EXPECT_EQ(server.entries(id), kNoEntries);
}

TEST_P(ListenerReadiness, ComesToTheListenerBeforeTheClientKnowsItsIdentifier) {
  PROVES("listener.ready.4", "inside the listener's connectionReady the client does not know its identifier yet");
  PROVES("listener.ready.5", "once connectionReady has returned and the client is ready the connection can be sent to");
  const ListenerEnd server(kName);
  Gate looked;
  Gate begun;
  server.delegate->onReady([&](const NSString&) {
    begun.open();
    looked.wait();
  });
  ClientEnd client(kName);
  begun.wait();
  NSError error;
  EXPECT_TRUE(client.connection->getID().isNil());
  EXPECT_FALSE(client.connection->waitUntilReady(0.0, &error));
  expectError(error, 6, "Timed out waiting");
  EXPECT_TRUE(client.delegate->readies().empty());
  looked.open();
  const NSString id = client.ready();
  client.delegate->echo();
  EXPECT_EQ(server.listener->sendMessageSync(plainMessage(), id, kLong), plainMessage());
}

TEST_P(ListenerReadiness, ThatClosesItsOwnConnectionLeavesNothingInTheTables) {
  PROVES("listener.ready.6", "a connection that is closed inside its own connectionReady leaves nothing in the tables");
  const ListenerEnd server(kName);
  server.delegate->onReady([&](const NSString& id) { server.listener->close(id); });
  const ClientEnd client(kName);
  const Event event = server.delegate->waitForError("Connection invalidated");
  log.waitFor(2, "Cleared out connections and objects for " + event.connectionID.string(), 2);
  EXPECT_EQ(server.entries(event.connectionID), kNoEntries);
  client.delegate->waitForError("Listener connection invalidated");
}

TEST_P(ListenerReadiness, OfTheClientComesAfterTheListenersWithTheFlagInPlace) {
  PROVES("listener.life.1",
         "the listener's connectionReady has returned before the client's begins, and by then the client has its "
         "strict-types flag");
  const ListenerEnd server(kName, ListenerEnd::Types::any);
  server.delegate->echo();
  std::atomic<bool> returned{false};
  server.delegate->onReady([&](const NSString&) { returned = true; });
  const auto delegate = std::make_shared<RecordingDelegate>();
  std::weak_ptr<VeltoConnection> made;
  Gate known;
  Gate seen;
  NSDictionary reply;
  delegate->onReady([&](const NSString&) {
    EXPECT_TRUE(returned);
    known.wait();
    // A strict client would refuse it.
    reply = made.lock()->sendMessageSync(messageWithDate(), kLong);
    seen.open();
  });
  const auto client = VeltoConnection::initWithServiceName(kName, delegate);
  made = client;
  known.open();
  seen.wait();
  EXPECT_EQ(reply, messageWithDate());
  client->close();
  delegate->waitForError("Daemon connection invalidated");
  waitUntilAlone(client);
}

}  // namespace
}  // namespace velto::testing
