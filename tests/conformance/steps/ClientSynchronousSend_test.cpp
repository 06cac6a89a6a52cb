// The client's synchronous send: which times it takes, what it waits for, what ends the wait.

#include <limits>

#include "VeltoIPC/VeltoConstants.h"
#include "tests/conformance/steps/ClientSteps.h"

namespace velto::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

class ClientSynchronousSend : public ClientSteps {
 protected:
  struct Result {
    NSDictionary reply;
    NSError error;
  };

  // Sends on a thread of its own; returns once that thread sleeps.
  std::future<Result> sendAndSleep(const NSDictionary& text, double timeout) {
    auto watch = std::make_shared<SleepWatch>();
    auto send = inBackground([this, watch, text, timeout] {
      const SleepWatch::Guard guard(*watch);
      Result result;
      result.reply = client->sendMessageSync(text, timeout, &result.error);
      return result;
    });
    watch->waitUntilAsleep();
    return send;
  }

  // Answers each message from inside the call that hands it over.
  void answerAtOnce(const NSDictionary& with) {
    journal().observe([this, with](const std::string& line) {
      if (line == kHandedOver) lastMessage()->answer(with);
    });
  }

  static constexpr const char* kHandedOver = "proxy#2 connectionID:withMessage:handler:";
  const NSDictionary message{{"op", "ask"}};
  const NSDictionary answer{{"the", "answer"}};
};

TEST_F(ClientSynchronousSend, RefusesNegativeTimesSilently) {
  PROVES("client.sync.1",
         "a negative time-out other than VKT_IPC_TIME_FOREVER fails with code 6 \"Timed out value is not valid\": "
         "nothing is sent, nothing logged");
  becomeReady("id");
  for (const double timeout : {-0.5, -0.999999, -1.000001, -2.0, -std::numeric_limits<double>::infinity()}) {
    NSError error;
    EXPECT_TRUE(client->sendMessageSync(message, timeout, &error).isNil()) << timeout;
    expectError(error, 6, "Timed out value is not valid");
    EXPECT_TRUE(client->sendMessageSync(message, timeout).isNil()) << timeout;
  }
  EXPECT_THAT(journal().take(), IsEmpty());
}

TEST_F(ClientSynchronousSend, LooksAtTheTimeBeforeAnythingElse) {
  PROVES("client.sync.2", "the time-out is judged before connection and message are");
  lookUp();
  NSError error;
  EXPECT_TRUE(client->sendMessageSync(NSDictionary{{"when", NSDate::date()}}, -0.5, &error).isNil());
  expectError(error, 6, "Timed out value is not valid");
  EXPECT_THAT(journal().take(), IsEmpty());
}

TEST_F(ClientSynchronousSend, SendsLikeTheAsynchronousSend) {
  PROVES("client.sync.3", "it sends as the asynchronous send does: the same line, the same call, a handler of its own");
  becomeReady("id");
  auto send = sendAndSleep(message, 600);
  EXPECT_THAT(journal().take(), ElementsAre("log 2 Sending the VeltoConnection Message " +
                                                message.description().string() + " with the handle",
                                            kHandedOver));
  const auto sent = lastMessage();
  EXPECT_EQ(sent->arguments(), (std::vector<NSObject>{"id", message}));
  ASSERT_TRUE(sent->hasReply());
  sent->answer(answer);
  EXPECT_EQ(finish(send).reply, answer);
  EXPECT_THAT(journal().take(), IsEmpty()) << "neither the reply nor the end of the wait is logged";
}

TEST_F(ClientSynchronousSend, FailsAsTheAsynchronousSendDoes) {
  PROVES("client.sync.4", "without a connection, or with a bad message, it fails at once like the asynchronous send");
  PROVES("types.where.3", "a synchronous send checks its message like an asynchronous one");
  configure();
  NSError error;
  EXPECT_TRUE(client->sendMessageSync(message, VKT_IPC_TIME_FOREVER, &error).isNil());
  expectError(error, 2, "Connection is not available");
  peer().deliver<&VeltoCommunicationMessageProtocol::connectionUUID>("id");
  error = nil;
  EXPECT_TRUE(client->sendMessageSync(NSDictionary{{"when", NSDate::date()}}, VKT_IPC_TIME_FOREVER, &error).isNil());
  expectError(error, 3, "SendMessage failed message type check");
  EXPECT_THAT(peer().calls(), SizeIs(1)) << "the ping alone";
  EXPECT_THAT(journal().beginningWith("log 0"),
              ElementsAre("log 0 VeltoConnection Connection is not available or connectionUUID is nil",
                          "log 0 Failed Type Checking with the following object NSDate with ClassName NSDate",
                          "log 0 VeltoConnection SendMessage failed message type check"));
}

TEST_F(ClientSynchronousSend, ReturnsTheReplyThatEndsItsSleep) {
  PROVES("client.sync.5",
         "a reply that comes in time ends the wait and is returned; the out-pointer is not written to");
  becomeReady("id");
  for (const double timeout : {600.0, VKT_IPC_TIME_FOREVER, std::numeric_limits<double>::infinity()}) {
    auto send = sendAndSleep(message, timeout);
    lastMessage()->answer(answer);
    const Result result = finish(send);
    EXPECT_TRUE(result.reply.isIdenticalTo(answer)) << timeout;
    EXPECT_TRUE(result.error.isNil()) << timeout;
  }
}

TEST_F(ClientSynchronousSend, DoesNotLoseAReplyThatIsFasterThanItself) {
  PROVES("client.sync.6", "a reply that comes while the message is still being handed over is not lost");
  becomeReady("id");
  answerAtOnce(answer);
  for (const double timeout : {600.0, VKT_IPC_TIME_FOREVER}) {
    NSError error = platformError();
    EXPECT_TRUE(client->sendMessageSync(message, timeout, &error).isIdenticalTo(answer)) << timeout;
    EXPECT_EQ(error, platformError()) << "not written to";
  }
}

TEST_F(ClientSynchronousSend, ZeroSendsAndLooksOnce) {
  PROVES("client.sync.7",
         "with time-out 0 the message is sent, and without a reply already there it fails with code 6");
  becomeReady("id");
  NSError error;
  EXPECT_TRUE(client->sendMessageSync(message, 0, &error).isNil());
  expectError(error, 6, "Timed out waiting");
  EXPECT_THAT(peer().calls(), SizeIs(2));
}

TEST_F(ClientSynchronousSend, ZeroTakesAReplyThatIsThereAlready) {
  PROVES("client.sync.8", "with time-out 0 a reply that is there already is returned without an error");
  becomeReady("id");
  answerAtOnce(answer);
  NSError error;
  EXPECT_TRUE(client->sendMessageSync(message, 0, &error).isIdenticalTo(answer));
  EXPECT_TRUE(error.isNil());
}

TEST_F(ClientSynchronousSend, NotANumberIsATimeThatIsOver) {
  PROVES("client.sync.9", "not-a-number is accepted as a time-out, and is no wait");
  becomeReady("id");
  NSError error;
  EXPECT_TRUE(client->sendMessageSync(message, std::numeric_limits<double>::quiet_NaN(), &error).isNil());
  expectError(error, 6, "Timed out waiting");
  EXPECT_THAT(peer().calls(), SizeIs(2));
}

TEST_F(ClientSynchronousSend, RunsOutOfTime) {
  PROVES("client.sync.10", "without a reply by the deadline it returns nil with code 6 \"Timed out waiting\"");
  becomeReady("id");
  NSError error;
  EXPECT_TRUE(client->sendMessageSync(message, 0.02, &error).isNil());
  expectError(error, 6, "Timed out waiting");
  EXPECT_TRUE(client->sendMessageSync(message, 0.001).isNil()) << "and without an out-pointer";
  EXPECT_THAT(journal().beginningWith("delegate"), IsEmpty());
  EXPECT_THAT(journal().beginningWith("log 0"), IsEmpty());
}

TEST_F(ClientSynchronousSend, DropsALateReply) {
  PROVES("client.sync.11",
         "a reply that comes after the call has returned goes nowhere: no line, no callback, no harm");
  becomeReady("id");
  EXPECT_TRUE(client->sendMessageSync(message, 0).isNil());
  journal().take();
  lastMessage()->answerAndKeep(answer);
  lastMessage()->answer(nil);
  EXPECT_THAT(journal().take(), IsEmpty());
}

TEST_F(ClientSynchronousSend, ALateReplyMayOutliveTheClient) {
  PROVES("client.sync.12", "a late reply's handler stands on its own: the client may be gone");
  becomeReady("id");
  EXPECT_TRUE(client->sendMessageSync(message, 0).isNil());
  const auto sent = lastMessage();
  letGoOfClient();
  journal().take();
  sent->answer(answer);
  EXPECT_THAT(journal().take(), IsEmpty());
}

TEST_F(ClientSynchronousSend, ANilReplyIsAReply) {
  PROVES("client.sync.13", "nil is a reply like any other: it ends the wait, and there is no error");
  becomeReady("id");
  auto send = sendAndSleep(message, VKT_IPC_TIME_FOREVER);
  lastMessage()->answer(nil);
  const Result result = finish(send);
  EXPECT_TRUE(result.reply.isNil());
  EXPECT_TRUE(result.error.isNil());
}

TEST_F(ClientSynchronousSend, CloseEndsTheWait) {
  PROVES("client.sync.14", "close ends every wait, which returns nil with code 6 \"Timed out waiting\"");
  becomeReady("id");
  auto forever = sendAndSleep(message, VKT_IPC_TIME_FOREVER);
  auto bounded = sendAndSleep(message, 600);
  client->close();
  for (auto* send : {&forever, &bounded}) {
    const Result result = finish(*send);
    EXPECT_TRUE(result.reply.isNil());
    expectError(result.error, 6, "Timed out waiting");
  }
}

TEST_F(ClientSynchronousSend, CloseWhileTheMessageIsHandedOverEndsTheCall) {
  PROVES("client.sync.15",
         "closed while the message is handed over, it does not wait for what nobody can wake it from");
  becomeReady("id");
  journal().observe([this](const std::string& line) {
    if (line == kHandedOver) client->close();
  });
  NSError error;
  EXPECT_TRUE(client->sendMessageSync(message, VKT_IPC_TIME_FOREVER, &error).isNil());
  expectError(error, 6, "Timed out waiting");
}

TEST_F(ClientSynchronousSend, InvalidationEndsTheWait) {
  PROVES("client.sync.16", "the end of the connection ends every wait, since the client then closes itself");
  becomeReady("id");
  auto send = sendAndSleep(message, VKT_IPC_TIME_FOREVER);
  peer().playInvalidation();
  expectError(finish(send).error, 6, "Timed out waiting");
}

TEST_F(ClientSynchronousSend, NothingElseEndsTheWait) {
  PROVES("client.sync.17", "neither an interruption nor a failed call nor another reply ends the wait");
  becomeReady("id");
  auto send = sendAndSleep(message, VKT_IPC_TIME_FOREVER);
  const auto first = lastMessage();
  peer().playInterruption();
  peer().playProxyError(platformError());
  link().playInvalidation();
  client->sendMessage(message);
  lastMessage()->answer(NSDictionary{{"not", "yours"}});
  client->connectionUUID("id");
  EXPECT_NE(send.wait_for(std::chrono::seconds(0)), std::future_status::ready);
  first->answer(answer);
  EXPECT_EQ(finish(send).reply, answer);
}

TEST_F(ClientSynchronousSend, ConcurrentSendsGetTheirOwnReplies) {
  PROVES("client.sync.18", "sends at the same time wait each for its own reply, in whatever order these come");
  becomeReady("id");
  auto first = sendAndSleep(NSDictionary{{"n", 1}}, 600);
  const auto firstCall = lastMessage();
  auto second = sendAndSleep(NSDictionary{{"n", 2}}, VKT_IPC_TIME_FOREVER);
  const auto secondCall = lastMessage();
  secondCall->answer(NSDictionary{{"n", 20}});
  EXPECT_EQ(finish(second).reply, (NSDictionary{{"n", 20}}));
  EXPECT_NE(first.wait_for(std::chrono::seconds(0)), std::future_status::ready);
  firstCall->answer(NSDictionary{{"n", 10}});
  EXPECT_EQ(finish(first).reply, (NSDictionary{{"n", 10}}));
}

TEST_F(ClientSynchronousSend, ReadsForeverAtEachCall) {
  PROVES("client.sync.19", "VKT_IPC_TIME_FOREVER is -1 at first, can be changed, and is read at each call");
  becomeReady("id");
  EXPECT_EQ(VKT_IPC_TIME_FOREVER, -1.0);
  VKT_IPC_TIME_FOREVER = -7.0;
  NSError error;
  EXPECT_TRUE(client->sendMessageSync(message, -1.0, &error).isNil());
  auto send = sendAndSleep(message, -7.0);
  lastMessage()->answer(answer);
  const Result result = finish(send);
  VKT_IPC_TIME_FOREVER = -1.0;
  expectError(error, 6, "Timed out value is not valid");
  EXPECT_EQ(result.reply, answer);
}

TEST_F(ClientSynchronousSend, KnowsNoKeyButItsOwn) {
  PROVES("client.sync.20",
         "messageValid answers false for a key that no waiting send has, and for every key once closed");
  becomeReady("id");
  EXPECT_FALSE(client->messageValid(NSUUID::UUID()));
  auto send = sendAndSleep(message, VKT_IPC_TIME_FOREVER);
  EXPECT_FALSE(client->messageValid(NSUUID::UUID()));
  EXPECT_FALSE(client->messageValid(nil));
  client->close();
  finish(send);
  EXPECT_FALSE(client->messageValid(NSUUID::UUID()));
}

TEST_F(ClientSynchronousSend, RepliesAndCloseNeverDeadlock) {
  PROVES("client.sync.21",
         "a reply and a close at the same moment end the wait one way or the other, and never lock up");
  for (int round = 0; round < 50; ++round) {
    const auto each = VeltoConnection::initWithServiceName("service", nullptr);
    platform.connection(platform.connectionCount()).lastCall(kLookup)->answer(endpoint);
    ConnectionDouble& connection = platform.connection(platform.connectionCount());
    connection.deliver<&VeltoCommunicationMessageProtocol::connectionUUID>("id");
    journal().take();
    auto send = inBackground([&] { return each->sendMessageSync(message, VKT_IPC_TIME_FOREVER); });
    const bool handedOver = eventually([&] { return connection.calls().size() == 2; });
    ASSERT_TRUE(handedOver);
    const auto call = connection.lastCall(kMessage);
    auto reply = inBackground([&] { call->answer(answer); });
    each->close();
    const NSDictionary result = finish(send);
    EXPECT_TRUE(result.isNil() || result == answer);
    finish(reply);
  }
}

TEST_F(ClientSynchronousSend, HoldsNoLockWhileItWaits) {
  PROVES("client.sync.22", "a send that waits keeps nobody else out: readiness, sends, messages and errors go on");
  becomeReady("id");
  auto send = sendAndSleep(message, VKT_IPC_TIME_FOREVER);
  const auto waiting = lastMessage();
  auto others = inBackground([&] {
    EXPECT_TRUE(client->waitUntilReady(0));
    EXPECT_TRUE(client->sendMessage(message));
    EXPECT_TRUE(client->sendMessageSync(message, 0).isNil());
    client->connectionError(nil);
    client->connectionID("id", message, {});
  });
  finish(others);
  EXPECT_THAT(delegate->recorded.messages(), SizeIs(1));
  waiting->answer(answer);
  EXPECT_EQ(finish(send).reply, answer);
}

}  // namespace
}  // namespace velto::testing
