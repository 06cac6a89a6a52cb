// What the two ends say to each other, what they let pass, and which callbacks it makes.

#include "platform/xpc/NSXPCError.h"
#include "tests/support/BrokerLink.h"
#include "tests/support/LibraryTest.h"
#include "tests/support/RawPeer.h"

namespace velto::testing {
namespace {

using PeerProtocol = LibraryTest;

NSDictionary anchorMessage() {
  return {{"anchor", VKTLogAnchor::anchorWithFile("there.cpp", 7, "here")}};
}

TEST_F(PeerProtocol, WithStrictTypesOffAnAnchorReachesTheListener) {
  Pair pair(ListenerEnd::Types::any);
  pair.server.delegate->onMessage([](const NSDictionary&, const NSString&, const VeltoReplyHandler& reply) {
    reply({{"got", true}});
  });
  EXPECT_EQ(pair.client.connection->sendMessageSync(anchorMessage(), 20.0), NSDictionary({{"got", true}}));
  const VKTLogAnchor anchor = pair.server.delegate->messages().at(0).message["anchor"].as<VKTLogAnchor>();
  EXPECT_EQ(anchor.file().view(), "there.cpp");
  EXPECT_EQ(anchor.line(), 7u);
  EXPECT_EQ(anchor.function().view(), "here");
}

TEST_F(PeerProtocol, WithStrictTypesOnAnAnchorIsRefusedBeforeItIsSent) {
  Pair pair;
  pair.server.delegate->echo();
  NSError error;
  EXPECT_FALSE(pair.client.connection->sendMessage(anchorMessage(), &error));
  expectError(error, 3, "SendMessage failed message type check");
  pair.roundTrip();
  EXPECT_EQ(pair.server.delegate->messages().size(), 1u);
}

TEST_F(PeerProtocol, AnAnchorInTheListenersReplyIsRefusedByTheClient) {
  Pair pair(ListenerEnd::Types::any);
  pair.server.delegate->onMessage([](const NSDictionary& message, const NSString&, const VeltoReplyHandler& reply) {
    reply(message["anchor"].boolValue() ? anchorMessage() : message);
  });
  std::atomic<bool> replied{false};
  ASSERT_TRUE(
      pair.client.connection->sendMessage({{"anchor", true}}, nullptr, [&](const NSDictionary&) { replied = true; }));
  pair.client.delegate->waitForErrors(1);
  pair.roundTrip();
  const Event refusal = pair.client.delegate->errors().at(0);
  EXPECT_EQ(refusal.connectionID, pair.id);
  expectPlatformError(refusal.error, NSXPCReplyRefused);
  EXPECT_FALSE(replied);
  EXPECT_EQ(log.count(0, "Remote Proxy Error " + refusal.error.description().string()), 1u) << log.text();
}

TEST_F(PeerProtocol, AnAnchorInTheClientsReplyIsRefusedByTheListener) {
  Pair pair(ListenerEnd::Types::any);
  pair.server.delegate->echo();
  pair.client.delegate->onMessage(
      [](const NSDictionary&, const NSString&, const VeltoReplyHandler& reply) { reply(anchorMessage()); });
  std::atomic<bool> replied{false};
  ASSERT_TRUE(pair.server.listener->sendMessage({{"give", "anchor"}}, pair.id, nullptr,
                                                [&](const NSDictionary&) { replied = true; }));
  pair.server.delegate->waitForErrors(1);
  pair.roundTrip();
  const Event refusal = pair.server.delegate->errors().at(0);
  EXPECT_EQ(refusal.connectionID, pair.id);
  expectPlatformError(refusal.error, NSXPCReplyRefused);
  EXPECT_FALSE(replied);
}

TEST_F(PeerProtocol, AnAnchorInAMessageToTheClientIsRefusedThere) {
  Pair pair(ListenerEnd::Types::any);
  pair.server.delegate->echo();
  ASSERT_TRUE(pair.server.listener->sendMessage(anchorMessage(), pair.id));
  pair.server.delegate->waitForErrors(1);
  const Event refusal = pair.server.delegate->errors().at(0);
  EXPECT_EQ(refusal.connectionID, pair.id);
  expectPlatformError(refusal.error, NSXPCCallRefused);
  EXPECT_EQ(log.count(0, "VeltoIPCListener Remote Proxy Error " + refusal.error.description().string()), 1u)
      << log.text();
  pair.roundTrip();
  EXPECT_TRUE(pair.client.delegate->messages().empty());
}

TEST_F(PeerProtocol, TheListenerHearsOfReadinessBeforeTheClientHasItsIdentifier) {
  ListenerEnd server("org.velto.test.early");
  NSString atClient = "unset";
  std::weak_ptr<VeltoConnection> connection;
  std::promise<void> made;
  server.delegate->onReady([&, isMade = made.get_future().share()](const NSString& id) {
    isMade.wait();
    atClient = connection.lock()->getID();
    NSError error;
    EXPECT_FALSE(server.listener->sendMessage({{"too", "early"}}, id, &error));
    expectError(error, 2, "Connection is not available");
  });
  ClientEnd client("org.velto.test.early");
  connection = client.connection;
  made.set_value();
  const NSString id = client.ready();
  EXPECT_TRUE(atClient.isNil());
  EXPECT_EQ(server.delegate->readies().at(0).connectionID, id);
  client.delegate->waitForReadies(1);
  EXPECT_EQ(client.delegate->readies().at(0).connectionID, id);
}

TEST_F(PeerProtocol, AnErrorBeforeTheIdentifierHasNone) {
  ClientEnd client("org.velto.test.nobody");
  const Event event = client.delegate->waitForError("Listener not available");
  EXPECT_TRUE(event.connectionID.isNil());
  expectError(event.error, 2, "Listener not available");
}

TEST_F(PeerProtocol, AnErrorThatAClientReportsReachesTheListenersDelegateWithoutIdentifier) {
  Pair pair;
  const NSError reported = NSError::errorWithDomain("some.domain", 99, {{"detail", NSArray{1, "two"}}});
  pair.client.connection->listenerProxyObject()->call<&VeltoCommunicationMessageProtocol::connectionError>(reported);
  pair.client.connection->listenerProxyObject()->call<&VeltoCommunicationMessageProtocol::connectionError>(
      NSError(nil));
  pair.server.delegate->waitForErrors(2);
  const auto errors = pair.server.delegate->errors();
  EXPECT_TRUE(errors.at(0).connectionID.isNil());
  EXPECT_EQ(errors.at(0).error, reported);
  EXPECT_TRUE(errors.at(1).connectionID.isNil());
  EXPECT_TRUE(errors.at(1).error.isNil());
}

TEST_F(PeerProtocol, APingMakesNoCallback) {
  ListenerEnd server("org.velto.test.ping");
  server.delegate->echo();
  BareClient client(TestLink().find("org.velto.test.ping"));
  const NSString id = client.handshake();
  client.proxy->call<&VeltoCommunicationMessageProtocol::ping>();
  std::promise<void> replied;
  client.proxy->call<&VeltoCommunicationMessageProtocol::connectionID>(
      id, NSDictionary{{"after", "ping"}}, [&](const NSDictionary&) { replied.set_value(); });
  std::future<void> reply = replied.get_future();
  finish(reply);
  EXPECT_EQ(log.count(2, "VeltoConnection Pinged VeltoListener"), 2u) << log.text();
  // The acceptance and the message, and nothing for either ping.
  const auto events = server.delegate->events();
  ASSERT_EQ(events.size(), 2u);
  EXPECT_EQ(events[0].kind, Event::Kind::ready);
  EXPECT_EQ(events[1].kind, Event::Kind::message);
}

TEST_F(PeerProtocol, AMessageThatIsNeverAnsweredEndsInTheTimeOutAndNothingElse) {
  Pair pair;
  NSError error;
  EXPECT_TRUE(pair.client.connection->sendMessageSync({{"no", "answer"}}, 0.1, &error).isNil());
  expectError(error, 6, "Timed out waiting");
  pair.server.delegate->echo();
  pair.roundTrip();
  EXPECT_TRUE(pair.client.delegate->errors().empty());
  EXPECT_TRUE(pair.server.delegate->errors().empty());
}

TEST_F(PeerProtocol, EachCallOfTheReplyHandlerIsLoggedUnderTheMessagesLabel) {
  Pair pair;
  pair.server.delegate->echo();
  pair.roundTrip();
  const auto sent = log.containing(2, " handler sent to delegate");
  ASSERT_EQ(sent.size(), 1u) << log.text();
  const std::string label = sent[0].substr(0, sent[0].find(' '));
  // The identifier, an underscore, and the text of a UUID.
  ASSERT_TRUE(label.starts_with(pair.id.string() + "_")) << label;
  EXPECT_FALSE(NSUUID::UUIDWithString(label.substr(pair.id.length() + 1)).isNil()) << label;
  EXPECT_TRUE(log.inOrder({{2, label + " handler sent to delegate"}, {2, label + " handler called by delegate"}}));
  // The library does not count: a second call is let through, and logged again.
  pair.server.delegate->messages().at(0).reply({{"once", "more"}});
  EXPECT_EQ(log.count(2, label + " handler called by delegate"), 2u) << log.text();
}

TEST_F(PeerProtocol, ADelegateThatIsGoneLosesTheMessageSilently) {
  ListenerEnd server("org.velto.test.gone");
  ClientEnd client("org.velto.test.gone");
  client.ready();
  server.listener->setDelegate(nullptr);
  NSError error;
  EXPECT_TRUE(client.connection->sendMessageSync({{"to", "nobody"}}, 0.2, &error).isNil());
  expectError(error, 6, "Timed out waiting");
  log.waitForContaining(2, " handler sent to delegate");
  EXPECT_TRUE(log.containing(2, " handler called by delegate").empty()) << log.text();
  EXPECT_TRUE(client.delegate->errors().empty());
  EXPECT_TRUE(server.delegate->messages().empty());
}

}  // namespace
}  // namespace velto::testing
