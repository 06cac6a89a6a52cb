// A listener's send that does not wait.

#include "tests/conformance/ListenerFixture.h"

namespace velto::testing {
namespace {

using ListenerSends = ListenerHere;
INSTANTIATE_TEST_SUITE_P(, ListenerSends, kArrangementsHere, printArrangement);

const LogCapture::Line kUnavailableLine{0, "VeltoIPCListener Connection is not available"};
const LogCapture::Line kCheckFailedLine{0, "VeltoIPCListener SendMessage failed message type check"};

TEST_P(ListenerSends, ToAnUnknownOrNilIdentifierFail) {
  PROVES("listener.send.1",
         "a send to an unknown identifier logs \"VeltoIPCListener Connection is not available\" at level 0 and fails "
         "with code 2 \"Connection is not available\"");
  PROVES("listener.send.2", "a send to a nil identifier fails like one to an unknown identifier");
  PROVES("listener.send.4", "a send that fails never calls its handler");
  const TwoEnds ends;
  clearLogOfHandshakes();
  for (const NSString& id : {NSString("unknown"), NSString(""), NSString()}) {
    const HandlerProbe probe;
    NSError error;
    EXPECT_FALSE(ends.server.listener->sendMessage(plainMessage(), id, &error, probe.handler()));
    expectError(error, 2, "Connection is not available");
    EXPECT_TRUE(probe.isReleased());
    EXPECT_EQ(probe.calls(), 0u);
  }
  EXPECT_EQ(linesOfEnds(), (Lines{kUnavailableLine, kUnavailableLine, kUnavailableLine}));
  EXPECT_TRUE(ends.client.delegate->messages().empty());
}

TEST_P(ListenerSends, ToAClosedConnectionFail) {
  PROVES("listener.send.3", "a send to a closed connection fails like one to an unknown identifier");
  const TwoEnds ends;
  ends.server.listener->close(ends.id);
  NSError error;
  EXPECT_FALSE(ends.server.listener->sendMessage(plainMessage(), ends.id, &error));
  expectError(error, 2, "Connection is not available");
  EXPECT_EQ(log.count(0, kUnavailableLine.text), 1u);
}

TEST_P(ListenerSends, FailWithoutAnErrorToWrite) {
  PROVES("listener.send.5", "the error is optional");
  const TwoEnds ends;
  EXPECT_FALSE(ends.server.listener->sendMessage(plainMessage(), "unknown", nullptr));
  EXPECT_FALSE(ends.server.listener->sendMessage(messageWithDate(), ends.id, nullptr));
  EXPECT_TRUE(ends.server.listener->sendMessage(plainMessage(), ends.id, nullptr));
  ends.client.delegate->waitForMessages(1);
}

TEST_P(ListenerSends, ThatSucceedLeaveTheErrorAndTheLogAlone) {
  PROVES("listener.send.6", "a send that succeeds does not write the error");
  PROVES("listener.send.10", "a send that succeeds logs nothing");
  PROVES("listener.send.18", "a send returns true");
  const TwoEnds ends;
  clearLogOfHandshakes();
  const NSError former = NSError::errorWithDomain("org.example", 99, nil);
  NSError error = former;
  EXPECT_TRUE(ends.server.listener->sendMessage(plainMessage(), ends.id, &error));
  EXPECT_TRUE(error.isIdenticalTo(former));
  ends.client.delegate->waitForMessages(1);
  const Lines lines = linesOfEnds();
  ASSERT_EQ(lines.size(), 1u) << log.text();
  EXPECT_TRUE(lines[0].text.ends_with(" handler sent to delegate")) << "of the client";
}

TEST_P(ListenerSends, LookTheIdentifierUpBeforeTheyExamineTheMessage) {
  PROVES(
      "listener.send.7",
      "for an unknown identifier the message is not examined: the error is code 2 and the type check writes nothing");
  const ListenerEnd server(kName);
  log.clear();
  NSError error;
  EXPECT_FALSE(server.listener->sendMessage(messageWithDate(), "unknown", &error));
  expectError(error, 2, "Connection is not available");
  EXPECT_EQ(linesOfEnds(), (Lines{kUnavailableLine}));
}

TEST_P(ListenerSends, OfForbiddenTypesFailWithStrictTypes) {
  PROVES("listener.send.8",
         "with strict types a message that fails the check logs the check's lines, then \"VeltoIPCListener SendMessage "
         "failed message type check\" at level 0, and fails with code 3");
  PROVES("listener.send.4", "a send that fails never calls its handler");
  const TwoEnds ends;
  ends.client.delegate->echo();
  clearLogOfHandshakes();
  const HandlerProbe probe;
  NSError error;
  EXPECT_FALSE(ends.server.listener->sendMessage(messageWithDate(), ends.id, &error, probe.handler()));
  expectError(error, 3, "SendMessage failed message type check");
  EXPECT_TRUE(probe.isReleased());
  const Lines lines = linesOfEnds();
  ASSERT_GE(lines.size(), 3u) << log.text();
  EXPECT_EQ(lines.back(), kCheckFailedLine);
  EXPECT_EQ(lines[lines.size() - 2].level, 2) << "where it lies";
  for (std::size_t each = 0; each + 2 < lines.size(); ++each) EXPECT_EQ(lines[each].level, 0);
  EXPECT_EQ(log.count(0, kCheckFailedLine.text), 1u);
  EXPECT_EQ(ends.server.listener->sendMessageSync(plainMessage(), ends.id, kLong), plainMessage());
  EXPECT_EQ(ends.client.delegate->messages().size(), 1u) << "nothing came of the failed one";
}

TEST_P(ListenerSends, OfAnyTypeGoOutWithoutStrictTypes) {
  PROVES("listener.send.9", "without strict types a message is not examined and is sent");
  const TwoEnds ends(ListenerEnd::Types::any);
  clearLogOfHandshakes();
  EXPECT_TRUE(ends.server.listener->sendMessage(messageWithDate(), ends.id));
  ends.client.delegate->waitForMessages(1);
  EXPECT_EQ(ends.client.delegate->messages().front().message, messageWithDate());
  EXPECT_EQ(linesOfEnds().size(), 1u) << log.text();
}

TEST_P(ListenerSends, WithoutAHandlerDiscardTheReply) {
  PROVES("listener.send.12",
         "a send without a handler carries one that does nothing, and the client's reply is discarded");
  const TwoEnds ends;
  bool couldReply = false;
  ends.client.delegate->onMessage([&](const NSDictionary& message, const NSString&, const VeltoReplyHandler& reply) {
    couldReply = static_cast<bool>(reply);
    reply(message);
  });
  EXPECT_TRUE(ends.server.listener->sendMessage(plainMessage(), ends.id));
  EXPECT_EQ(ends.server.listener->sendMessageSync(plainMessage(), ends.id, kLong), plainMessage());
  EXPECT_TRUE(couldReply);
  EXPECT_EQ(log.containing(2, " handler called by delegate").size(), 2u);
  EXPECT_TRUE(ends.server.delegate->errors().empty());
  EXPECT_TRUE(ends.server.delegate->messages().empty());
  EXPECT_TRUE(ends.client.delegate->errors().empty());
}

TEST_P(ListenerSends, OfNilPassTheCheckAndGoOut) {
  PROVES("listener.send.14", "a nil message passes the check and is sent");
  const TwoEnds ends;
  NSError error;
  EXPECT_TRUE(ends.server.listener->sendMessage(NSDictionary(), ends.id, &error)) << error.description().view();
  ends.client.delegate->waitForMessages(1);
  EXPECT_TRUE(ends.client.delegate->messages().front().message.isNil());
}

TEST_P(ListenerSends, ReachTheClientThatIsNamed) {
  PROVES("listener.send.15", "a message reaches the client that is named and no other");
  const TwoEnds ends;
  ClientEnd other(kName);
  other.ready();
  ends.client.delegate->echo();
  EXPECT_EQ(ends.server.listener->sendMessageSync(plainMessage(), ends.id, kLong), plainMessage());
  EXPECT_EQ(ends.client.delegate->messages().size(), 1u);
  EXPECT_EQ(ends.client.delegate->messages().front().connectionID, ends.id);
  EXPECT_TRUE(other.delegate->messages().empty());
}

TEST_P(ListenerSends, TakeTheIdentifierAsText) {
  PROVES("listener.send.19", "identifiers are compared as text");
  const TwoEnds ends;
  ends.client.delegate->echo();
  const NSString equal(ends.id.string());
  ASSERT_FALSE(equal.isIdenticalTo(ends.id));
  EXPECT_EQ(ends.server.listener->sendMessageSync(plainMessage(), equal, kLong), plainMessage());
  EXPECT_TRUE(ends.server.listener->isConnectionActive_internal(equal));
  for (const std::string& other : {ends.id.string() + " ", " " + ends.id.string(), ends.id.string().substr(1)}) {
    EXPECT_FALSE(ends.server.listener->sendMessage(plainMessage(), other)) << other;
  }
  ends.server.listener->close(equal);
  EXPECT_EQ(ends.server.entries(ends.id), kNoEntries);
}

TEST_P(ListenerSends, HandTheReplyToTheirHandler) {
  PROVES("listener.send.16", "the handler gets the client's reply");
  PROVES("listener.send.11", "the proxy gets the identifier, the message unchanged and the handler");
  const TwoEnds ends;
  ends.client.delegate->onMessage([](const NSDictionary&, const NSString&, const VeltoReplyHandler& reply) {
    reply({{"answer", 42}});
  });
  const ReplyProbe reply;
  EXPECT_TRUE(ends.server.listener->sendMessage(plainMessage(), ends.id, nullptr, reply.handler()));
  EXPECT_EQ(reply.wait(), (NSDictionary{{"answer", 42}}));
  EXPECT_EQ(ends.client.delegate->messages().front().message, plainMessage());
}

}  // namespace
}  // namespace velto::testing
