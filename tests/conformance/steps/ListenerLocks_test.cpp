// The listener's locks, and what others may see of its tables between two steps.

#include <atomic>
#include <thread>

#include "platform/foundation/NSSynchronized.h"
#include "tests/conformance/Locks.h"
#include "tests/conformance/steps/ClientInside.h"
#include "tests/conformance/steps/ClientSteps.h"
#include "tests/conformance/steps/ListenerSteps.h"

namespace velto::testing {
namespace {

class ListenerLocks : public ListenerSteps {
 protected:
  // Sends on a thread of its own and returns once that thread sleeps.
  std::future<NSDictionary> sendAsleep(const NSString& id) {
    auto watch = std::make_shared<SleepWatch>();
    auto send = inBackground([this, watch, id] {
      const SleepWatch::Guard guard(*watch);
      return listener->sendMessageSync(kHello, id, VKT_IPC_TIME_FOREVER);
    });
    watch->waitUntilAsleep();
    return send;
  }
  NSCondition conditionOf(const NSString& id) const {
    const NSSynchronized monitor(listener->connectionConditions());
    return listener->connectionConditions()[id][0].as<NSCondition>();
  }
};

TEST_F(ListenerLocks, ASendThatAsksWhetherItsConnectionIsActiveHoldsItsCondition) {
  PROVES("listener.order.2",
         "a waiting send asks whether its connection is active with its condition locked: the condition first, the "
         "monitor second");
  start();
  const auto client = accept();
  auto send = sendAsleep(client.id);
  const NSCondition condition = conditionOf(client.id);
  std::future<void> passing;
  {
    const NSSynchronized monitor(listener->connectionConditions());
    condition.signal();
    EXPECT_TRUE(comesToBeHeld(condition, passing)) << "by the send, which waits for the monitor";
    EXPECT_TRUE(isHeldUp(send));
  }
  finish(passing);
  client.connection->lastCall(kMessage)->answer(kHello);
  EXPECT_EQ(finish(send), kHello);
}

TEST_F(ListenerLocks, AfterAReplyActivityIsAskedForFirst) {
  PROVES("differences.sync.6",
         "woken by its reply, the listener's send first asks whether the connection is active; the client's looks at "
         "the reply first and asks nothing more");
  start();
  const auto accepted = accept();
  auto send = sendAsleep(accepted.id);
  const NSCondition condition = conditionOf(accepted.id);
  std::future<void> passing;
  {
    const NSSynchronized monitor(listener->connectionConditions());
    // By a thread that has no other lock.
    auto answered = inBackground([&] { accepted.connection->lastCall(kMessage)->answer(kHello); });
    finish(answered);
    EXPECT_TRUE(comesToBeHeld(condition, passing)) << "by the send, which asks";
  }
  finish(passing);
  EXPECT_EQ(finish(send), kHello);
}

using ClientLockOrder = ClientSteps;

TEST_F(ClientLockOrder, AfterAReplyNothingMoreIsAskedFor) {
  PROVES("differences.sync.6",
         "woken by its reply, the listener's send first asks whether the connection is active; the client's looks at "
         "the reply first and asks nothing more");
  becomeReady("id");
  auto watch = std::make_shared<SleepWatch>();
  auto send = inBackground([this, watch] {
    const SleepWatch::Guard guard(*watch);
    return client->sendMessageSync(kHello, VKT_IPC_TIME_FOREVER);
  });
  watch->waitUntilAsleep();
  const NSMutableDictionary registry = registryOf(*client);
  {
    const NSSynchronized monitor(registry);
    const NSCondition condition = registry.allValues()[0].as<NSCondition>();
    // By a thread that has no other lock.
    auto answered = inBackground([this] { lastMessage()->answer(kHello); });
    finish(answered);
    EXPECT_TRUE(isHeldUp(send)) << "its entry cannot be taken out";
    for (int time = 0; time < 10; ++time) {
      auto passing = passThrough(condition);
      finish(passing);
    }
  }
  EXPECT_EQ(finish(send), kHello);
}

TEST_F(ListenerLocks, NobodySeesAConnectionOrAProxyWithoutConditions) {
  PROVES("listener.accept.29",
         "the conditions are entered first and removed last: under the monitor nobody sees a connection or a proxy "
         "without them");
  start();
  std::atomic<bool> isOver{false};
  auto watching = inBackground([&] {
    bool isWhole = true;
    while (!isOver) {
      {
        const NSSynchronized monitor(listener->connectionConditions());
        const std::size_t conditions = listener->connectionConditions().count();
        isWhole = isWhole && listener->receivedConnections().count() <= conditions &&
                  listener->receivedProxyObjects().count() <= conditions;
      }
      std::this_thread::yield();
    }
    return isWhole;
  });
  for (int round = 0; round < 100; ++round) {
    const auto client = accept();
    listener->close(client.id);
  }
  isOver = true;
  EXPECT_TRUE(finish(watching));
}

TEST_F(ListenerLocks, ThePlatformListenerIsLetGoOfLast) {
  PROVES("listener.end.4", "a destroyed listener lets go of its platform listener last");
  start();
  bool hadListener = false;
  const auto link = listener->daemonConnection();
  listener->setDaemonConnection(std::shared_ptr<NSXPCConnection>(
      link.get(), [&](NSXPCConnection*) { hadListener = !platform.listener(1).isLetGo(); }));
  letGoOfListener();
  EXPECT_TRUE(hadListener);
  EXPECT_TRUE(platform.listener(1).isLetGo());
}

}  // namespace
}  // namespace velto::testing
