// What a listener does with a client's message.

#include <set>

#include "platform/foundation/NSSynchronized.h"
#include "tests/conformance/ListenerFixture.h"

namespace velto::testing {
namespace {

constexpr const char* kSentLine = " handler sent to delegate";
constexpr const char* kCalledLine = " handler called by delegate";

class ListenerReceiving : public ListenerHere {
 protected:
  static void send(const BareClient& client, const NSString& id, const NSDictionary& message,
                   const VeltoReplyHandler& reply) {
    client.proxy->call<&VeltoCommunicationMessageProtocol::connectionID>(id, message, reply);
  }
};
INSTANTIATE_TEST_SUITE_P(, ListenerReceiving, kArrangementsHere, printArrangement);

TEST_P(ListenerReceiving, TakesAnyIdentifierAndAnyMessage) {
  PROVES("listener.receive.1",
         "a message is handed to the delegate with the identifier that the client stated, whatever it is");
  PROVES("listener.receive.2", "a received message is not type-checked");
  PROVES("listener.receive.13", "a nil message is handed over as it is");
  const ListenerEnd server(kName);
  server.delegate->echo();
  const auto client = bareClient();
  client->handshake();
  for (const NSString& id : {NSString("never issued"), NSString(""), NSString()}) {
    for (const NSDictionary& message : {messageWithDate(), NSDictionary()}) {
      const ReplyProbe reply;
      send(*client, id, message, reply.handler());
      EXPECT_EQ(reply.wait(), message);
      const Event event = server.delegate->messages().back();
      EXPECT_EQ(event.connectionID, id);
      EXPECT_EQ(event.message, message);
    }
  }
  EXPECT_TRUE(server.delegate->errors().empty());
  EXPECT_TRUE(client->errors.all().empty());
  EXPECT_EQ(server.listener->receivedConnections().count(), 1u);
}

TEST_P(ListenerReceiving, LogsBeforeTheDelegateAndAtEveryCallOfItsHandler) {
  PROVES("listener.receive.3",
         "a received message logs \"LABEL handler sent to delegate\" at level 2, before the delegate is called");
  PROVES("listener.receive.4",
         "every call of the delegate's handler logs \"LABEL handler called by delegate\" at level 2, with the label of "
         "its message");
  PROVES("listener.receive.5", "a label is the identifier, an underscore and a new UUID for every message");
  PROVES("listener.receive.6", "the reply of the delegate's handler reaches the client");
  const ListenerEnd server(kName);
  const auto client = bareClient();
  const NSString id = client->handshake();
  log.waitFor(2, "VeltoConnection Pinged VeltoListener");
  std::set<std::string> labels;
  std::atomic<int> done{0};
  server.delegate->onMessage([&](const NSDictionary& message, const NSString&, const VeltoReplyHandler& reply) {
    const Lines before = linesOfEnds();
    ASSERT_EQ(before.size(), 1u) << log.text();
    EXPECT_EQ(before[0].level, 2);
    EXPECT_TRUE(before[0].text.ends_with(kSentLine));
    const std::string label = labelOf(before[0].text);
    EXPECT_TRUE(isLabelOf(label, id)) << label;
    labels.insert(label);
    reply(message);
    EXPECT_EQ(log.count(2, label + kCalledLine), 1u);
    EXPECT_EQ(linesOfEnds().size(), 2u);
    ++done;
  });
  for (int number = 0; number < 3; ++number) {
    log.clear();
    const ReplyProbe reply;
    send(*client, id, {{"number", number}}, reply.handler());
    EXPECT_EQ(reply.wait(), (NSDictionary{{"number", number}}));
    ASSERT_TRUE(eventually([&] { return done == number + 1; }));
  }
  server.delegate->quiesce();
  EXPECT_EQ(labels.size(), 3u);
}

TEST_P(ListenerReceiving, PassesOnEveryCallOfTheHandler) {
  PROVES("listener.receive.7", "every call of the delegate's handler is passed on");
  PROVES("listener.receive.11", "receiving looks nothing up: it works for a connection in no table");
  const ListenerEnd server(kName);
  server.delegate->onMessage([](const NSDictionary& message, const NSString&, const VeltoReplyHandler& reply) {
    reply(message);
    reply({{"second", true}});
    reply(NSDictionary());
  });
  log.clear();
  std::vector<NSDictionary> replies;
  server.listener->connectionID("in no table", plainMessage(), [&](NSDictionary reply) { replies.push_back(reply); });
  EXPECT_EQ(replies, (std::vector<NSDictionary>{plainMessage(), {{"second", true}}, NSDictionary()}));
  const Lines lines = linesOfEnds();
  ASSERT_EQ(lines.size(), 4u) << log.text();
  const std::string label = labelOf(lines[0].text);
  EXPECT_TRUE(isLabelOf(label, "in no table"));
  EXPECT_EQ(lines[0], (LogCapture::Line{2, label + kSentLine}));
  for (int line = 1; line < 4; ++line)
    EXPECT_EQ(lines[static_cast<std::size_t>(line)], (LogCapture::Line{2, label + kCalledLine}));
  EXPECT_EQ(server.listener->connectionConditions().count(), 0u);
}

TEST_P(ListenerReceiving, WithoutAReplyHandlerStillGivesTheDelegateOne) {
  PROVES("listener.receive.8",
         "a message without a reply handler gives the delegate a handler that logs and does nothing else");
  const ListenerEnd server(kName);
  log.clear();
  server.listener->connectionID("somebody", plainMessage(), {});
  ASSERT_EQ(server.delegate->messages().size(), 1u);
  const VeltoReplyHandler handler = server.delegate->messages().front().reply;
  ASSERT_TRUE(handler);
  handler(plainMessage());
  ASSERT_EQ(linesOfEnds().size(), 2u);
  EXPECT_TRUE(linesOfEnds()[1].text.ends_with(kCalledLine));
}

TEST_P(ListenerReceiving, WithoutADelegateDropsTheMessage) {
  PROVES("listener.receive.9",
         "without a delegate a message logs its \"handler sent to delegate\" line and is dropped, its reply handler "
         "never called");
  const ListenerEnd server(kName);
  server.listener->setDelegate(nullptr);
  log.clear();
  const HandlerProbe direct;
  server.listener->connectionID("somebody", plainMessage(), direct.handler());
  EXPECT_TRUE(direct.isReleased());
  EXPECT_EQ(direct.calls(), 0u);
  ASSERT_EQ(linesOfEnds().size(), 1u);
  EXPECT_TRUE(linesOfEnds()[0].text.ends_with(kSentLine));
  const auto client = bareClient();
  const NSString id = client->handshake();
  const HandlerProbe overTheWire;
  send(*client, id, plainMessage(), overTheWire.handler());
  EXPECT_TRUE(eventually([&] { return overTheWire.isReleased(); }));
  EXPECT_EQ(overTheWire.calls(), 0u);
  EXPECT_TRUE(client->errors.all().empty());
  EXPECT_EQ(log.containing(2, kSentLine).size(), 2u);
  EXPECT_TRUE(log.containing(2, kCalledLine).empty());
}

TEST_P(ListenerReceiving, ADelegateThatNeverAnswersLeavesTheClientInPeace) {
  PROVES("listener.receive.12", "a delegate that never answers leaves the client without a reply and without an error");
  const ListenerEnd server(kName);
  const auto client = bareClient();
  const NSString id = client->handshake();
  server.delegate->onMessage([](const NSDictionary& message, const NSString&, const VeltoReplyHandler& reply) {
    if (message["answer"].boolValue()) reply(message);
  });
  const HandlerProbe unanswered;
  send(*client, id, {{"answer", false}}, unanswered.handler());
  const ReplyProbe reply;
  send(*client, id, {{"answer", true}}, reply.handler());
  EXPECT_EQ(reply.wait(), (NSDictionary{{"answer", true}}));
  EXPECT_EQ(unanswered.calls(), 0u);
  EXPECT_TRUE(client->errors.all().empty());
  EXPECT_TRUE(server.delegate->errors().empty());
}

TEST_P(ListenerReceiving, NeitherTakesNorHoldsALock) {
  PROVES("listener.receive.10", "receiving takes no lock");
  PROVES("listener.receive.14", "the delegate is called with no lock held");
  const ListenerEnd server(kName);
  bool ran = false;
  server.delegate->onMessage([&](const NSDictionary&, const NSString&, const VeltoReplyHandler&) {
    auto other = inBackground([&] {
      NSSynchronized lock(server.listener->receivedConnections());
      return true;
    });
    ran = finish(other);
  });
  {
    NSSynchronized lock(server.listener->connectionConditions());
    auto call = inBackground([&] {
      server.listener->connectionID("somebody", plainMessage(), {});
      return true;
    });
    EXPECT_TRUE(finish(call)) << "while the monitor is held elsewhere";
  }
  EXPECT_TRUE(ran);
  server.delegate->onMessage([&](const NSDictionary&, const NSString&, const VeltoReplyHandler& reply) {
    auto other = inBackground([&] {
      NSSynchronized lock(server.listener->connectionConditions());
      return true;
    });
    finish(other);
    reply(plainMessage());
  });
  const auto client = bareClient();
  const NSString id = client->handshake();
  const ReplyProbe reply;
  send(*client, id, plainMessage(), reply.handler());
  EXPECT_EQ(reply.wait(), plainMessage());
}

TEST_P(ListenerReceiving, HandsOverMessagesOfDifferentConnectionsSideBySide) {
  PROVES("listener.receive.15", "messages of different connections are handed over side by side");
  const ListenerEnd server(kName);
  Gate secondCame;
  server.delegate->onMessage([&](const NSDictionary& message, const NSString&, const VeltoReplyHandler& reply) {
    if (message["wait"].boolValue()) {
      secondCame.wait();
    } else {
      secondCame.open();
    }
    reply(message);
  });
  const auto first = bareClient();
  const auto second = bareClient();
  const NSString firstID = first->handshake();
  const NSString secondID = second->handshake();
  const ReplyProbe firstReply;
  send(*first, firstID, {{"wait", true}}, firstReply.handler());
  ASSERT_TRUE(server.delegate->waitForMessages(1));
  const ReplyProbe secondReply;
  send(*second, secondID, {{"wait", false}}, secondReply.handler());
  EXPECT_EQ(secondReply.wait(), (NSDictionary{{"wait", false}}));
  EXPECT_EQ(firstReply.wait(), (NSDictionary{{"wait", true}}));
  server.delegate->quiesce();
}

}  // namespace
}  // namespace velto::testing
