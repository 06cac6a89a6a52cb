// Sends from inside callbacks, and callbacks that sleep while their connection ends.

#include <atomic>
#include <thread>

#include "tests/support/BrokerLink.h"
#include "tests/support/LibraryTest.h"

namespace velto::testing {
namespace {

using Callbacks = LibraryTest;

TEST_F(Callbacks, AClientMaySendAndWaitInsideItsReadiness) {
  ListenerEnd server("org.velto.test.inside");
  server.delegate->echo();
  const auto delegate = std::make_shared<RecordingDelegate>();
  std::promise<NSDictionary> replied;
  std::shared_ptr<VeltoConnection> client;
  std::promise<void> made;
  delegate->onReady([&, isMade = made.get_future().share()](const NSString&) {
    isMade.wait();
    replied.set_value(client->sendMessageSync(kHello, 20.0));
  });
  client = VeltoConnection::initWithServiceName("org.velto.test.inside", delegate);
  made.set_value();
  std::future<NSDictionary> reply = replied.get_future();
  EXPECT_EQ(finish(reply), kHello);
  client->close();
}

TEST_F(Callbacks, AnEndMaySendBackAndWaitWhileItHandlesAMessage) {
  Pair pair;
  pair.server.delegate->onMessage([&](const NSDictionary& message, const NSString& id, const VeltoReplyHandler& reply) {
    reply({{"back", pair.server.listener->sendMessageSync(message, id, 20.0)}});
  });
  pair.client.delegate->onMessage([&](const NSDictionary& message, const NSString&, const VeltoReplyHandler& reply) {
    reply({{"and forth", message}});
  });
  EXPECT_EQ(pair.client.connection->sendMessageSync(kHello, 20.0),
            NSDictionary({{"back", NSDictionary{{"and forth", kHello}}}}));
}

TEST_F(Callbacks, WhileOneWaitsTheOtherConnectionsGoOn) {
  ListenerEnd server("org.velto.test.side");
  ClientEnd one("org.velto.test.side");
  ClientEnd other("org.velto.test.side");
  const NSString second = other.ready();
  one.ready();
  other.delegate->echo();
  // The listener's callback for one client asks the other.
  server.delegate->onMessage([&](const NSDictionary& message, const NSString&, const VeltoReplyHandler& reply) {
    reply(server.listener->sendMessageSync(message, second, 20.0));
  });
  EXPECT_EQ(one.connection->sendMessageSync(kHello, 20.0), kHello);
}

TEST_F(Callbacks, AClientsCallbackThatWaitsForEverIsFreedByTheEndOfItsConnection) {
  Pair pair;
  std::promise<NSError> ended;
  pair.client.delegate->onMessage([&](const NSDictionary& message, const NSString&, const VeltoReplyHandler&) {
    NSError error;
    pair.client.connection->sendMessageSync(message, VKT_IPC_TIME_FOREVER, &error);
    ended.set_value(error);
  });
  ASSERT_TRUE(pair.server.listener->sendMessage(kHello, pair.id));
  pair.server.delegate->waitForMessages(1);
  pair.server.listener->close(pair.id);
  std::future<NSError> end = ended.get_future();
  expectError(finish(end), 6, "Timed out waiting");
  pair.client.delegate->waitForError("Listener connection invalidated");
}

TEST_F(Callbacks, AListenersCallbackThatWaitsForEverIsFreedByTheEndOfItsConnection) {
  Pair pair;
  std::promise<NSError> ended;
  pair.server.delegate->onMessage([&](const NSDictionary& message, const NSString& id, const VeltoReplyHandler&) {
    NSError error;
    pair.server.listener->sendMessageSync(message, id, VKT_IPC_TIME_FOREVER, &error);
    ended.set_value(error);
  });
  ASSERT_TRUE(pair.client.connection->sendMessage(kHello));
  pair.client.delegate->waitForMessages(1);
  pair.client.connection->close();
  std::future<NSError> end = ended.get_future();
  expectError(finish(end), 6, "Timed out waiting");
  pair.server.delegate->waitForError("Connection invalidated");
}

TEST_F(Callbacks, NoneRunsOnTheThreadThatCallsIn) {
  const std::thread::id caller = std::this_thread::get_id();
  std::atomic<int> onCaller{0};
  const auto atServer = std::make_shared<RecordingDelegate>();
  const auto atClient = std::make_shared<RecordingDelegate>();
  for (const auto& delegate : {atServer, atClient}) {
    delegate->onReady([&, caller](const NSString&) { onCaller += std::this_thread::get_id() == caller; });
    delegate->onError(
        [&, caller](const NSString&, const NSError&) { onCaller += std::this_thread::get_id() == caller; });
    delegate->onMessage([&, caller](const NSDictionary& message, const NSString&, const VeltoReplyHandler& reply) {
      onCaller += std::this_thread::get_id() == caller;
      reply(message);
    });
  }
  const auto server = VeltoListener::initWithServiceName("org.velto.test.threads", atServer);
  settle(server->daemonConnection());
  const auto client = VeltoConnection::initWithServiceName("org.velto.test.threads", atClient);
  ASSERT_TRUE(client->waitUntilReady(20.0));
  EXPECT_EQ(client->sendMessageSync(kHello, 20.0), kHello);
  EXPECT_EQ(server->sendMessageSync(kHello, client->getID(), 20.0), kHello);
  client->close();
  server->close();
  atClient->waitForErrors(2);
  atServer->waitForErrors(2);
  ASSERT_TRUE(waitUntilAlone(server));
  ASSERT_TRUE(waitUntilAlone(client));
  atServer->quiesce();
  atClient->quiesce();
  EXPECT_EQ(onCaller, 0);
}

TEST_F(Callbacks, EverythingMayBeClosedInsideAnyOfThem) {
  for (const char* moment : {"ready", "message", "error"}) {
    ListenerEnd server("org.velto.test.anywhere");
    // No client becomes ready before its delegate knows what to do then.
    std::promise<void> prepared;
    server.delegate->onReady([isPrepared = prepared.get_future().share()](const NSString&) { isPrepared.wait(); });
    ClientEnd client("org.velto.test.anywhere");
    const auto closeBoth = [&, moment](const char* now) {
      if (std::string(now) != moment) return;
      client.connection->close();
      server.listener->close();
    };
    client.delegate->onReady([&](const NSString&) { closeBoth("ready"); });
    client.delegate->onMessage(
        [&](const NSDictionary&, const NSString&, const VeltoReplyHandler&) { closeBoth("message"); });
    client.delegate->onError([&](const NSString&, const NSError&) { closeBoth("error"); });
    server.delegate->onMessage(
        [&](const NSDictionary&, const NSString&, const VeltoReplyHandler&) { closeBoth("message"); });
    prepared.set_value();
    client.connection->waitUntilReady(20.0);
    client.connection->sendMessage(kHello);
    client.connection->connectionError(nil);
    if (std::string(moment) == "message") server.delegate->waitForMessages(1);
    client.delegate->waitForError("Listener connection invalidated");
    server.delegate->waitForError("Connection invalidated");
    server.delegate->waitForError("Daemon connection invalidated");
    client.delegate->waitForError("Daemon connection invalidated");
    ASSERT_TRUE(waitUntilAlone(server.listener));
    ASSERT_TRUE(waitUntilAlone(client.connection));
    client.delegate->quiesce();
    server.delegate->quiesce();
  }
}

}  // namespace
}  // namespace velto::testing
