// The client's asynchronous send: what is looked at, what is written, what is handed to the proxy.

#include "tests/conformance/steps/ClientSteps.h"

namespace velto::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

class ClientSend : public ClientSteps {
 protected:
  static constexpr const char* kUnavailable =
      "log 0 VeltoConnection Connection is not available or connectionUUID is nil";
  const NSDictionary message{{"op", "greet"}, {"to", NSArray{"Ada", 2}}};
  const NSDictionary dated{{"when", NSDate::date()}};
  CountedReply reply;

  // The send is refused with code 2, one line and nothing else.
  void expectUnavailable() {
    NSError error;
    EXPECT_FALSE(client->sendMessage(message, &error, reply.handler()));
    expectError(error, 2, "Connection is not available");
    EXPECT_FALSE(client->sendMessage(message, nullptr, reply.handler()));
    EXPECT_THAT(journal().take(), ElementsAre(kUnavailable, kUnavailable));
    EXPECT_FALSE(reply.isHeld());
    EXPECT_THAT(reply.replies(), IsEmpty());
  }
};

TEST_F(ClientSend, WithoutAProxyIsRefused) {
  PROVES("client.send.1",
         "without a proxy a send logs its line at level 0, fails with code 2 \"Connection is not available\" and never "
         "calls its handler");
  lookUp();
  expectUnavailable();
}

TEST_F(ClientSend, WithoutAnIdentifierIsRefused) {
  PROVES("client.send.2",
         "before the identifier has come a send is refused in the same way, though the proxy is there");
  configure();
  expectUnavailable();
  EXPECT_THAT(peer().calls(), SizeIs(1)) << "the ping alone";
}

TEST_F(ClientSend, WithAnIdentifierButNoProxyIsRefused) {
  PROVES("client.send.3", "once the proxy is gone a send is refused, though the identifier is there");
  becomeReady("id");
  client->close();
  journal().take();
  expectUnavailable();
}

TEST_F(ClientSend, AsksForTheConnectionBeforeItLooksAtTheMessage) {
  PROVES("client.send.4", "the connection is asked for before the message is examined");
  configure();
  NSError error;
  EXPECT_FALSE(client->sendMessage(dated, &error));
  expectError(error, 2, "Connection is not available");
  EXPECT_THAT(journal().take(), ElementsAre(kUnavailable));
}

TEST_F(ClientSend, RefusesABadMessageWhileTypesAreStrict) {
  PROVES("client.send.5",
         "with strict types on a message that fails the check is logged at level 0 after the check's own lines, fails "
         "with code 3, is not sent, and its handler never called");
  PROVES("types.where.1", "a client checks what it sends while its strict types are on");
  becomeReady("id");
  NSError error;
  EXPECT_FALSE(client->sendMessage(dated, &error, reply.handler()));
  expectError(error, 3, "SendMessage failed message type check");
  EXPECT_THAT(
      journal().take(),
      ElementsAre("log 0 Failed Type Checking with the following object NSDate with ClassName NSDate",
                  "log 2 What is refused lies at when", "log 0 VeltoConnection SendMessage failed message type check"));
  EXPECT_FALSE(client->sendMessage(dated, nullptr, reply.handler()));
  EXPECT_THAT(peer().calls(), SizeIs(1)) << "the ping alone";
  EXPECT_FALSE(reply.isHeld());
  EXPECT_THAT(reply.replies(), IsEmpty());
}

TEST_F(ClientSend, SendsAnythingWhileTypesAreNotStrict) {
  PROVES("client.send.6", "with strict types off the message is not examined: it is sent whatever it holds");
  PROVES("types.where.2", "with strict types off nothing is checked");
  becomeReady("id");
  peer().deliver<&VeltoCommunicationMessageProtocol::setStrictMessageTypesRemote>(false);
  EXPECT_THAT(journal().take(), IsEmpty());
  EXPECT_TRUE(client->sendMessage(dated));
  EXPECT_TRUE(lastMessage()->arguments().at(1).isIdenticalTo(dated));
  EXPECT_TRUE(journal().beginningWith("log 0").empty());
}

TEST_F(ClientSend, TakesTheFlagFromTheListenerSilently) {
  PROVES(
      "types.flag.2",
      "setStrictMessageTypesRemote stores its flag, either way, and does nothing else: no line, no callback, no reply");
  becomeReady("id");
  for (const bool flag : {false, true, true, false}) {
    peer().deliver<&VeltoCommunicationMessageProtocol::setStrictMessageTypesRemote>(flag);
    EXPECT_THAT(journal().take(), IsEmpty());
    EXPECT_EQ(client->sendMessage(dated), !flag);
    journal().take();
  }
}

TEST_F(ClientSend, LogsTheMessageThenHandsItToTheProxy) {
  PROVES(
      "client.send.7",
      "a send logs \"Sending the VeltoConnection Message MESSAGE with the handle\" at level 2, then calls the proxy");
  becomeReady("id");
  EXPECT_TRUE(client->sendMessage(message));
  EXPECT_THAT(journal().take(), ElementsAre("log 2 Sending the VeltoConnection Message " +
                                                message.description().string() + " with the handle",
                                            "proxy#2 connectionID:withMessage:handler:"));
}

TEST_F(ClientSend, SendsIdentifierMessageAndHandler) {
  PROVES(
      "client.send.8",
      "what is sent is the client's identifier, the very message, not a copy, and the handler, which gets the reply");
  becomeReady("id");
  const NSMutableDictionary changing = NSMutableDictionary::dictionaryWithDictionary(message);
  EXPECT_TRUE(client->sendMessage(changing, nullptr, reply.handler()));
  const auto sent = lastMessage();
  ASSERT_THAT(sent->arguments(), SizeIs(2));
  EXPECT_EQ(sent->arguments()[0], NSObject("id"));
  EXPECT_TRUE(sent->arguments()[1].isIdenticalTo(changing));
  const NSDictionary answer{{"hello", "Ada"}};
  sent->answer(answer);
  ASSERT_THAT(reply.replies(), SizeIs(1));
  EXPECT_TRUE(reply.replies()[0].isIdenticalTo(answer));
}

TEST_F(ClientSend, LeavesTheOutPointerAloneOnSuccess) {
  PROVES("client.send.9", "a successful send writes nothing to its out-pointer");
  becomeReady("id");
  NSError error = platformError();
  EXPECT_TRUE(client->sendMessage(message, &error));
  EXPECT_EQ(error, platformError());
}

TEST_F(ClientSend, WithoutAHandlerStillSendsOne) {
  PROVES("client.send.10", "a send without a handler sends the empty one: the reply is silently ignored");
  becomeReady("id");
  EXPECT_TRUE(client->sendMessage(message));
  const auto sent = lastMessage();
  journal().take();
  ASSERT_TRUE(sent->hasReply());
  sent->answer(NSDictionary{{"to", "nobody"}});
  EXPECT_THAT(journal().take(), IsEmpty());
}

TEST_F(ClientSend, ANilMessageIsSent) {
  PROVES("client.send.11", "a nil message passes the check and is sent");
  becomeReady("id");
  EXPECT_TRUE(client->sendMessage(nil, nullptr, reply.handler()));
  EXPECT_TRUE(lastMessage()->arguments().at(1).isNil());
  EXPECT_THAT(journal().take(), ElementsAre("log 2 Sending the VeltoConnection Message (null) with the handle",
                                            "proxy#2 connectionID:withMessage:handler:"));
}

TEST_F(ClientSend, AsksForTheProxyAgainWhenItSends) {
  PROVES("client.send.12",
         "the proxy is read a second time for the call itself: one that has gone meanwhile swallows the message, and "
         "the send still succeeds");
  becomeReady("id");
  journal().observe([&](const std::string& line) {
    if (line.starts_with("log 2 Sending")) client->setListenerProxyObject(nullptr);
  });
  NSError error = platformError();
  EXPECT_TRUE(client->sendMessage(message, &error, reply.handler()));
  journal().observe({});
  EXPECT_EQ(error, platformError());
  EXPECT_THAT(peer().calls(), SizeIs(1)) << "the ping alone";
  EXPECT_FALSE(reply.isHeld());
}

TEST_F(ClientSend, AsksForTheIdentifierAgainWhenItSends) {
  PROVES("client.send.13", "the identifier that is sent is the client's at the moment of the call");
  becomeReady("id");
  journal().observe([&](const std::string& line) {
    if (line.starts_with("log 2 Sending")) client->connectionUUID("newer");
  });
  EXPECT_TRUE(client->sendMessage(message));
  journal().observe({});
  EXPECT_EQ(lastMessage()->arguments().at(0), NSObject("newer"));
}

TEST_F(ClientSend, SuccessOnlyMeansThatItWasHandedOver) {
  PROVES("client.send.14",
         "a failure on the way comes to the delegate; the send has succeeded, and its handler is not called");
  becomeReady("id");
  EXPECT_TRUE(client->sendMessage(message, nullptr, reply.handler()));
  lastMessage()->refuse(platformError());
  EXPECT_THAT(journal().beginningWith("delegate"), ElementsAre("delegate connectionError id 2 the platform failed"));
  EXPECT_THAT(reply.replies(), IsEmpty());
  EXPECT_FALSE(reply.isHeld());
}

TEST_F(ClientSend, TakesNoLock) {
  PROVES("client.send.15", "a send holds no lock while it calls the proxy: other threads come through");
  becomeReady("id");
  journal().observe([&](const std::string& line) {
    if (line != "proxy#2 connectionID:withMessage:handler:") return;
    journal().observe({});
    auto others = inBackground([&] {
      client->waitUntilReady(0);
      client->sendMessage(message);
      client->sendMessageSync(message, 0);
      client->connectionError(nil);
      client->close();
    });
    finish(others);
  });
  EXPECT_TRUE(client->sendMessage(message));
  EXPECT_EQ(client->listenerConnection(), nullptr);
}

}  // namespace
}  // namespace velto::testing
