// A listener's send that waits for the reply.

#include "platform/foundation/NSSynchronized.h"
#include "tests/conformance/ListenerFixture.h"

namespace velto::testing {
namespace {

class ListenerSynchronousSends : public ListenerHere {
 protected:
  struct Outcome {
    NSDictionary reply;
    NSError error;
  };
  static std::future<Outcome> sendInBackground(const ListenerEnd& server, const NSString& id, double timeout,
                                               const NSDictionary& message = plainMessage()) {
    return inBackground([&server, id, timeout, message] {
      Outcome outcome;
      outcome.reply = server.listener->sendMessageSync(message, id, timeout, &outcome.error);
      return outcome;
    });
  }
  static void expectTimedOut(std::future<Outcome>& call) {
    const Outcome outcome = finish(call);
    EXPECT_TRUE(outcome.reply.isNil());
    expectError(outcome.error, 6, "Timed out waiting");
  }
};
INSTANTIATE_TEST_SUITE_P(, ListenerSynchronousSends, kArrangementsHere, printArrangement);

TEST_P(ListenerSynchronousSends, ReturnTheReplyAndLeaveTheErrorAlone) {
  PROVES("listener.sync.5", "a synchronous send returns the client's reply and does not write the error");
  PROVES("listener.sync.12", "a wait condition is removed after the reply");
  const TwoEnds ends;
  ends.client.delegate->echo();
  const NSError former = NSError::errorWithDomain("org.example", 99, nil);
  NSError error = former;
  EXPECT_EQ(ends.server.listener->sendMessageSync(plainMessage(), ends.id, kLong, &error), plainMessage());
  EXPECT_TRUE(error.isIdenticalTo(former));
  EXPECT_EQ(ends.server.waiting(ends.id), 0u);
}

TEST_P(ListenerSynchronousSends, AreRegisteredWhenTheClientHasTheMessage) {
  PROVES("listener.sync.9", "the wait condition is registered in the client's array before the message is sent");
  const TwoEnds ends;
  std::size_t waiting = 0;
  NSObject registered;
  ends.client.delegate->onMessage([&](const NSDictionary& message, const NSString& id, const VeltoReplyHandler& reply) {
    waiting = ends.server.waiting(id);
    registered = ends.server.listener->connectionConditions()[id][0];
    reply(message);
  });
  ends.server.listener->sendMessageSync(plainMessage(), ends.id, kLong);
  EXPECT_EQ(waiting, 1u);
  EXPECT_TRUE(registered.isKindOfClass(NSCondition::classObject()));
}

TEST_P(ListenerSynchronousSends, ToAnUnknownIdentifierRegisterNothing) {
  PROVES("listener.sync.10",
         "a synchronous send to an unknown identifier fails with code 2, logs like a send, and registers nothing");
  const TwoEnds ends;
  clearLogOfHandshakes();
  for (const NSString& id : {NSString("unknown"), NSString()}) {
    NSError error;
    EXPECT_TRUE(ends.server.listener->sendMessageSync(plainMessage(), id, VKT_IPC_TIME_FOREVER, &error).isNil());
    expectError(error, 2, "Connection is not available");
  }
  const LogCapture::Line line{0, "VeltoIPCListener Connection is not available"};
  EXPECT_EQ(linesOfEnds(), (Lines{line, line}));
  EXPECT_EQ(ends.server.listener->connectionConditions().count(), 1u);
  EXPECT_EQ(ends.server.waiting(ends.id), 0u);
}

TEST_P(ListenerSynchronousSends, ThatFailTheCheckStayRegistered) {
  PROVES("listener.sync.11",
         "a synchronous send whose message fails the check fails with code 3 and leaves its wait condition registered");
  const TwoEnds ends;
  ends.client.delegate->echo();
  for (std::size_t count = 1; count <= 2; ++count) {
    NSError error;
    EXPECT_TRUE(ends.server.listener->sendMessageSync(messageWithDate(), ends.id, kLong, &error).isNil());
    expectError(error, 3, "SendMessage failed message type check");
    EXPECT_EQ(ends.server.waiting(ends.id), count);
  }
  EXPECT_EQ(ends.server.listener->sendMessageSync(plainMessage(), ends.id, kLong), plainMessage());
  EXPECT_EQ(ends.server.waiting(ends.id), 2u);
  EXPECT_EQ(ends.client.delegate->messages().size(), 1u);
}

TEST_P(ListenerSynchronousSends, EndOneByOneAsTheyAreAnswered) {
  PROVES("listener.sync.14", "of several waits only the answered one ends and is removed");
  const TwoEnds ends;
  auto first = sendInBackground(ends.server, ends.id, kLong, {{"number", 1}});
  ASSERT_TRUE(ends.client.delegate->waitForMessages(1));
  auto second = sendInBackground(ends.server, ends.id, VKT_IPC_TIME_FOREVER, {{"number", 2}});
  ASSERT_TRUE(ends.client.delegate->waitForMessages(2));
  EXPECT_EQ(ends.server.waiting(ends.id), 2u);
  const auto messages = ends.client.delegate->messages();
  messages[1].reply(messages[1].message);
  EXPECT_EQ(finish(second).reply, (NSDictionary{{"number", 2}}));
  EXPECT_EQ(ends.server.waiting(ends.id), 1u);
  EXPECT_TRUE(isHeldUp(first));
  messages[0].reply(messages[0].message);
  EXPECT_EQ(finish(first).reply, (NSDictionary{{"number", 1}}));
  EXPECT_EQ(ends.server.waiting(ends.id), 0u);
}

TEST_P(ListenerSynchronousSends, EndWhenTheirConnectionIsClosed) {
  PROVES("listener.sync.15",
         "closing the connection ends a synchronous send with code 6 \"Timed out waiting\", not code 2, and logs "
         "nothing of its own");
  PROVES("listener.sync.30", "closing the connection ends every wait on it, those without a deadline too");
  PROVES("listener.drop.16", "two synchronous sends that wait on the connection both end");
  const TwoEnds ends;
  auto bounded = sendInBackground(ends.server, ends.id, kLong);
  auto unbounded = sendInBackground(ends.server, ends.id, VKT_IPC_TIME_FOREVER);
  ASSERT_TRUE(ends.client.delegate->waitForMessages(2));
  clearLogOfHandshakes();
  ends.server.listener->close(ends.id);
  expectTimedOut(bounded);
  expectTimedOut(unbounded);
  EXPECT_EQ(ends.server.entries(ends.id), kNoEntries);
  EXPECT_EQ(log.count(0, "VeltoIPCListener Connection is not available"), 0u);
  const Event event = ends.server.delegate->waitForError("Connection invalidated");
  EXPECT_EQ(event.connectionID, ends.id);
}

TEST_P(ListenerSynchronousSends, GoOnWhenAnotherConnectionIsClosed) {
  PROVES("listener.sync.26", "closing one connection leaves the waits on another");
  const TwoEnds ends;
  ClientEnd other(kName);
  const NSString otherID = other.ready();
  auto call = sendInBackground(ends.server, ends.id, VKT_IPC_TIME_FOREVER);
  ASSERT_TRUE(ends.client.delegate->waitForMessages(1));
  ends.server.listener->close(otherID);
  ends.server.delegate->waitForError("Connection invalidated");
  EXPECT_EQ(ends.server.waiting(ends.id), 1u);
  EXPECT_TRUE(isHeldUp(call));
  ends.client.delegate->messages().front().reply(plainMessage());
  EXPECT_EQ(finish(call).reply, plainMessage());
}

TEST_P(ListenerSynchronousSends, EndWhenTheClientGoesAway) {
  PROVES("listener.sync.27",
         "a client that goes away ends the synchronous sends to it with code 6 \"Timed out waiting\"");
  const TwoEnds ends;
  auto bounded = sendInBackground(ends.server, ends.id, kLong);
  auto unbounded = sendInBackground(ends.server, ends.id, VKT_IPC_TIME_FOREVER);
  ASSERT_TRUE(ends.client.delegate->waitForMessages(2));
  ends.client.connection->close();
  expectTimedOut(bounded);
  expectTimedOut(unbounded);
}

TEST_P(ListenerSynchronousSends, ForgetAReplyThatComesTooLate) {
  PROVES("listener.sync.16", "a reply that comes too late has no effect and logs nothing at the sender");
  const TwoEnds ends;
  VeltoReplyHandler late;
  ends.client.delegate->onMessage([&](const NSDictionary& message, const NSString&, const VeltoReplyHandler& reply) {
    if (!late) {
      late = reply;
      return;
    }
    late({{"number", 1}});
    reply(message);
  });
  clearLogOfHandshakes();
  NSError error;
  EXPECT_TRUE(ends.server.listener->sendMessageSync({{"number", 1}}, ends.id, 0.0, &error).isNil());
  expectError(error, 6, "Timed out waiting");
  EXPECT_EQ(ends.server.listener->sendMessageSync({{"number", 2}}, ends.id, kLong), (NSDictionary{{"number", 2}}));
  EXPECT_EQ(ends.server.waiting(ends.id), 0u);
  EXPECT_TRUE(ends.server.delegate->errors().empty());
  // The client's lines alone: two messages came, two handlers were called.
  EXPECT_EQ(linesOfEnds().size(), 4u) << log.text();
  EXPECT_EQ(log.containing(2, " handler called by delegate").size(), 2u);
}

TEST_P(ListenerSynchronousSends, TakeANilReplyForAReply) {
  PROVES("listener.sync.21", "a nil reply is a reply: the result is nil without an error");
  const TwoEnds ends;
  ends.client.delegate->onMessage(
      [](const NSDictionary&, const NSString&, const VeltoReplyHandler& reply) { reply(NSDictionary()); });
  NSError error;
  EXPECT_TRUE(ends.server.listener->sendMessageSync(plainMessage(), ends.id, VKT_IPC_TIME_FOREVER, &error).isNil());
  EXPECT_TRUE(error.isNil());
}

TEST_P(ListenerSynchronousSends, AtTheSameTimeGetTheirOwnReplies) {
  PROVES("listener.sync.22", "synchronous sends to one client at the same time each get their own reply");
  constexpr int kSenders = 6;
  constexpr int kRounds = 10;
  const TwoEnds ends;
  ends.client.delegate->echo();
  std::vector<std::future<int>> senders;
  for (int sender = 0; sender < kSenders; ++sender) {
    senders.push_back(inBackground([&ends, sender] {
      int own = 0;
      for (int round = 0; round < kRounds; ++round) {
        const NSDictionary message{{"sender", sender}, {"round", round}};
        if (ends.server.listener->sendMessageSync(message, ends.id, kLong) == message) ++own;
      }
      return own;
    }));
  }
  for (auto& sender : senders) EXPECT_EQ(finish(sender), kRounds);
  EXPECT_EQ(ends.server.waiting(ends.id), 0u);
}

TEST_P(ListenerSynchronousSends, TellFailureByTheirResultAlone) {
  PROVES("listener.sync.23", "without an error to write the result alone tells failure");
  const TwoEnds ends;
  EXPECT_TRUE(ends.server.listener->sendMessageSync(plainMessage(), ends.id, -0.5, nullptr).isNil());
  EXPECT_TRUE(ends.server.listener->sendMessageSync(plainMessage(), "unknown", kLong, nullptr).isNil());
  EXPECT_TRUE(ends.server.listener->sendMessageSync(messageWithDate(), ends.id, kLong, nullptr).isNil());
  EXPECT_TRUE(ends.server.listener->sendMessageSync(plainMessage(), ends.id, 0.0, nullptr).isNil());
}

TEST_P(ListenerSynchronousSends, GoOnWaitingWhenTheyAreWokenForNoReason) {
  PROVES("listener.sync.28", "a wait that is woken for no reason goes on");
  const TwoEnds ends;
  auto bounded = sendInBackground(ends.server, ends.id, kLong);
  auto unbounded = sendInBackground(ends.server, ends.id, VKT_IPC_TIME_FOREVER);
  ASSERT_TRUE(ends.client.delegate->waitForMessages(2));
  for (int time = 0; time < 20; ++time) {
    NSSynchronized lock(ends.server.listener->connectionConditions());
    for (const NSObject& condition : ends.server.listener->connectionConditions()[ends.id].as<NSArray>()) {
      condition.as<NSCondition>().broadcast();
    }
  }
  EXPECT_TRUE(isHeldUp(bounded));
  EXPECT_TRUE(isHeldUp(unbounded));
  for (const Event& message : ends.client.delegate->messages()) message.reply(message.message);
  EXPECT_EQ(finish(bounded).reply, plainMessage());
  EXPECT_EQ(finish(unbounded).reply, plainMessage());
}

TEST_P(ListenerSynchronousSends, RegisterUnderTheMonitorOfTheTable) {
  PROVES("listener.active.4", "a wait condition is registered under the monitor of the conditions' table");
  const TwoEnds ends;
  ends.client.delegate->echo();
  std::future<Outcome> call;
  {
    NSSynchronized lock(ends.server.listener->connectionConditions());
    call = sendInBackground(ends.server, ends.id, kLong);
    EXPECT_TRUE(isHeldUp(call));
    EXPECT_EQ(ends.server.listener->connectionConditions()[ends.id].count(), 0u);
    EXPECT_TRUE(ends.client.delegate->messages().empty()) << "nothing is sent before it is registered";
  }
  EXPECT_EQ(finish(call).reply, plainMessage());
}

using ListenerActivity = ListenerHere;
INSTANTIATE_TEST_SUITE_P(, ListenerActivity, kArrangementsHere, printArrangement);

TEST_P(ListenerActivity, IsTheEntryInTheConditionsTable) {
  PROVES(
      "listener.active.1",
      "a connection is active from its entry in the conditions' table until that is removed, and nothing else counts");
  PROVES("listener.active.2", "unknown and nil identifiers are not active");
  const TwoEnds ends;
  const auto& listener = ends.server.listener;
  EXPECT_TRUE(listener->isConnectionActive_internal(ends.id));
  EXPECT_FALSE(listener->isConnectionActive_internal("unknown"));
  EXPECT_FALSE(listener->isConnectionActive_internal(""));
  EXPECT_FALSE(listener->isConnectionActive_internal(nil));
  {
    NSSynchronized lock(listener->connectionConditions());
    listener->connectionConditions().setObject(NSMutableArray::array(), "entry alone");
    listener->receivedProxyObjects().setObject("no proxy", "proxy alone");
    listener->receivedConnections().setObject("no connection", "connection alone");
  }
  EXPECT_TRUE(listener->isConnectionActive_internal("entry alone"));
  EXPECT_FALSE(listener->isConnectionActive_internal("proxy alone"));
  EXPECT_FALSE(listener->isConnectionActive_internal("connection alone"));
  {
    NSSynchronized lock(listener->connectionConditions());
    listener->receivedProxyObjects().removeAllObjects();
    listener->receivedConnections().removeObjectForKey("connection alone");
  }
  EXPECT_TRUE(listener->isConnectionActive_internal(ends.id)) << "without its proxy too";
  listener->close(ends.id);
  EXPECT_FALSE(listener->isConnectionActive_internal(ends.id));
}

TEST_P(ListenerActivity, IsLookedUpUnderTheMonitorOfTheTable) {
  PROVES("listener.active.3", "whether a connection is active is looked up under the monitor of the conditions' table");
  const TwoEnds ends;
  std::future<bool> answer;
  {
    NSSynchronized lock(ends.server.listener->connectionConditions());
    EXPECT_TRUE(ends.server.listener->isConnectionActive_internal(ends.id)) << "the monitor is recursive";
    answer = inBackground([&] { return ends.server.listener->isConnectionActive_internal(ends.id); });
    EXPECT_TRUE(isHeldUp(answer));
  }
  EXPECT_TRUE(finish(answer));
}

}  // namespace
}  // namespace velto::testing
