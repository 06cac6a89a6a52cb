// Sends of the client that wait for their reply, and what ends the wait.

#include <cmath>

#include "tests/support/LibraryTest.h"

namespace velto::testing {
namespace {

struct Outcome {
  NSDictionary reply;
  NSError error;
};

using ClientSynchronousSends = LibraryTest;

// A client's synchronous send, in the background.
std::future<Outcome> sendInBackground(const std::shared_ptr<VeltoConnection>& connection, const NSDictionary& message,
                                      double timeout) {
  return inBackground([=] {
    Outcome outcome;
    outcome.reply = connection->sendMessageSync(message, timeout, &outcome.error);
    return outcome;
  });
}

TEST_F(ClientSynchronousSends, ASynchronousSendReturnsTheReply) {
  Pair pair;
  pair.server.delegate->onMessage([](const NSDictionary& message, const NSString&, const VeltoReplyHandler& reply) {
    reply({{"echo", message}});
  });
  NSError error;
  EXPECT_EQ(pair.client.connection->sendMessageSync(kHelloAndNumber, 20.0, &error),
            NSDictionary({{"echo", kHelloAndNumber}}));
  EXPECT_TRUE(error.isNil());
  const Event received = pair.server.delegate->messages().at(0);
  EXPECT_EQ(received.message, kHelloAndNumber);
  EXPECT_EQ(received.connectionID, pair.id);
  EXPECT_EQ(log.count(2, "Sending the VeltoConnection Message " + kHelloAndNumber.description().string() +
                             " with the handle"),
            1u)
      << log.text();
}

TEST_F(ClientSynchronousSends, ANilReplyEndsTheWaitWithoutError) {
  Pair pair;
  pair.server.delegate->onMessage(
      [](const NSDictionary&, const NSString&, const VeltoReplyHandler& reply) { reply(nil); });
  NSError error;
  EXPECT_TRUE(pair.client.connection->sendMessageSync(kHelloAndNumber, 20.0, &error).isNil());
  EXPECT_TRUE(error.isNil()) << error.description().view();
}

TEST_F(ClientSynchronousSends, ANegativeTimeOutIsNotValidAndSendsNothing) {
  Pair pair;
  pair.server.delegate->echo();
  clearLogOfHandshake();
  for (const double timeout : {-0.5, -1.5, -1e300, -HUGE_VAL}) {
    NSError error;
    EXPECT_TRUE(pair.client.connection->sendMessageSync(kHelloAndNumber, timeout, &error).isNil());
    expectError(error, 6, "Timed out value is not valid");
    EXPECT_TRUE(pair.client.connection->sendMessageSync(kHelloAndNumber, timeout).isNil());
  }
  EXPECT_TRUE(log.lines().empty()) << log.text();
  pair.roundTrip();
  EXPECT_EQ(pair.server.delegate->messages().size(), 1u) << "only the round trip";
}

TEST_F(ClientSynchronousSends, ForEverWaitsForTheReply) {
  Pair pair;
  auto call = sendInBackground(pair.client.connection, kHelloAndNumber, VKT_IPC_TIME_FOREVER);
  pair.server.delegate->waitForMessages(1);
  EXPECT_EQ(call.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout) << "it did not wait";
  pair.server.delegate->messages().at(0).reply({{"at", "last"}});
  const Outcome outcome = finish(call);
  EXPECT_EQ(outcome.reply, NSDictionary({{"at", "last"}}));
  EXPECT_TRUE(outcome.error.isNil());
}

TEST_F(ClientSynchronousSends, ForEverIsReadAtEachCall) {
  Pair pair;
  pair.server.delegate->echo();
  const double former = VKT_IPC_TIME_FOREVER;
  EXPECT_EQ(former, -1.0);
  VKT_IPC_TIME_FOREVER = -7.0;
  EXPECT_EQ(pair.client.connection->sendMessageSync(kHelloAndNumber, -7.0), kHelloAndNumber);
  NSError error;
  EXPECT_TRUE(pair.client.connection->sendMessageSync(kHelloAndNumber, -1.0, &error).isNil());
  expectError(error, 6, "Timed out value is not valid");
  VKT_IPC_TIME_FOREVER = former;
}

TEST_F(ClientSynchronousSends, ZeroSendsTheMessageAndReturnsAtOnce) {
  Pair pair;
  NSError error;
  EXPECT_TRUE(pair.client.connection->sendMessageSync(kHelloAndNumber, 0.0, &error).isNil());
  expectError(error, 6, "Timed out waiting");
  EXPECT_TRUE(pair.client.connection->sendMessageSync(kHelloAndNumber, std::nan(""), &error).isNil());
  expectError(error, 6, "Timed out waiting");
  EXPECT_TRUE(pair.server.delegate->waitForMessages(2));
}

TEST_F(ClientSynchronousSends, ZeroReturnsTheReplyOnlyIfThatWasFaster) {
  Pair pair;
  pair.server.delegate->echo();
  for (int round = 0; round < 200; ++round) {
    const NSDictionary message{{"round", round}};
    NSError error;
    const NSDictionary reply = pair.client.connection->sendMessageSync(message, 0.0, &error);
    if (reply.isNil()) {
      expectError(error, 6, "Timed out waiting");
    } else {
      EXPECT_EQ(reply, message);
    }
  }
  EXPECT_TRUE(pair.server.delegate->waitForMessages(200));
}

TEST_F(ClientSynchronousSends, ATimeOutLastsAsLongAsItSays) {
  Pair pair;
  const auto start = std::chrono::steady_clock::now();
  NSError error;
  EXPECT_TRUE(pair.client.connection->sendMessageSync(kHelloAndNumber, 0.25, &error).isNil());
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(250));
  expectError(error, 6, "Timed out waiting");
}

TEST_F(ClientSynchronousSends, AReplyAfterTheTimeOutIsDiscarded) {
  Pair pair;
  NSError error;
  EXPECT_TRUE(pair.client.connection->sendMessageSync({{"first", true}}, 0.0, &error).isNil());
  expectError(error, 6, "Timed out waiting");
  pair.server.delegate->waitForMessages(1);
  pair.server.delegate->messages().at(0).reply({{"too", "late"}});
  pair.server.delegate->echo();
  pair.roundTrip();
  EXPECT_TRUE(pair.client.delegate->errors().empty());
  EXPECT_TRUE(pair.client.delegate->messages().empty());
}

TEST_F(ClientSynchronousSends, CloseEndsASynchronousWait) {
  Pair pair;
  auto endless = sendInBackground(pair.client.connection, kHelloAndNumber, VKT_IPC_TIME_FOREVER);
  auto bounded = sendInBackground(pair.client.connection, kHelloAndNumber, 3600.0);
  pair.server.delegate->waitForMessages(2);
  pair.client.connection->close();
  for (auto* call : {&endless, &bounded}) {
    const Outcome outcome = finish(*call);
    EXPECT_TRUE(outcome.reply.isNil());
    expectError(outcome.error, 6, "Timed out waiting");
  }
}

TEST_F(ClientSynchronousSends, CloseAtAnyMomentOfASynchronousSendEndsIt) {
  ListenerEnd server("org.velto.test.moment");
  for (int round = 0; round < 30; ++round) {
    ClientEnd client("org.velto.test.moment");
    client.ready();
    const std::size_t before = server.delegate->messages().size();
    auto call = sendInBackground(client.connection, kHelloAndNumber, VKT_IPC_TIME_FOREVER);
    // Rounds differ in how far the send has come: perhaps not begun, or waiting.
    if (round % 2 != 0) server.delegate->waitForMessages(before + 1);
    client.connection->close();
    const Outcome outcome = finish(call);
    EXPECT_TRUE(outcome.reply.isNil());
    // Before the send had begun, the connection was not there any more.
    EXPECT_TRUE(outcome.error.code() == 6 || outcome.error.code() == 2) << outcome.error.description().view();
  }
}

TEST_F(ClientSynchronousSends, TwoSynchronousSendsGetTheirOwnReplies) {
  Pair pair;
  auto first = sendInBackground(pair.client.connection, {{"which", 1}}, 20.0);
  pair.server.delegate->waitForMessages(1);
  auto second = sendInBackground(pair.client.connection, {{"which", 2}}, 20.0);
  pair.server.delegate->waitForMessages(2);
  // In the other order.
  const auto messages = pair.server.delegate->messages();
  messages.at(1).reply({{"for", messages.at(1).message["which"]}});
  EXPECT_EQ(finish(second).reply, NSDictionary({{"for", 2}}));
  messages.at(0).reply({{"for", messages.at(0).message["which"]}});
  EXPECT_EQ(finish(first).reply, NSDictionary({{"for", 1}}));
}

}  // namespace
}  // namespace velto::testing
