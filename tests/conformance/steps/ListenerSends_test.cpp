// The steps of a listener's sends, and everything that can happen between them.

#include "platform/foundation/NSSynchronized.h"
#include "tests/conformance/steps/ListenerSteps.h"
#include "tests/support/Waiting.h"

namespace velto::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

using ListenerSendSteps = ListenerSteps;

TEST_F(ListenerSendSteps, AMessageIsHandedToTheProxyAndThatIsAll) {
  PROVES("listener.send.10", "a send that succeeds logs nothing");
  PROVES("listener.send.11", "the proxy gets the identifier, the message unchanged and the handler");
  PROVES("listener.send.18", "a send returns true");
  start();
  const auto client = accept();
  std::vector<NSDictionary> replies;
  EXPECT_TRUE(listener->sendMessage(kHello, client.id, nullptr, [&](NSDictionary reply) { replies.push_back(reply); }));
  EXPECT_THAT(journal().take(), ElementsAre(std::string("proxy#2 ") + kMessage));
  const auto call = client.connection->lastCall(kMessage);
  ASSERT_EQ(call->arguments().size(), 2u);
  EXPECT_EQ(call->arguments()[0], client.id);
  EXPECT_TRUE(call->arguments()[1].isIdenticalTo(kHello));
  call->answer(NSDictionary{{"answer", 1}});
  EXPECT_THAT(replies, ElementsAre(NSDictionary{{"answer", 1}}));
  EXPECT_THAT(journal().take(), IsEmpty());
}

TEST_F(ListenerSendSteps, AMessageWithoutAHandlerCarriesOneThatDoesNothing) {
  PROVES("listener.send.12",
         "a send without a handler carries one that does nothing, and the client's reply is discarded");
  start();
  const auto client = accept();
  EXPECT_TRUE(listener->sendMessage(kHello, client.id));
  const auto call = client.connection->lastCall(kMessage);
  EXPECT_TRUE(call->hasReply());
  journal().take();
  call->answer(kHello);
  EXPECT_THAT(journal().take(), IsEmpty());
  EXPECT_THAT(delegate->recorded.errors(), IsEmpty());
}

TEST_F(ListenerSendSteps, AMessageThatCannotBeSentReachesNoProxy) {
  PROVES("listener.send.1",
         "a send to an unknown identifier logs \"VeltoIPCListener Connection is not available\" at level 0 and fails "
         "with code 2 \"Connection is not available\"");
  PROVES("listener.send.8",
         "with strict types a message that fails the check logs the check's lines, then \"VeltoIPCListener SendMessage "
         "failed message type check\" at level 0, and fails with code 3");
  start();
  const auto client = accept();
  EXPECT_FALSE(listener->sendMessage(kHello, "unknown"));
  EXPECT_THAT(journal().take(), ElementsAre("log 0 VeltoIPCListener Connection is not available"));
  EXPECT_FALSE(listener->sendMessage({{"when", NSDate::date()}}, client.id));
  EXPECT_THAT(journal().take(),
              ElementsAre("log 0 Failed Type Checking with the following object NSDate with ClassName NSDate",
                          "log 2 What is refused lies at when",
                          "log 0 VeltoIPCListener SendMessage failed message type check"));
  EXPECT_EQ(client.connection->calls().size(), 2u) << "flag and identifier only";
}

TEST_F(ListenerSendSteps, ASynchronousSendIsRegisteredBeforeTheProxyHasTheMessage) {
  PROVES("listener.sync.9", "the wait condition is registered in the client's array before the message is sent");
  PROVES("listener.sync.12", "a wait condition is removed after the reply");
  PROVES("listener.sync.19", "a reply that came before the wait began is returned, with a time-out of zero too");
  start();
  const auto client = accept();
  std::size_t registered = 0;
  const auto outcome = sendSync(client.id, 0.0, [&](RecordedCall& call) {
    registered = waiting(client.id);
    call.answer(kHello);
  });
  EXPECT_EQ(registered, 1u);
  EXPECT_EQ(outcome.reply, kHello);
  EXPECT_TRUE(outcome.error.isNil());
  EXPECT_EQ(waiting(client.id), 0u);
  EXPECT_THAT(journal().take(), ElementsAre(std::string("proxy#2 ") + kMessage));
}

TEST_F(ListenerSendSteps, ACloseBeforeTheWaitEndsItAtOnce) {
  PROVES("listener.sync.17",
         "a connection that is closed before the wait begins ends it at once, without a deadline too");
  start();
  for (const double timeout : {VKT_IPC_TIME_FOREVER, 1e9}) {
    const auto client = accept();
    const auto outcome = sendSync(client.id, timeout, [&](RecordedCall&) { listener->close(client.id); });
    EXPECT_TRUE(outcome.reply.isNil());
    expectError(outcome.error, 6, "Timed out waiting");
    EXPECT_EQ(tables(client.id), "");
  }
}

TEST_F(ListenerSendSteps, AReplyThatIsThereOutweighsTheClose) {
  PROVES("listener.sync.18",
         "a reply that is there is returned without an error, even when the connection has been closed");
  start();
  for (const double timeout : {VKT_IPC_TIME_FOREVER, 1e9, 0.0}) {
    const auto client = accept();
    const auto outcome = sendSync(client.id, timeout, [&](RecordedCall& call) {
      call.answer(kHello);
      listener->close(client.id);
    });
    EXPECT_EQ(outcome.reply, kHello);
    EXPECT_TRUE(outcome.error.isNil());
  }
}

TEST_F(ListenerSendSteps, TheLastOfSeveralRepliesIsReturned) {
  PROVES("listener.sync.20", "of several replies that came the last one is returned");
  start();
  const auto client = accept();
  const auto outcome = sendSync(client.id, VKT_IPC_TIME_FOREVER, [&](RecordedCall& call) {
    call.answerAndKeep(kHello);
    call.answerAndKeep(NSDictionary{{"number", 2}});
    call.answer(NSDictionary{{"number", 3}});
  });
  EXPECT_EQ(outcome.reply, (NSDictionary{{"number", 3}}));
  EXPECT_TRUE(outcome.error.isNil());
}

TEST_F(ListenerSendSteps, ANilReplyIsAReply) {
  PROVES("listener.sync.21", "a nil reply is a reply: the result is nil without an error");
  start();
  const auto client = accept();
  const auto outcome =
      sendSync(client.id, VKT_IPC_TIME_FOREVER, [&](RecordedCall& call) { call.answer(NSDictionary()); });
  EXPECT_TRUE(outcome.reply.isNil());
  EXPECT_TRUE(outcome.error.isNil());
}

TEST_F(ListenerSendSteps, TheReplyHandlerNeedsNoMonitor) {
  PROVES("listener.order.1",
         "the reply handler of a synchronous send needs no monitor: it runs while another thread holds it");
  start();
  const auto client = accept();
  const auto outcome = sendSync(client.id, VKT_IPC_TIME_FOREVER, [&](RecordedCall& call) {
    NSSynchronized lock(listener->connectionConditions());
    auto replying = inBackground([&] {
      call.answer(kHello);
      return true;
    });
    EXPECT_TRUE(finish(replying));
  });
  EXPECT_EQ(outcome.reply, kHello);
}

TEST_F(ListenerSendSteps, ALateReplyGoesNowhere) {
  PROVES("listener.sync.16", "a reply that comes too late has no effect and logs nothing at the sender");
  start();
  const auto client = accept();
  const auto outcome = sendSync(client.id, 0.0, [](RecordedCall&) {});
  EXPECT_TRUE(outcome.reply.isNil());
  expectError(outcome.error, 6, "Timed out waiting");
  journal().take();
  const auto call = client.connection->lastCall(kMessage);
  call->answerAndKeep(kHello);
  EXPECT_THAT(journal().take(), IsEmpty());
  EXPECT_EQ(waiting(client.id), 0u);
  listener->close(client.id);
  journal().take();
  call->answer(kHello);
  EXPECT_THAT(journal().take(), IsEmpty());
  EXPECT_TRUE(outcome.reply.isNil());
}

TEST_F(ListenerSendSteps, AnsweredClosedAndOutOfTimeAtOnceBothEndsReturnTheReply) {
  PROVES("differences.sync.3",
         "answered, closed and out of time all at once: both ends return the reply without an error");
  start();
  const auto accepted = accept();
  const auto ofListener = sendSync(accepted.id, 0.0, [&](RecordedCall& call) {
    call.answer(kHello);
    listener->close(accepted.id);
  });
  EXPECT_EQ(ofListener.reply, kHello);
  EXPECT_TRUE(ofListener.error.isNil());
  // connection#3 is the client's link, connection#4 its connection to the listener.
  const auto client = VeltoConnection::initWithServiceName("name", delegate);
  platform.connection(3).lastCall("findListenerEndpointForName:handle:")->answer(makeEndpoint());
  auto& connection = platform.connection(4);
  connection.deliver<&VeltoCommunicationMessageProtocol::connectionUUID>("id");
  journal().observe([&](const std::string& line) {
    if (!line.starts_with("proxy#") || !line.ends_with(kMessage)) return;
    connection.lastCall(kMessage)->answer(kHello);
    client->close();
  });
  NSError error;
  EXPECT_EQ(client->sendMessageSync(kHello, 0.0, &error), kHello);
  EXPECT_TRUE(error.isNil());
  journal().observe({});
}

TEST_F(ListenerSendSteps, ACloseBetweenSendingAndRegisteringEndsAClientsSendToo) {
  PROVES("differences.sync.1",
         "a synchronous send is registered at the listener before the message is sent; at the client a close between "
         "sending and registering ends it too");
  const auto client = VeltoConnection::initWithServiceName("name", delegate);
  platform.connection(1).lastCall("findListenerEndpointForName:handle:")->answer(makeEndpoint());
  platform.connection(2).deliver<&VeltoCommunicationMessageProtocol::connectionUUID>("id");
  journal().observe([&](const std::string& line) {
    if (line.starts_with("proxy#") && line.ends_with(kMessage)) client->close();
  });
  NSError error;
  EXPECT_TRUE(client->sendMessageSync(kHello, VKT_IPC_TIME_FOREVER, &error).isNil());
  expectError(error, 6, "Timed out waiting");
  journal().observe({});
}

}  // namespace
}  // namespace velto::testing
