// Messages as the client sends and receives them.

#include <atomic>

#include "tests/support/BrokerLink.h"
#include "tests/support/LibraryTest.h"
#include "tests/support/RawPeer.h"

namespace velto::testing {
namespace {

using ClientMessaging = LibraryTest;

TEST_F(ClientMessaging, BeforeTheIdentifierHasArrivedASendFails) {
  const auto listener = BareListener::start();
  TestLink().registerEndpoint(listener->endpoint(), "org.velto.test.mute");
  ClientEnd client("org.velto.test.mute");
  listener->exported->waitFor("ping");
  std::atomic<bool> replied{false};
  NSError error;
  EXPECT_FALSE(client.connection->sendMessage(kHelloAndNumber, &error, [&](const NSDictionary&) { replied = true; }));
  expectError(error, 2, "Connection is not available");
  EXPECT_TRUE(client.connection->sendMessageSync(kHelloAndNumber, 20.0, &error).isNil());
  expectError(error, 2, "Connection is not available");
  EXPECT_FALSE(client.connection->sendMessage(kHelloAndNumber)) << "without an out-pointer";
  EXPECT_EQ(log.count(0, "VeltoConnection Connection is not available or connectionUUID is nil"), 3u) << log.text();
  EXPECT_FALSE(replied);
  EXPECT_EQ(listener->exported->calls().size(), 1u);
}

TEST_F(ClientMessaging, ASendWithoutHandlerSucceedsAndItsReplyIsIgnored) {
  Pair pair;
  pair.server.delegate->echo();
  NSError error;
  EXPECT_TRUE(pair.client.connection->sendMessage(kHelloAndNumber, &error));
  EXPECT_TRUE(error.isNil());
  pair.roundTrip();
  EXPECT_EQ(pair.server.delegate->messages().at(0).message, kHelloAndNumber);
  EXPECT_TRUE(pair.server.delegate->messages().at(0).reply) << "the listener must be given a handler";
  EXPECT_TRUE(pair.client.delegate->errors().empty());
}

TEST_F(ClientMessaging, AMessageOfManyLargePiecesArrivesAsItWasSent) {
  Pair pair;
  pair.server.delegate->echo();
  std::vector<NSObject> pieces;
  for (std::size_t number = 0; number < 100; ++number) {
    pieces.emplace_back(NSData(std::vector<std::uint8_t>(20'000 + number, static_cast<std::uint8_t>(number))));
    pieces.emplace_back(number);
  }
  const NSDictionary message{{"pieces", NSArray::arrayWithObjects(std::move(pieces))},
                             {"data", NSData(std::vector<std::uint8_t>(1 << 20, 9))},
                             {"text", std::string(100'000, 't')}};
  EXPECT_EQ(pair.client.connection->sendMessageSync(message, 20.0), message);
}

TEST_F(ClientMessaging, ADateFailsWhileTypesAreStrict) {
  Pair pair;
  pair.server.delegate->echo();
  NSError error;
  std::atomic<bool> replied{false};
  const NSDictionary dated{{"when", NSDate::date()}};
  EXPECT_FALSE(pair.client.connection->sendMessage(dated, &error, [&](const NSDictionary&) { replied = true; }));
  expectError(error, 3, "SendMessage failed message type check");
  EXPECT_TRUE(pair.client.connection->sendMessageSync(dated, 20.0, &error).isNil());
  expectError(error, 3, "SendMessage failed message type check");
  EXPECT_EQ(log.count(0, "VeltoConnection SendMessage failed message type check"), 2u) << log.text();
  pair.roundTrip();
  EXPECT_EQ(pair.server.delegate->messages().size(), 1u) << "only the round trip";
  EXPECT_FALSE(replied);
}

TEST_F(ClientMessaging, ADateIsSentWhileTypesAreNotStrict) {
  Pair pair(ListenerEnd::Types::any);
  pair.server.delegate->echo();
  const NSDictionary dated{{"when", NSDate::dateWithTimeIntervalSince1970(1e9)}};
  EXPECT_EQ(pair.client.connection->sendMessageSync(dated, 20.0), dated);
}

TEST_F(ClientMessaging, ANilMessagePassesTheCheckAndIsSent) {
  Pair pair;
  pair.server.delegate->onMessage([](const NSDictionary& message, const NSString&, const VeltoReplyHandler& reply) {
    reply({{"nil", message.isNil()}});
  });
  EXPECT_EQ(pair.client.connection->sendMessageSync(nil, 20.0), NSDictionary({{"nil", true}}));
}

TEST_F(ClientMessaging, EmptyBracesAreAnEmptyMessageAndAnEmptyReply) {
  Pair pair;
  pair.server.delegate->onMessage(
      [](const NSDictionary&, const NSString&, const VeltoReplyHandler& reply) { reply({}); });
  NSError error;
  const NSDictionary reply = pair.client.connection->sendMessageSync({}, 20.0, &error);
  EXPECT_FALSE(reply.isNil());
  EXPECT_EQ(reply, NSDictionary::dictionary());
  EXPECT_TRUE(error.isNil());
  std::promise<NSDictionary> replied;
  EXPECT_TRUE(pair.client.connection->sendMessage(
      {}, &error, [&](const NSDictionary& asynchronous) { replied.set_value(asynchronous); }));
  std::future<NSDictionary> later = replied.get_future();
  EXPECT_EQ(finish(later), NSDictionary::dictionary());
  ASSERT_TRUE(pair.client.connection->sendMessage({}));
  ASSERT_TRUE(pair.server.delegate->waitForMessages(3));
  for (const Event& event : pair.server.delegate->messages()) {
    EXPECT_FALSE(event.message.isNil());
    EXPECT_EQ(event.message, NSDictionary::dictionary());
  }
}

TEST_F(ClientMessaging, ANilReplyStaysNilAndIsNoError) {
  Pair pair;
  pair.server.delegate->onMessage([](const NSDictionary& message, const NSString&, const VeltoReplyHandler& reply) {
    const NSDictionary none;
    message["variable"].boolValue() ? reply(none) : reply(nil);
  });
  for (const bool asVariable : {false, true}) {
    NSError error;
    EXPECT_TRUE(pair.client.connection->sendMessageSync({{"variable", asVariable}}, 20.0, &error).isNil());
    EXPECT_TRUE(error.isNil());
  }
}

TEST_F(ClientMessaging, AMessageForAnotherIdentifierIsReportedAtBothEndsAndDropped) {
  const auto listener = BareListener::start();
  TestLink().registerEndpoint(listener->endpoint(), "org.velto.test.foreign");
  ClientEnd client("org.velto.test.foreign");
  const auto proxy = listener->waitForClient();
  proxy->call<&VeltoCommunicationMessageProtocol::connectionUUID>(NSString("mine"));
  client.ready();
  client.delegate->echo();
  std::atomic<int> foreignReplies{0};
  const VeltoReplyHandler count = [&](const NSDictionary&) { ++foreignReplies; };
  proxy->call<&VeltoCommunicationMessageProtocol::connectionID>(NSString("somebody else's"), kHelloAndNumber, count);
  proxy->call<&VeltoCommunicationMessageProtocol::connectionID>(NSString(nil), kHelloAndNumber, count);
  std::promise<NSDictionary> replied;
  proxy->call<&VeltoCommunicationMessageProtocol::connectionID>(
      NSString("mine"), kHelloAndNumber, [&](const NSDictionary& reply) { replied.set_value(reply); });
  std::future<NSDictionary> reply = replied.get_future();
  EXPECT_EQ(finish(reply), kHelloAndNumber);

  client.delegate->waitForErrors(2);
  for (const Event& event : client.delegate->errors()) {
    EXPECT_EQ(event.connectionID, NSString("mine"));
    expectError(event.error, 5, "connectionID is not correct with message sent");
  }
  expectError(listener->exported->waitFor("connectionError:", 2).error, 5,
              "connectionID is not correct with message sent");
  EXPECT_EQ(log.count(0, "VeltoConnection connectionID is not correct with message sent"), 2u);
  EXPECT_EQ(client.delegate->messages().size(), 1u);
  EXPECT_EQ(foreignReplies, 0);
  NSError recorded;
  EXPECT_TRUE(client.connection->waitUntilReady(0.0, &recorded));
  expectError(recorded, 5, "connectionID is not correct with message sent");
}

TEST_F(ClientMessaging, EachReceivedMessageIsLoggedUnderItsOwnLabel) {
  Pair pair;
  std::promise<void> called;
  pair.client.delegate->onMessage([](const NSDictionary&, const NSString&, const VeltoReplyHandler& reply) {
    reply({{"call", 1}});
    reply({{"call", 2}});
  });
  EXPECT_EQ(pair.server.listener->sendMessageSync(kHelloAndNumber, pair.id, 20.0), NSDictionary({{"call", 1}}));
  EXPECT_EQ(pair.server.listener->sendMessageSync(kHelloAndNumber, pair.id, 20.0), NSDictionary({{"call", 1}}));
  ASSERT_TRUE(log.waitForContaining(2, " handler called by delegate", 4));
  const auto sent = log.containing(2, " handler sent to delegate");
  ASSERT_EQ(sent.size(), 2u) << log.text();
  EXPECT_NE(sent[0], sent[1]);
  for (const std::string& line : sent) {
    const std::string label = line.substr(0, line.find(' '));
    EXPECT_TRUE(label.starts_with(pair.id.string() + "_")) << label;
    EXPECT_EQ(log.count(2, label + " handler called by delegate"), 2u) << log.text();
  }
  EXPECT_EQ(pair.client.delegate->messages().at(0).connectionID, pair.id);
}

TEST_F(ClientMessaging, AfterCloseASendFails) {
  Pair pair;
  pair.client.connection->close();
  NSError error;
  EXPECT_FALSE(pair.client.connection->sendMessage(kHelloAndNumber, &error));
  expectError(error, 2, "Connection is not available");
  EXPECT_FALSE(pair.client.connection->messageValid(NSUUID::UUID()));
}

}  // namespace
}  // namespace velto::testing
