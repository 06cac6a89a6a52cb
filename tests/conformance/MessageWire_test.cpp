// What may travel in which direction: the class sets of every call and reply, with both ends here.

#include <atomic>

#include "message/PeerProtocol.h"
#include "platform/logging/VeltoLogging.h"
#include "platform/xpc/NSXPCError.h"
#include "tests/conformance/Statements.h"
#include "tests/support/Arrangement.h"

namespace velto::testing {
namespace {

const NSDictionary& everyPlainValue() {
  static const NSDictionary& message = *new NSDictionary{
      {"text", "Ünïcode"},
      {"numbers", NSArray{true, -1, std::uint64_t{1} << 63, 0.25}},
      {"dictionary", NSDictionary{{"inner", NSDictionary{{"key", "value"}}}}},
      {"data", NSData::dataWithVector({0, 1, 255})},
      {7, "under a number"},
      {"empty", NSArray{NSArray::array(), NSDictionary::dictionary(), "", NSData::dataWithVector({})}}};
  return message;
}

NSDictionary withAnchor() {
  return NSDictionary{{"where", VKTLogGetAnchor()}};
}

// A pair whose types are not strict, of which both ends answer with what the test says.
class MessageWire : public ArrangedTest {
 protected:
  static void answerWith(RecordingDelegate& delegate, const NSDictionary& reply) {
    delegate.onMessage(
        [reply](const NSDictionary&, const NSString&, const VeltoReplyHandler& handler) { handler(reply); });
  }
  // The one error that the delegate hears is the platform's, of this code and about this connection.
  void expectOneRefusal(const RecordingDelegate& delegate, NSXPCErrorCode code) const {
    ASSERT_TRUE(delegate.waitForErrors(1));
    const auto errors = delegate.errors();
    EXPECT_EQ(errors.size(), 1u);
    EXPECT_EQ(errors[0].connectionID, pair->id);
    expectPlatformError(errors[0].error, code);
  }
  NSDictionary sendToListener(const NSDictionary& message) const {
    return pair->client.connection->sendMessageSync(message, 20);
  }
  NSDictionary sendToClient(const NSDictionary& message) const {
    return pair->server.listener->sendMessageSync(message, pair->id, 20);
  }

  const std::unique_ptr<Pair> pair = std::make_unique<Pair>(ListenerEnd::Types::any);
};

TEST_P(MessageWire, PlainValuesTravelBothWaysUnchanged) {
  PROVES("peer.wire.1", "every value that strict types accept travels in messages and replies, both ways, unchanged");
  pair->server.delegate->echo();
  pair->client.delegate->echo();
  EXPECT_EQ(sendToListener(everyPlainValue()), everyPlainValue());
  EXPECT_EQ(sendToClient(everyPlainValue()), everyPlainValue());
  EXPECT_EQ(pair->server.delegate->messages().at(0).message, everyPlainValue());
  EXPECT_EQ(pair->client.delegate->messages().at(0).message, everyPlainValue());
  EXPECT_TRUE(pair->client.delegate->errors().empty());
}

TEST_P(MessageWire, AMessageToTheListenerMayHoldALogAnchor) {
  PROVES("peer.wire.2", "a message from a client to the listener may hold a VKTLogAnchor");
  answerWith(*pair->server.delegate, NSDictionary{{"got", "it"}});
  const NSDictionary message = withAnchor();
  EXPECT_EQ(sendToListener(message), (NSDictionary{{"got", "it"}}));
  const NSDictionary received = pair->server.delegate->messages().at(0).message;
  const VKTLogAnchor anchor = received["where"].as<VKTLogAnchor>();
  ASSERT_FALSE(anchor.isNil());
  EXPECT_EQ(anchor.line(), message["where"].as<VKTLogAnchor>().line());
}

TEST_P(MessageWire, AMessageToTheClientMayNotHoldALogAnchor) {
  PROVES(
      "peer.wire.3",
      "a message to a client may not hold a VKTLogAnchor: it is dropped there, and the listener's delegate hears the "
      "platform's error");
  EXPECT_TRUE(pair->server.listener->sendMessage(withAnchor(), pair->id));
  expectOneRefusal(*pair->server.delegate, NSXPCCallRefused);
  EXPECT_TRUE(pair->client.delegate->messages().empty());
}

TEST_P(MessageWire, AReplyOfTheListenerMayNotHoldALogAnchor) {
  PROVES("peer.wire.4",
         "a reply to a client may not hold a VKTLogAnchor: the client's handler never runs, its delegate hears the "
         "platform's error");
  answerWith(*pair->server.delegate, withAnchor());
  std::atomic<int> replies{0};
  EXPECT_TRUE(pair->client.connection->sendMessage(NSDictionary{{"please", "answer"}}, nullptr,
                                                   [&](const NSDictionary&) { ++replies; }));
  expectOneRefusal(*pair->client.delegate, NSXPCReplyRefused);
  EXPECT_EQ(replies, 0);
}

TEST_P(MessageWire, AReplyOfTheClientMayNotHoldALogAnchor) {
  PROVES("peer.wire.5",
         "a reply to the listener may not hold a VKTLogAnchor either: its handler never runs, its delegate hears the "
         "platform's error");
  answerWith(*pair->client.delegate, withAnchor());
  std::atomic<int> replies{0};
  EXPECT_TRUE(pair->server.listener->sendMessage(NSDictionary{{"please", "answer"}}, pair->id, nullptr,
                                                 [&](const NSDictionary&) { ++replies; }));
  expectOneRefusal(*pair->server.delegate, NSXPCReplyRefused);
  EXPECT_EQ(replies, 0);
}

TEST_P(MessageWire, ARefusalLeavesTheConnectionAsItIs) {
  PROVES("peer.wire.6", "after a refusal messages go on in both directions");
  pair->server.listener->sendMessage(withAnchor(), pair->id);
  expectOneRefusal(*pair->server.delegate, NSXPCCallRefused);
  pair->server.delegate->echo();
  pair->client.delegate->echo();
  const NSDictionary message{{"still", "here"}};
  EXPECT_EQ(sendToListener(message), message);
  EXPECT_EQ(sendToClient(message), message);
}

TEST_P(MessageWire, AnErrorTravelsToTheListenerWithItsUserInfo) {
  PROVES("peer.wire.7", "an error that a client reports reaches the listener's delegate whole, with a nil identifier");
  const NSError error = NSError::errorWithDomain(
      "org.example", -5, NSDictionary{{NSLocalizedDescriptionKey, "text"}, {"data", NSArray{1, "two"}}});
  pair->client.connection->listenerProxyObject()->call<&VeltoCommunicationMessageProtocol::connectionError>(error);
  ASSERT_TRUE(pair->server.delegate->waitForErrors(1));
  EXPECT_TRUE(pair->server.delegate->errors()[0].connectionID.isNil());
  EXPECT_EQ(pair->server.delegate->errors()[0].error, error);
}

TEST_P(MessageWire, AStrictClientRefusesTheAnchorBeforeSending) {
  PROVES("peer.wire.8", "with strict types on the client refuses a VKTLogAnchor itself, with code 3");
  pair->client.connection->setStrictMessageTypesRemote(true);
  NSError error;
  EXPECT_FALSE(pair->client.connection->sendMessage(withAnchor(), &error));
  expectError(error, 3, "SendMessage failed message type check");
  EXPECT_GE(log.containing(0, "VKTLogAnchor with ClassName VKTLogAnchor").size(), 1u);
  pair->server.delegate->echo();
  pair->roundTrip();
  EXPECT_EQ(pair->server.delegate->messages().size(), 1u);
}

INSTANTIATE_TEST_SUITE_P(Arranged, MessageWire,
                         ::testing::Values(Arrangement::allHere, Arrangement::endsHereWithDaemon), printArrangement);

}  // namespace
}  // namespace velto::testing
