// Messages as the listener sends and receives them.

#include "tests/support/BrokerLink.h"
#include "tests/support/LibraryTest.h"
#include "tests/support/RawPeer.h"

namespace velto::testing {
namespace {

using ListenerMessaging = LibraryTest;

TEST_F(ListenerMessaging, AnUnknownIdentifierFailsAndRegistersNothing) {
  Pair pair;
  clearLogOfHandshake();
  // Types come second: the message would fail that check too.
  const NSDictionary dated{{"when", NSDate::date()}};
  for (const NSString& unknown : {NSString("nobody"), NSString(""), NSString(nil)}) {
    NSError error;
    EXPECT_FALSE(pair.server.listener->sendMessage(dated, unknown, &error));
    expectError(error, 2, "Connection is not available");
    EXPECT_TRUE(pair.server.listener->sendMessageSync(dated, unknown, 20.0, &error).isNil());
    expectError(error, 2, "Connection is not available");
    EXPECT_EQ(pair.server.entries(unknown), kNoEntries);
  }
  EXPECT_EQ(log.lines().size(), 6u) << log.text();
  EXPECT_EQ(log.count(0, "VeltoIPCListener Connection is not available"), 6u) << log.text();
  EXPECT_EQ(pair.server.waiting(pair.id), 0u);
}

TEST_F(ListenerMessaging, ASendWithoutHandlerSucceedsAndItsReplyIsDiscarded) {
  Pair pair;
  pair.client.delegate->echo();
  NSError error;
  EXPECT_TRUE(pair.server.listener->sendMessage(kHelloAndNumber, pair.id, &error));
  EXPECT_TRUE(error.isNil());
  EXPECT_EQ(pair.server.listener->sendMessageSync({{"after", true}}, pair.id, 20.0), NSDictionary({{"after", true}}));
  EXPECT_EQ(pair.client.delegate->messages().at(0).message, kHelloAndNumber);
  EXPECT_TRUE(pair.client.delegate->messages().at(0).reply) << "the client must be given a handler";
  EXPECT_TRUE(pair.server.delegate->errors().empty());
}

TEST_F(ListenerMessaging, AnIdentifierThatWasNeverIssuedReachesTheDelegateUnchanged) {
  ListenerEnd server("org.velto.test.stated");
  server.delegate->echo();
  BareClient client(TestLink().find("org.velto.test.stated"));
  client.handshake();
  for (const NSString& stated : {NSString("made up"), NSString(""), NSString(nil)}) {
    std::promise<NSDictionary> replied;
    client.proxy->call<&VeltoCommunicationMessageProtocol::connectionID>(
        stated, kHelloAndNumber, [&](const NSDictionary& reply) { replied.set_value(reply); });
    std::future<NSDictionary> reply = replied.get_future();
    EXPECT_EQ(finish(reply), kHelloAndNumber);
    EXPECT_EQ(server.delegate->messages().back().connectionID, stated);
  }
  EXPECT_TRUE(server.delegate->errors().empty());
}

TEST_F(ListenerMessaging, StrictTypesOffCountsAtOnceForTheListenerAndNotForClientsOfBefore) {
  const NSDictionary dated{{"when", NSDate::dateWithTimeIntervalSince1970(5)}};
  Pair pair;
  pair.server.delegate->echo();
  pair.client.delegate->echo();
  NSError error;
  EXPECT_FALSE(pair.server.listener->sendMessage(dated, pair.id, &error));
  pair.server.listener->setStrictMessageTypes(false);
  EXPECT_EQ(pair.server.listener->sendMessageSync(dated, pair.id, 20.0), dated);
  EXPECT_TRUE(pair.client.connection->sendMessageSync(dated, 20.0, &error).isNil());
  expectError(error, 3, "SendMessage failed message type check");
  pair.server.listener->setStrictMessageTypes(true);
  EXPECT_FALSE(pair.server.listener->sendMessage(dated, pair.id, &error));
}

TEST_F(ListenerMessaging, MessagesOfManySendersKeepTheirOrderPerConnection) {
  Pair pair;
  constexpr int kCount = 200;
  for (int number = 0; number < kCount; ++number) {
    ASSERT_TRUE(pair.server.listener->sendMessage({{"number", number}}, pair.id));
    ASSERT_TRUE(pair.client.connection->sendMessage({{"number", number}}));
  }
  pair.client.delegate->waitForMessages(kCount);
  pair.server.delegate->waitForMessages(kCount);
  for (const auto& delegate : {pair.client.delegate, pair.server.delegate}) {
    const auto messages = delegate->messages();
    ASSERT_EQ(messages.size(), static_cast<std::size_t>(kCount));
    for (int number = 0; number < kCount; ++number) {
      EXPECT_EQ(messages[static_cast<std::size_t>(number)].message["number"].integerValue(), number);
    }
  }
}

TEST_F(ListenerMessaging, EmptyBracesAreAnEmptyMessageAndAnEmptyReply) {
  Pair pair;
  pair.client.delegate->onMessage(
      [](const NSDictionary&, const NSString&, const VeltoReplyHandler& reply) { reply({}); });
  NSError error;
  const NSDictionary reply = pair.server.listener->sendMessageSync({}, pair.id, 20.0, &error);
  EXPECT_FALSE(reply.isNil());
  EXPECT_EQ(reply, NSDictionary::dictionary());
  EXPECT_TRUE(error.isNil());
  std::promise<NSDictionary> replied;
  EXPECT_TRUE(pair.server.listener->sendMessage(
      {}, pair.id, &error, [&](const NSDictionary& asynchronous) { replied.set_value(asynchronous); }));
  std::future<NSDictionary> later = replied.get_future();
  EXPECT_EQ(finish(later), NSDictionary::dictionary());
  EXPECT_FALSE(pair.server.listener->sendMessage({}, "nobody"));
  for (const Event& event : pair.client.delegate->messages()) EXPECT_FALSE(event.message.isNil());
  EXPECT_EQ(pair.client.delegate->messages().size(), 2u);
}

TEST_F(ListenerMessaging, ANilMessageStaysNil) {
  Pair pair;
  pair.client.delegate->onMessage([](const NSDictionary& message, const NSString&, const VeltoReplyHandler& reply) {
    reply({{"nil", message.isNil()}});
  });
  const NSDictionary none;
  EXPECT_EQ(pair.server.listener->sendMessageSync(nil, pair.id, 20.0), NSDictionary({{"nil", true}}));
  EXPECT_EQ(pair.server.listener->sendMessageSync(none, pair.id, 20.0), NSDictionary({{"nil", true}}));
}

}  // namespace
}  // namespace velto::testing
