// Sends of the listener that wait for their reply, and what ends the wait.

#include <atomic>
#include <cmath>
#include <thread>

#include "platform/foundation/NSSynchronized.h"
#include "tests/support/LibraryTest.h"

namespace velto::testing {
namespace {

struct Outcome {
  NSDictionary reply;
  NSError error;
};

using ListenerSynchronousSends = LibraryTest;

std::future<Outcome> sendInBackground(const Pair& pair, const NSDictionary& message, double timeout) {
  return inBackground([listener = pair.server.listener, id = pair.id, message, timeout] {
    Outcome outcome;
    outcome.reply = listener->sendMessageSync(message, id, timeout, &outcome.error);
    return outcome;
  });
}

TEST_F(ListenerSynchronousSends, ASynchronousSendReturnsTheReply) {
  Pair pair;
  pair.client.delegate->onMessage([](const NSDictionary& message, const NSString&, const VeltoReplyHandler& reply) {
    reply({{"echo", message}});
  });
  clearLogOfHandshake();
  NSError error;
  EXPECT_EQ(pair.server.listener->sendMessageSync(kHelloAndNumber, pair.id, 20.0, &error),
            NSDictionary({{"echo", kHelloAndNumber}}));
  EXPECT_TRUE(error.isNil());
  EXPECT_EQ(pair.client.delegate->messages().at(0).message, kHelloAndNumber);
  EXPECT_EQ(pair.client.delegate->messages().at(0).connectionID, pair.id);
  EXPECT_TRUE(log.containing(2, "Sending").empty()) << "a successful send writes no line";
  EXPECT_EQ(pair.server.waiting(pair.id), 0u);
}

TEST_F(ListenerSynchronousSends, ATimeOutOfZeroSendsAndEndsAtOnce) {
  Pair pair;
  for (const double timeout : {0.0, std::nan("")}) {
    NSError error;
    EXPECT_TRUE(pair.server.listener->sendMessageSync(kHelloAndNumber, pair.id, timeout, &error).isNil());
    expectError(error, 6, "Timed out waiting");
  }
  EXPECT_TRUE(pair.client.delegate->waitForMessages(2));
  EXPECT_EQ(pair.server.waiting(pair.id), 0u);
}

TEST_F(ListenerSynchronousSends, ATimeOutOfZeroReturnsTheReplyOnlyIfThatWasFaster) {
  Pair pair;
  pair.client.delegate->echo();
  for (int round = 0; round < 200; ++round) {
    const NSDictionary message{{"round", round}};
    NSError error;
    const NSDictionary reply = pair.server.listener->sendMessageSync(message, pair.id, 0.0, &error);
    if (reply.isNil()) {
      expectError(error, 6, "Timed out waiting");
    } else {
      EXPECT_EQ(reply, message);
    }
  }
  EXPECT_EQ(pair.server.waiting(pair.id), 0u);
}

TEST_F(ListenerSynchronousSends, ForEverWaitsForTheReplyAndAnyOtherNegativeTimeOutIsNotValid) {
  Pair pair;
  auto call = sendInBackground(pair, kHelloAndNumber, -1.0);
  pair.client.delegate->waitForMessages(1);
  EXPECT_EQ(call.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout) << "it did not wait";
  clearLogOfHandshake();
  for (const double timeout : {-0.5, -1.5, -HUGE_VAL}) {
    NSError error;
    EXPECT_TRUE(pair.server.listener->sendMessageSync(kHelloAndNumber, pair.id, timeout, &error).isNil());
    expectError(error, 6, "Timed out value is not valid");
  }
  EXPECT_TRUE(log.lines().empty()) << log.text();
  EXPECT_EQ(pair.server.waiting(pair.id), 1u) << "only the endless one";
  pair.client.delegate->messages().at(0).reply(kHelloAndNumber);
  EXPECT_EQ(finish(call).reply, kHelloAndNumber);
  pair.client.delegate->echo();
  EXPECT_EQ(pair.server.listener->sendMessageSync(kHelloAndNumber, pair.id, 20.0), kHelloAndNumber);
  EXPECT_EQ(pair.client.delegate->messages().size(), 2u) << "the refused ones were not sent";
}

TEST_F(ListenerSynchronousSends, ForEverIsReadAtEachCall) {
  Pair pair;
  pair.client.delegate->echo();
  const double former = VKT_IPC_TIME_FOREVER;
  VKT_IPC_TIME_FOREVER = -7.0;
  EXPECT_EQ(pair.server.listener->sendMessageSync(kHelloAndNumber, pair.id, -7.0), kHelloAndNumber);
  NSError error;
  EXPECT_TRUE(pair.server.listener->sendMessageSync(kHelloAndNumber, pair.id, -1.0, &error).isNil());
  expectError(error, 6, "Timed out value is not valid");
  VKT_IPC_TIME_FOREVER = former;
}

TEST_F(ListenerSynchronousSends, ASynchronousSendInsideConnectionReadyFailsAndLeavesItsCondition) {
  ListenerEnd server("org.velto.test.inside");
  server.delegate->onReady([&](const NSString& id) {
    for (std::size_t sends = 1; sends <= 3; ++sends) {
      NSError error;
      EXPECT_TRUE(server.listener->sendMessageSync(kHelloAndNumber, id, 20.0, &error).isNil());
      expectError(error, 2, "Connection is not available");
      EXPECT_EQ(server.waiting(id), sends);
    }
  });
  ClientEnd client("org.velto.test.inside");
  const NSString id = client.ready();
  EXPECT_EQ(server.waiting(id), 3u);
  client.delegate->echo();
  EXPECT_EQ(server.listener->sendMessageSync(kHelloAndNumber, id, 20.0), kHelloAndNumber);
  EXPECT_EQ(server.waiting(id), 3u);
  server.listener->close(id);
  EXPECT_EQ(server.waiting(id), 0u);
}

TEST_F(ListenerSynchronousSends, ASynchronousSendThatFailsTheTypeCheckLeavesItsCondition) {
  Pair pair;
  clearLogOfHandshake();
  NSError error;
  const NSDictionary dated{{"when", NSDate::date()}};
  EXPECT_FALSE(pair.server.listener->sendMessage(dated, pair.id, &error));
  expectError(error, 3, "SendMessage failed message type check");
  EXPECT_EQ(pair.server.waiting(pair.id), 0u);
  EXPECT_TRUE(pair.server.listener->sendMessageSync(dated, pair.id, 20.0, &error).isNil());
  expectError(error, 3, "SendMessage failed message type check");
  EXPECT_EQ(pair.server.waiting(pair.id), 1u);
  EXPECT_EQ(log.count(0, "VeltoIPCListener SendMessage failed message type check"), 2u) << log.text();
  EXPECT_EQ(log.containing(0, "Failed Type Checking with the following object").size(), 2u) << log.text();
  pair.client.delegate->echo();
  EXPECT_EQ(pair.server.listener->sendMessageSync(kHelloAndNumber, pair.id, 20.0), kHelloAndNumber);
  EXPECT_EQ(pair.client.delegate->messages().size(), 1u) << "the refused ones were not sent";
}

TEST_F(ListenerSynchronousSends, ClosingTheConnectionEndsAWaitAsATimeOut) {
  Pair pair;
  auto endless = sendInBackground(pair, kHelloAndNumber, VKT_IPC_TIME_FOREVER);
  auto bounded = sendInBackground(pair, kHelloAndNumber, 3600.0);
  pair.client.delegate->waitForMessages(2);
  pair.server.listener->close(pair.id);
  for (auto* call : {&endless, &bounded}) {
    const Outcome outcome = finish(*call);
    EXPECT_TRUE(outcome.reply.isNil());
    expectError(outcome.error, 6, "Timed out waiting");
  }
}

TEST_F(ListenerSynchronousSends, TheClientsLeavingEndsAWaitAsATimeOut) {
  Pair pair;
  auto call = sendInBackground(pair, kHelloAndNumber, VKT_IPC_TIME_FOREVER);
  pair.client.delegate->waitForMessages(1);
  pair.client.connection->close();
  const Outcome outcome = finish(call);
  EXPECT_TRUE(outcome.reply.isNil());
  expectError(outcome.error, 6, "Timed out waiting");
}

// Tells when its thread goes to sleep.
class SleepWatch final : public WaitObserver {
 public:
  void threadWillWait() noexcept override { asleep_ = true; }
  void threadDidWait() noexcept override {}
  bool waitUntilAsleep() const {
    return eventually([this] { return asleep_.load(); });
  }

 private:
  std::atomic<bool> asleep_{false};
};

// The waiter is held back between the reply and its next look at the connection, by the lock that it needs for that
// look.
TEST_F(ListenerSynchronousSends, AReplyThatCameTogetherWithTheCloseIsReturnedWithoutError) {
  Pair pair;
  SleepWatch watch;
  auto call = inBackground([&] {
    WaitObserver::install(&watch);
    Outcome outcome;
    outcome.reply = pair.server.listener->sendMessageSync(kHelloAndNumber, pair.id, 3600.0, &outcome.error);
    WaitObserver::install(nullptr);
    return outcome;
  });
  ASSERT_TRUE(watch.waitUntilAsleep());
  pair.client.delegate->waitForMessages(1);
  {
    NSSynchronized held(pair.server.listener->connectionConditions());
    pair.client.delegate->messages().at(0).reply({{"in", "time"}});
    // Comes after the reply, so when its own reply is here, the first one has been stored.
    pair.client.delegate->echo();
    std::promise<void> passed;
    ASSERT_TRUE(pair.server.listener->sendMessage({{"second", true}}, pair.id, nullptr,
                                                  [&](const NSDictionary&) { passed.set_value(); }));
    std::future<void> second = passed.get_future();
    finish(second);
    pair.server.listener->close(pair.id);
  }
  const Outcome outcome = finish(call);
  EXPECT_EQ(outcome.reply, NSDictionary({{"in", "time"}}));
  EXPECT_TRUE(outcome.error.isNil()) << outcome.error.description().view();
}

TEST_F(ListenerSynchronousSends, ASpuriousWakeUpEndsNoWait) {
  Pair pair;
  auto call = sendInBackground(pair, kHelloAndNumber, 3600.0);
  pair.client.delegate->waitForMessages(1);
  NSCondition condition;
  ASSERT_TRUE(eventually([&] { return pair.server.waiting(pair.id) == 1; }));
  {
    NSSynchronized lock(pair.server.listener->connectionConditions());
    condition = pair.server.listener->connectionConditions()[pair.id][0].as<NSCondition>();
  }
  ASSERT_FALSE(condition.isNil());
  for (int times = 0; times < 100; ++times) {
    condition.signal();
    std::this_thread::yield();
  }
  EXPECT_EQ(call.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
  pair.client.delegate->messages().at(0).reply(kHelloAndNumber);
  EXPECT_EQ(finish(call).reply, kHelloAndNumber);
}

TEST_F(ListenerSynchronousSends, SynchronousSendsToOneClientGetTheirOwnReplies) {
  Pair pair;
  auto first = sendInBackground(pair, {{"which", 1}}, 20.0);
  pair.client.delegate->waitForMessages(1);
  auto second = sendInBackground(pair, {{"which", 2}}, 20.0);
  pair.client.delegate->waitForMessages(2);
  const auto messages = pair.client.delegate->messages();
  messages.at(1).reply({{"for", 2}});
  EXPECT_EQ(finish(second).reply, NSDictionary({{"for", 2}}));
  messages.at(0).reply({{"for", 1}});
  EXPECT_EQ(finish(first).reply, NSDictionary({{"for", 1}}));
  EXPECT_TRUE(eventually([&] { return pair.server.waiting(pair.id) == 0; }));
}

TEST_F(ListenerSynchronousSends, ALateReplyHasNoEffect) {
  Pair pair;
  EXPECT_TRUE(pair.server.listener->sendMessageSync({{"first", true}}, pair.id, 0.0).isNil());
  pair.client.delegate->waitForMessages(1);
  pair.client.delegate->messages().at(0).reply({{"too", "late"}});
  pair.client.delegate->echo();
  EXPECT_EQ(pair.server.listener->sendMessageSync(kHelloAndNumber, pair.id, 20.0), kHelloAndNumber);
  EXPECT_TRUE(pair.server.delegate->errors().empty());
}

}  // namespace
}  // namespace velto::testing
