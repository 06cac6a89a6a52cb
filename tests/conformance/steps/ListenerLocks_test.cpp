// The listener's locks, and what others may see of its tables between two steps.

#include <atomic>
#include <chrono>
#include <thread>

#include "platform/foundation/NSSynchronized.h"
#include "platform/foundation/testing/Sanitizers.h"
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

TEST_F(ListenerLocks, WhatAnErrorReplacesIsLetGoOfWithNoLockHeld) {
  PROVES("listener.order.3", "what an error replaces in the out-pointer is let go of with no lock held");
  start();
  const auto client = accept();
  bool ended = false;
  NSError error = errorWhoseEnd([&] {
    auto passing = passThrough(conditionOf(client.id));
    finish(passing);
    ended = true;
  });
  EXPECT_TRUE(listener->sendMessageSync(kHello, client.id, 0.0, &error).isNil());
  expectError(error, 6, "Timed out waiting");
  EXPECT_TRUE(ended);
}

TEST_F(ListenerLocks, WhatCloseTakesOutIsLetGoOfWithoutTheMonitor) {
  PROVES("listener.drop.18", "what close takes out of the tables is let go of after the monitor");
  start();
  const auto client = accept();
  int ended = 0;
  const auto whoseEndPasses = [&] {
    return NSData::dataWithBytesNoCopy("", 0, [&] {
      auto passing = inBackground([&] { const NSSynchronized monitor(listener->connectionConditions()); });
      finish(passing);
      ++ended;
    });
  };
  listener->receivedConnections().setObject(whoseEndPasses(), client.id);
  listener->receivedProxyObjects().setObject(whoseEndPasses(), client.id);
  listener->connectionConditions()[client.id].as<NSMutableArray>().addObject(whoseEndPasses());
  listener->close(client.id);
  EXPECT_EQ(ended, 3);
  EXPECT_EQ(tables(client.id), "");
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

TEST_F(ListenerLocks, NobodySeesAConnectionThatIsHalfInTheTables) {
  PROVES("listener.accept.29",
         "conditions and connection are entered together, and removed together with the proxy: under the monitor "
         "nobody sees one without the other, nor a proxy without both");
  start();
  std::atomic<bool> isOver{false};
  auto watching = inBackground([&] {
    bool isWhole = true;
    while (!isOver) {
      {
        const NSSynchronized monitor(listener->connectionConditions());
        const std::size_t conditions = listener->connectionConditions().count();
        isWhole = isWhole && listener->receivedConnections().count() == conditions &&
                  listener->receivedProxyObjects().count() <= conditions;
      }
      std::this_thread::yield();
    }
    return isWhole;
  });
  for (int round = 0; round < 1000; ++round) {
    const auto client = accept();
    listener->close(client.id);
  }
  isOver = true;
  EXPECT_TRUE(finish(watching));
}

TEST_F(ListenerLocks, ACloseInTheMiddleOfAnAcceptanceLeavesNothing) {
  PROVES("listener.accept.30",
         "a connection that another thread closes while it is accepted leaves nothing in the tables");
  constexpr int kRounds = rounds(20'000);
  start();
  NSString accepted;
  std::atomic<int> readied{0}, closing{0}, closed{0};
  const auto waitFor = [](const std::atomic<int>& reached, int round) {
    while (reached < round) std::this_thread::yield();
  };
  delegate->recorded.onReady([&](const NSString& id) {
    accepted = id;
    const int round = ++readied;
    waitFor(closing, round);
    // What follows falls everywhere into the close.
    const auto end = std::chrono::steady_clock::now() + std::chrono::nanoseconds(round * 37 % 20'000);
    while (std::chrono::steady_clock::now() < end) continue;
  });
  auto closer = inBackground([&] {
    for (int round = 1; round <= kRounds; ++round) {
      waitFor(readied, round);
      closing = round;
      listener->close(accepted);
      closed = round;
    }
  });
  int left = 0;
  for (int round = 1; round <= kRounds; ++round) {
    platform.listener(1).offerConnection();
    waitFor(closed, round);
    left += tables(accepted).empty() ? 0 : 1;
    journal().take();
  }
  closer.wait();
  EXPECT_EQ(left, 0);
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
