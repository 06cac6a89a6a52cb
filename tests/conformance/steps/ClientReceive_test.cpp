// Messages from the listener: whose they are, and what becomes of those that are somebody else's.

#include "tests/conformance/steps/ClientSteps.h"

namespace velto::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

class ClientReceive : public ClientSteps {
 protected:
  void deliver(const NSString& identifier, const NSDictionary& text) {
    peer().deliver<&VeltoCommunicationMessageProtocol::connectionID>(identifier, text, incoming.handler());
  }
  // The message was refused as somebody else's: log line, own delegate, listener, in this order.
  void expectForeign(const std::string& ownIdentifier) {
    EXPECT_THAT(journal().take(), ElementsAre("log 0 VeltoConnection connectionID is not correct with message sent",
                                              "delegate connectionError " + ownIdentifier +
                                                  " 5 connectionID is not correct with message sent",
                                              "proxy#2 connectionError:"));
    EXPECT_FALSE(incoming.isHeld());
    EXPECT_THAT(incoming.replies(), IsEmpty());
    EXPECT_THAT(delegate->recorded.messages(), IsEmpty());
  }

  const NSDictionary message{{"op", "greet"}};
  CountedReply incoming;
};

TEST_F(ClientReceive, HandsItsOwnMessagesToTheDelegate) {
  PROVES(
      "client.receive.1",
      "a message with the client's identifier goes to the delegate: the very message, the identifier as it came, and "
      "a handler");
  becomeReady("id");
  deliver("id", message);
  const auto messages = delegate->recorded.messages();
  ASSERT_THAT(messages, SizeIs(1));
  EXPECT_TRUE(messages[0].message.isIdenticalTo(message));
  EXPECT_EQ(messages[0].connectionID, NSString("id"));
  EXPECT_TRUE(messages[0].reply);
  EXPECT_THAT(delegate->recorded.errors(), IsEmpty());
}

TEST_F(ClientReceive, ComparesIdentifiersByTheirText) {
  PROVES("client.receive.2", "identifiers are compared by their text, whole");
  becomeReady("id");
  deliver(NSMutableString::stringWithString("id"), message);
  EXPECT_THAT(delegate->recorded.messages(), SizeIs(1));
  for (const char* other : {"i", "id ", "ID", ""}) deliver(other, message);
  EXPECT_THAT(delegate->recorded.messages(), SizeIs(1));
  EXPECT_THAT(delegate->recorded.errors(), SizeIs(4));
}

TEST_F(ClientReceive, RefusesAForeignMessage) {
  PROVES(
      "client.receive.3",
      "a message with another identifier is logged at level 0, reported to the own delegate and then to the listener, "
      "and dropped: neither delegate nor reply handler sees it");
  becomeReady("id");
  deliver("other", message);
  expectForeign("id");
}

TEST_F(ClientReceive, TellsBothOfTheSameError) {
  PROVES(
      "client.receive.4",
      "the error of a foreign message is code 5 \"connectionID is not correct with message sent\", the same for both "
      "ends, and is recorded");
  becomeReady("id");
  deliver("other", message);
  const NSError error = delegate->recorded.errors().at(0).error;
  expectError(error, 5, "connectionID is not correct with message sent");
  EXPECT_TRUE(peer().lastCall(kReport)->arguments().at(0).isIdenticalTo(error));
  EXPECT_FALSE(peer().lastCall(kReport)->hasReply());
  NSError recorded;
  EXPECT_TRUE(client->waitUntilReady(0, &recorded));
  EXPECT_TRUE(recorded.isIdenticalTo(error));
}

TEST_F(ClientReceive, AForeignMessageEndsNothing) {
  PROVES("client.receive.5", "after a foreign message the connection stays as it is: the next message is delivered");
  becomeReady("id");
  deliver("other", message);
  EXPECT_FALSE(peer().isInvalidated());
  deliver("id", message);
  EXPECT_THAT(delegate->recorded.messages(), SizeIs(1));
  EXPECT_TRUE(client->sendMessage(message));
}

TEST_F(ClientReceive, BeforeItHasAnIdentifierEveryMessageIsForeign) {
  PROVES("client.receive.6", "before the identifier has come every message is foreign, one with a nil identifier too");
  configure();
  deliver("id", message);
  expectForeign("(null)");
  deliver(nil, message);
  expectForeign("(null)");
}

TEST_F(ClientReceive, ANilIdentifierIsForeign) {
  PROVES("client.receive.7", "a message with a nil identifier is foreign");
  becomeReady("id");
  deliver(nil, message);
  expectForeign("id");
}

TEST_F(ClientReceive, AForeignMessageWakesAWaitForReadiness) {
  PROVES("client.receive.8", "the error of a foreign message ends a wait for readiness");
  configure();
  NSError error;
  auto waiter = waitAsleep(600, error);
  deliver("other", message);
  EXPECT_FALSE(finish(waiter));
  expectError(error, 5, "connectionID is not correct with message sent");
}

TEST_F(ClientReceive, AForeignMessageAfterCloseIsToldToNobodyElse) {
  PROVES("client.receive.9", "without a proxy a foreign message is reported to the own delegate alone");
  becomeReady("id");
  client->close();
  journal().take();
  deliver("other", message);
  EXPECT_THAT(journal().take(),
              ElementsAre("log 0 VeltoConnection connectionID is not correct with message sent",
                          "delegate connectionError id 5 connectionID is not correct with message sent"));
}

TEST_F(ClientReceive, DoesNotCheckWhatComes) {
  PROVES("types.where.5", "a message that has come is not checked, though strict types are on");
  becomeReady("id");
  deliver("id", NSDictionary{{"when", NSDate::date()}, {"nothing", NSNull::null()}});
  EXPECT_THAT(delegate->recorded.messages(), SizeIs(1));
  EXPECT_THAT(journal().beginningWith("log 0"), IsEmpty());
}

TEST_F(ClientReceive, PassesNilMessagesOn) {
  PROVES("client.receive.10", "a nil message is delivered like any other");
  becomeReady("id");
  deliver("id", nil);
  ASSERT_THAT(delegate->recorded.messages(), SizeIs(1));
  EXPECT_TRUE(delegate->recorded.messages()[0].message.isNil());
}

TEST_F(ClientReceive, WithoutADelegateDropsMessageAndHandler) {
  PROVES("peer.delegate.4",
         "with no delegate, or one that is gone, a message is dropped and its reply handler let go of uncalled");
  becomeReady("id");
  client->setDelegate(nullptr);
  deliver("id", message);
  EXPECT_FALSE(incoming.isHeld());
  client->setDelegate(delegate);
  delegate = nullptr;
  deliver("id", message);
  EXPECT_FALSE(incoming.isHeld());
  EXPECT_THAT(incoming.replies(), IsEmpty());
  const Lines lines = journal().take();
  ASSERT_THAT(lines, SizeIs(2));
  for (const std::string& line : lines) EXPECT_TRUE(line.ends_with(" handler sent to delegate")) << line;
}

TEST_F(ClientReceive, DeliversStillAfterClose) {
  PROVES("client.receive.11", "a message that the platform still delivers after close reaches the delegate");
  becomeReady("id");
  client->close();
  deliver("id", message);
  EXPECT_THAT(delegate->recorded.messages(), SizeIs(1));
}

}  // namespace
}  // namespace velto::testing
