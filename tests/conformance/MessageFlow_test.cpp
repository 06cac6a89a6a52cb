// The peer protocol as the other end sees it: a client of the library against a listener that only writes down what it
// is asked.

#include <atomic>
#include <thread>

#include "tests/conformance/Statements.h"
#include "tests/support/Arrangement.h"
#include "tests/support/BrokerLink.h"
#include "tests/support/RawPeer.h"

namespace velto::testing {
namespace {

class MessageFlow : public ArrangedTest {
 protected:
  // A client of the bare listener, which the listener has given the identifier "id".
  void connect() {
    broker.registerEndpoint(listener->endpoint(), "bare");
    client = std::make_unique<ClientEnd>("bare");
    proxy = listener->waitForClient();
    listener->exported->waitFor("ping");
  }
  void introduce() {
    proxy->call<&VeltoCommunicationMessageProtocol::setStrictMessageTypesRemote>(true);
    proxy->call<&VeltoCommunicationMessageProtocol::connectionUUID>(NSString("id"));
    EXPECT_EQ(client->ready(), NSString("id"));
  }

  const std::shared_ptr<BareListener> listener = BareListener::start();
  TestLink broker;
  std::unique_ptr<ClientEnd> client;
  std::shared_ptr<PeerProxy> proxy;
  const NSDictionary message{{"a", "message"}};
};

TEST_P(MessageFlow, AClientPingsOnceAndThenWaits) {
  PROVES("peer.flow.1", "a client's first call is one ping, and it says nothing more until it has its identifier");
  connect();
  EXPECT_FALSE(client->connection->waitUntilReady(0));
  EXPECT_EQ(listener->exported->calls().size(), 1u);
  introduce();
  ASSERT_TRUE(client->delegate->waitForReadies(1));
  EXPECT_EQ(listener->exported->calls().size(), 1u);
}

TEST_P(MessageFlow, AMessageIsTheIdentifierTheMessageAndAHandler) {
  PROVES("peer.flow.2",
         "a message is one call with the client's identifier, the message and a handler, also when the "
         "sender gave none");
  connect();
  introduce();
  EXPECT_TRUE(client->connection->sendMessage(message));
  const PeerCall call = listener->exported->waitFor("connectionID:withMessage:handler:");
  EXPECT_EQ(call.connectionID, NSString("id"));
  EXPECT_EQ(call.message, message);
  EXPECT_TRUE(call.reply);
}

TEST_P(MessageFlow, AForeignMessageIsReportedToTheListener) {
  PROVES("peer.flow.3",
         "a message with a foreign identifier reaches neither delegate nor reply handler; both ends hear code 5");
  connect();
  introduce();
  std::atomic<int> replies{0};
  proxy->call<&VeltoCommunicationMessageProtocol::connectionID>(NSString("other"), message,
                                                                [&](const NSDictionary&) { ++replies; });
  const PeerCall report = listener->exported->waitFor("connectionError:");
  expectError(report.error, 5, "connectionID is not correct with message sent");
  const Event event = client->delegate->waitForError("connectionID is not correct with message sent");
  EXPECT_EQ(event.connectionID, NSString("id"));
  expectError(event.error, 5, "connectionID is not correct with message sent");
  EXPECT_TRUE(client->delegate->messages().empty());
  EXPECT_EQ(replies, 0);
}

TEST_P(MessageFlow, AnErrorFromTheListenerIsTold) {
  PROVES("peer.flow.4",
         "an error that a listener sends a client reaches its delegate with its identifier; nil as code 7");
  connect();
  introduce();
  const NSError error = NSError::errorWithDomain("org.example", 9, NSDictionary{{"why", "because"}});
  proxy->call<&VeltoCommunicationMessageProtocol::connectionError>(error);
  proxy->call<&VeltoCommunicationMessageProtocol::connectionError>(NSError(nil));
  ASSERT_TRUE(client->delegate->waitForErrors(2));
  const auto errors = client->delegate->errors();
  EXPECT_EQ(errors[0].error, error);
  EXPECT_EQ(errors[0].connectionID, NSString("id"));
  expectError(errors[1].error, 7, "Unknown error sent from listener");
}

TEST_P(MessageFlow, ClosingSaysNothingToTheListener) {
  PROVES("peer.flow.5", "a client that closes calls nothing: the listener only sees the connection end");
  connect();
  introduce();
  client->connection->close();
  client->delegate->waitForError("Listener connection invalidated");
  client = nullptr;
  proxy->call<&VeltoCommunicationMessageProtocol::connectionUUID>(NSString("anyone?"));
  listener->errors.waitForOne();
  EXPECT_EQ(listener->exported->calls().size(), 1u) << "the ping alone";
}

TEST_P(MessageFlow, AListenerThatVanishesIsAnInterruptionOrAnEnd) {
  PROVES("peer.flow.6", "a listener that drops the connection ends the client, which tells so and wakes its sends");
  connect();
  introduce();
  auto waiting = inBackground([&] {
    NSError error;
    client->connection->sendMessageSync(message, VKT_IPC_TIME_FOREVER, &error);
    return error;
  });
  listener->exported->waitFor("connectionID:withMessage:handler:");
  listener->dropClients();
  expectError(finish(waiting), 6, "Timed out waiting");
  client->delegate->waitForError("Listener connection invalidated");
  client->delegate->waitForError("Daemon connection invalidated");
}

TEST_P(MessageFlow, CallbacksComeOnThreadsOfThePlatform) {
  PROVES("peer.flow.7", "callbacks and reply handlers never run on a thread that calls into the library");
  broker.registerEndpoint(listener->endpoint(), "bare");
  const auto delegate = std::make_shared<RecordingDelegate>();
  std::promise<std::thread::id> ready;
  std::promise<std::thread::id> ended;
  delegate->onReady([&](const NSString&) { ready.set_value(std::this_thread::get_id()); });
  delegate->onError([&](const NSString& identifier, const NSError&) {
    if (identifier) ended.set_value(std::this_thread::get_id());
  });
  const auto connection = VeltoConnection::initWithServiceName("bare", delegate);
  proxy = listener->waitForClient();
  proxy->call<&VeltoCommunicationMessageProtocol::connectionUUID>(NSString("id"));
  auto readyThread = ready.get_future();
  EXPECT_NE(finish(readyThread), std::this_thread::get_id());
  connection->close();
  auto endedThread = ended.get_future();
  EXPECT_NE(finish(endedThread), std::this_thread::get_id());
  delegate->waitForError("Daemon connection invalidated");
  waitUntilAlone(connection);
  delegate->quiesce();
}

INSTANTIATE_TEST_SUITE_P(Arranged, MessageFlow,
                         ::testing::Values(Arrangement::allHere, Arrangement::endsHereWithDaemon), printArrangement);

}  // namespace
}  // namespace velto::testing
