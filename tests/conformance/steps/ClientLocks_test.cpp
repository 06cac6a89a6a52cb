// The client's locks: which function takes which, in what order, and which takes none. The test holds a lock and looks
// who comes through.

#include "platform/foundation/NSSynchronized.h"
#include "tests/conformance/Locks.h"
#include "tests/conformance/steps/ClientInside.h"
#include "tests/conformance/steps/ClientSteps.h"
#include "tests/conformance/steps/TestObject.h"

namespace velto::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class ClientLocks : public ClientSteps {
 protected:
  // Sends on a thread of its own and returns once that thread sleeps; its condition goes to `condition`.
  std::future<NSDictionary> sendAsleep(NSCondition& condition, double timeout = VKT_IPC_TIME_FOREVER) {
    auto watch = std::make_shared<SleepWatch>();
    auto send = inBackground([this, watch, timeout] {
      const SleepWatch::Guard guard(*watch);
      return client->sendMessageSync(message, timeout);
    });
    watch->waitUntilAsleep();
    const NSMutableDictionary registry = registryOf(*client);
    const NSSynchronized monitor(registry);
    condition = registry.allValues().objectAtIndex(registry.count() - 1).as<NSCondition>();
    return send;
  }

  static constexpr const char* kHandedOver = "proxy#2 connectionID:withMessage:handler:";
  const NSDictionary message{{"op", "ask"}};
};

TEST_F(ClientLocks, ASendThatLooksItsRequestUpHoldsItsCondition) {
  PROVES("client.order.1",
         "a waiting send looks its request up with its condition locked: the condition first, the registry's monitor "
         "second");
  becomeReady("id");
  NSCondition condition;
  auto send = sendAsleep(condition);
  std::future<void> passing;
  {
    const NSSynchronized monitor(registryOf(*client));
    condition.signal();
    EXPECT_TRUE(comesToBeHeld(condition, passing)) << "by the send, which waits for the monitor";
    EXPECT_TRUE(isHeldUp(send));
  }
  finish(passing);
  lastMessage()->answer(message);
  EXPECT_EQ(finish(send), message);
}

TEST_F(ClientLocks, AReplyNeedsTheConditionAlone) {
  PROVES("client.order.2", "a reply handler of a synchronous send takes the send's condition and no other lock");
  becomeReady("id");
  NSCondition condition;
  auto send = sendAsleep(condition);
  std::future<void> reply;
  {
    const ConditionLock lock(condition);
    reply = inBackground([this] { lastMessage()->answerAndKeep(message); });
    EXPECT_TRUE(isHeldUp(reply)) << "the condition is held here";
  }
  finish(reply);
  {
    const NSCondition readiness = readinessOf(*client);
    const NSSynchronized monitor(registryOf(*client));
    const ConditionLock lock(readiness);
    auto another = inBackground([this] { lastMessage()->answer(message); });
    finish(another);
  }
  EXPECT_EQ(finish(send), message);
}

TEST_F(ClientLocks, TheRegistryIsUsedUnderItsMonitor) {
  PROVES("client.registry.8",
         "registering a send and looking one up take the registry's monitor, which is recursive; handing the message "
         "over does not");
  becomeReady("id");
  std::future<bool> look;
  std::future<NSDictionary> send;
  {
    const NSMutableDictionary registry = registryOf(*client);
    const NSSynchronized monitor(registry);
    EXPECT_FALSE(client->messageValid(NSUUID::UUID())) << "on the thread that holds it";
    look = inBackground([this] { return client->messageValid(NSUUID::UUID()); });
    send = inBackground([this] { return client->sendMessageSync(message, 0); });
    EXPECT_TRUE(journal().waitFor(kHandedOver));
    EXPECT_TRUE(isHeldUp(look));
    EXPECT_TRUE(isHeldUp(send));
    EXPECT_EQ(registry.count(), 0u);
  }
  EXPECT_FALSE(finish(look));
  EXPECT_TRUE(finish(send).isNil());
  EXPECT_EQ(registryOf(*client).count(), 0u);
}

TEST_F(ClientLocks, SendingAndReceivingNeedNone) {
  PROVES("client.send.16",
         "sending, receiving, getID and the strict-types flag take no lock: they come through while all are held");
  becomeReady("id");
  const NSCondition readiness = readinessOf(*client);
  const NSSynchronized monitor(registryOf(*client));
  const ConditionLock lock(readiness);
  auto others = inBackground([this] {
    EXPECT_TRUE(client->sendMessage(message));
    client->setStrictMessageTypesRemote(false);
    EXPECT_TRUE(client->sendMessage({{"when", NSDate::date()}}));
    peer().deliver<&VeltoCommunicationMessageProtocol::connectionID>("id", message, VeltoReplyHandler());
    EXPECT_EQ(client->getID(), NSString("id"));
  });
  finish(others);
  EXPECT_EQ(delegate->recorded.messages().size(), 1u);
}

TEST_F(ClientLocks, CloseSignalsWithoutTheConditionsLocks) {
  PROVES("client.close.13", "close signals every registered condition, and takes the lock of none");
  becomeReady("id");
  const std::vector<NSCondition> conditions{NSCondition::condition(), NSCondition::condition(),
                                            NSCondition::condition()};
  NSMutableDictionary registry = registryOf(*client);
  for (const NSCondition& condition : conditions) registry.setObject(condition, NSUUID::UUID());
  HeldConditions held(conditions);
  auto closing = inBackground([this] { client->close(); });
  finish(closing);
  held.expectSignals();
}

TEST_F(ClientLocks, CloseGoesThroughTheRegistryWithItsMonitorHeld) {
  PROVES("client.close.14",
         "close goes through the registry with its monitor held, and has let go of it when it invalidates");
  becomeReady("id");
  NSMutableDictionary registry = registryOf(*client);
  const auto isFree = [registry] {
    auto other = inBackground([registry] { return NSSynchronized(registry, std::try_to_lock).holdsMonitor(); });
    return finish(other);
  };
  bool isArmed = false;
  std::vector<bool> whileSignalling;
  std::vector<bool> whileInvalidating;
  registry.setObject(TestObject::ofClass(NSObject::classObject(),
                                         [&] {
                                           if (isArmed) whileSignalling.push_back(isFree());
                                         }),
                     NSUUID::UUID());
  isArmed = true;
  journal().observe([&](const std::string&) { whileInvalidating.push_back(isFree()); });
  client->close();
  isArmed = false;
  journal().observe({});
  EXPECT_THAT(whileSignalling, ElementsAre(false));
  EXPECT_THAT(whileInvalidating, ElementsAre(true, true));
}

TEST_F(ClientLocks, CloseNeedsNoLockOfReadiness) {
  PROVES("client.close.15", "close never takes the lock of readiness");
  becomeReady("id");
  const NSCondition readiness = readinessOf(*client);
  const ConditionLock lock(readiness);
  auto closing = inBackground([this] { client->close(); });
  finish(closing);
  EXPECT_EQ(client->listenerConnection(), nullptr);
}

TEST_F(ClientLocks, TheIdentifierIsStoredOutsideOfTheLock) {
  PROVES("client.identifier.6",
         "the identifier is stored before the lock of readiness is taken, under which the client becomes ready; the "
         "delegate is told after it");
  configure();
  std::future<void> identifying;
  {
    const NSCondition readiness = readinessOf(*client);
    const ConditionLock lock(readiness);
    identifying = inBackground([this] { client->connectionUUID("id"); });
    EXPECT_TRUE(eventually([this] { return client->getID() == NSString("id"); }));
    EXPECT_TRUE(isHeldUp(identifying));
    EXPECT_THAT(delegate->recorded.events(), IsEmpty());
  }
  finish(identifying);
  EXPECT_EQ(delegate->recorded.readies().size(), 1u);
  EXPECT_TRUE(client->waitUntilReady(0));
}

TEST_F(ClientLocks, AnErrorIsRecordedUnderTheLock) {
  PROVES("client.error.7", "an error is recorded under the lock of readiness, and the delegate told after it");
  configure();
  std::future<void> reporting;
  {
    const NSCondition readiness = readinessOf(*client);
    const ConditionLock lock(readiness);
    reporting = inBackground([this] { client->connectionError(platformError()); });
    EXPECT_TRUE(isHeldUp(reporting));
    EXPECT_THAT(delegate->recorded.events(), IsEmpty());
  }
  finish(reporting);
  EXPECT_EQ(delegate->recorded.errors().size(), 1u);
}

TEST_F(ClientLocks, AWaitForReadinessThatIsWokenForNoReasonGoesOn) {
  PROVES("client.wait.10", "a wait for readiness that is woken for no reason goes on");
  configure();
  NSError error;
  auto waiter = waitAsleep(600, error);
  for (int time = 0; time < 20; ++time) {
    readinessOf(*client).broadcast();
    const NSCondition readiness = readinessOf(*client);
    const ConditionLock lock(readiness);
  }
  EXPECT_TRUE(isHeldUp(waiter));
  client->connectionUUID("id");
  EXPECT_TRUE(finish(waiter));
}

TEST_F(ClientLocks, EveryoneWhoWaitsForReadinessIsWoken) {
  PROVES("client.wait.11", "several threads that wait for readiness all return, whether it comes or an error does");
  for (const bool becomesReady : {true, false}) {
    client = VeltoConnection::init();
    std::vector<NSError> errors(4);
    std::vector<std::future<bool>> waiters;
    for (NSError& error : errors) waiters.push_back(waitAsleep(600, error));
    if (becomesReady) {
      client->connectionUUID("id");
    } else {
      client->connectionError(platformError());
    }
    for (auto& waiter : waiters) EXPECT_EQ(finish(waiter), becomesReady);
    for (const NSError& error : errors) EXPECT_EQ(error, becomesReady ? NSError() : platformError());
  }
}

TEST_F(ClientLocks, ASendThatIsWokenForNoReasonGoesOnWaiting) {
  PROVES("client.sync.23", "a synchronous send that is woken for no reason goes on waiting");
  becomeReady("id");
  NSCondition first;
  NSCondition second;
  auto bounded = sendAsleep(first, 600);
  const auto firstCall = lastMessage();
  auto unbounded = sendAsleep(second);
  for (int time = 0; time < 20; ++time) {
    for (const NSCondition& condition : {first, second}) {
      condition.broadcast();
      const ConditionLock lock(condition);
    }
  }
  EXPECT_TRUE(isHeldUp(bounded));
  EXPECT_TRUE(isHeldUp(unbounded));
  firstCall->answer(message);
  lastMessage()->answer(message);
  EXPECT_EQ(finish(bounded), message);
  EXPECT_EQ(finish(unbounded), message);
}

TEST_F(ClientLocks, WhatAnErrorReplacesIsLetGoOfWithNoLockHeld) {
  PROVES(
      "client.order.3",
      "what an error replaces, the one recorded before or the one in the out-pointer, is let go of with no lock held");
  becomeReady("id");
  int ended = 0;
  const auto passes = [&ended](const NSCondition& condition) {
    auto passing = passThrough(condition);
    finish(passing);
    ++ended;
  };
  const auto passesReadiness = [&] { passes(readinessOf(*client)); };
  client->setDelegate(nullptr);  // it would keep the error
  client->connectionError(errorWhoseEnd(passesReadiness));
  client->connectionError(platformError());
  EXPECT_EQ(ended, 1);
  NSError error = errorWhoseEnd(passesReadiness);
  EXPECT_TRUE(client->waitUntilReady(0.0, &error));
  EXPECT_EQ(ended, 2);
  error = errorWhoseEnd([&] { passes(registryOf(*client).allValues()[0].as<NSCondition>()); });
  EXPECT_TRUE(client->sendMessageSync(message, 0.0, &error).isNil());
  expectError(error, 6, "Timed out waiting");
  EXPECT_EQ(ended, 3);
}

}  // namespace
}  // namespace velto::testing
