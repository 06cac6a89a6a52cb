// Ends that go away in the midst of something: while messages come in, while the connection is being made, while a
// reply is owed.

#include <thread>

#include "tests/peer/Payload.h"
#include "tests/support/Census.h"
#include "tests/support/LibraryTest.h"

namespace velto::testing {
namespace {

using Races = LibraryTest;

// A place in the life of something that takes a fraction of a millisecond: no wait for an event could hit all of them.
void spin(int turns) {
  for (int turn = 0; turn < turns; ++turn) std::this_thread::yield();
}

TEST_F(Races, AClientMayBeDestroyedWhileItReceives) {
  ListenerEnd server("flood");
  for (int round = 0; round < 40; ++round) {
    std::weak_ptr<VeltoConnection> watched;
    std::weak_ptr<RecordingDelegate> delegate;
    NSString id;
    std::thread flood;
    {
      auto end = std::make_unique<ClientEnd>("flood");
      id = end->ready();
      watched = end->connection;
      delegate = end->delegate;
      flood = std::thread([&] {
        for (int number = 0; number < 50; ++number) server.listener->sendMessage({{"number", number}}, id);
      });
      if (round % 2 == 0) end->delegate->waitForMessages(1);
      spin(round);
    }
    flood.join();
    ASSERT_TRUE(eventually([&] { return watched.expired() && delegate.expired(); }));
  }
}

TEST_F(Races, AListenerMayBeDestroyedWhileItReceives) {
  for (int round = 0; round < 30; ++round) {
    std::weak_ptr<VeltoListener> watched;
    auto server = std::make_unique<ListenerEnd>("flood");
    ClientEnd client("flood");
    client.ready();
    watched = server->listener;
    std::thread flood([&] {
      for (int number = 0; number < 50; ++number) client.connection->sendMessage({{"number", number}});
    });
    server->delegate->waitForMessages(1);
    spin(round);
    server.reset();
    flood.join();
    client.delegate->waitForError("Listener connection invalidated");
    EXPECT_TRUE(eventually([&] { return watched.expired(); }));
  }
}

TEST_F(Races, ADelegateMayBeDestroyedWhileItsClientReceives) {
  ListenerEnd server("flood");
  for (int round = 0; round < 40; ++round) {
    auto delegate = std::make_shared<RecordingDelegate>();
    const std::weak_ptr<RecordingDelegate> watched = delegate;
    const auto client = VeltoConnection::initWithServiceName("flood", delegate);
    ASSERT_TRUE(client->waitUntilReady(20.0));
    std::thread flood([&] {
      for (int number = 0; number < 50; ++number) server.listener->sendMessage({{"number", number}}, client->getID());
    });
    spin(round);
    delegate.reset();
    flood.join();
    EXPECT_TRUE(eventually([&] { return watched.expired(); }));
    client->close();
    waitUntilAlone(client);
  }
}

TEST_F(Races, AConnectionMayBeClosedAtAnyMomentOfItsMaking) {
  ListenerEnd server("sudden");
  server.delegate->echo();
  for (int round = 0; round < 150; ++round) {
    ClientEnd client("sudden");
    spin(round % 50);
    client.connection->close();
    EXPECT_FALSE(client.connection->daemonConnection());
    // Whatever was under way when close() came must not put a connection back.
    ASSERT_TRUE(eventually([&] { return !client.connection->listenerConnection(); }));
  }
  // The listener has let go of those that it had heard of.
  EXPECT_TRUE(eventually([&] {
    const NSSynchronized monitor(server.listener->connectionConditions());
    return server.listener->receivedConnections().count() == 0;
  }));
  ClientEnd late("sudden");
  late.ready();
  EXPECT_EQ(late.connection->sendMessageSync(messageOf("echo:1"), 20.0), messageOf("echo:1"));
}

// A reply that nobody waits for any more, from threads of the test's own.
class LateReplies : public LibraryTest {
 protected:
  // The one message that the listener has got, and whose reply is still owed.
  VeltoReplyHandler owed(std::size_t count = 1) {
    pair.server.delegate->waitForMessages(count);
    return pair.server.delegate->messages().at(count - 1).reply;
  }
  static void callFromManyThreads(const VeltoReplyHandler& reply) {
    std::vector<std::thread> threads;
    for (int number = 0; number < 4; ++number) {
      threads.emplace_back([&reply, number] { reply({{"thread", number}}); });
    }
    for (std::thread& thread : threads) thread.join();
  }
  void expectLife() {
    pair.server.delegate->echo();
    pair.roundTrip();
  }

  Pair pair;
};

TEST_F(LateReplies, AfterTheTimeOutAreDropped) {
  NSError error;
  EXPECT_TRUE(pair.client.connection->sendMessageSync({{"owed", 1}}, 0.01, &error).isNil());
  expectError(error, 6, "Timed out waiting");
  callFromManyThreads(owed());
  expectLife();
  EXPECT_TRUE(pair.client.delegate->errors().empty());
}

TEST_F(LateReplies, FromManyThreadsAtOnceAreOneReply) {
  std::atomic<int> replies{0};
  ASSERT_TRUE(pair.client.connection->sendMessage({{"owed", 1}}, nullptr, [&](const NSDictionary&) { ++replies; }));
  callFromManyThreads(owed());
  expectLife();
  // Replies run in the order in which they came: once this one has, all of the others have.
  std::promise<void> last;
  ASSERT_TRUE(
      pair.client.connection->sendMessage({{"last", 1}}, nullptr, [&](const NSDictionary&) { last.set_value(); }));
  ASSERT_EQ(last.get_future().wait_for(kBound), std::future_status::ready);
  EXPECT_EQ(replies, 1);
}

TEST_F(LateReplies, AfterTheClientsCloseAreDropped) {
  ASSERT_TRUE(pair.client.connection->sendMessage({{"owed", 1}}));
  const VeltoReplyHandler reply = owed();
  pair.client.connection->close();
  callFromManyThreads(reply);
  pair.server.delegate->waitForError("Connection invalidated");
  callFromManyThreads(reply);
  ClientEnd other("org.velto.test.pair");
  pair.server.delegate->echo();
  other.ready();
  EXPECT_EQ(other.connection->sendMessageSync(messageOf("echo:1"), 20.0), messageOf("echo:1"));
}

TEST_F(LateReplies, AfterTheListenersOwnCloseAreDropped) {
  ASSERT_TRUE(pair.client.connection->sendMessage({{"owed", 1}}));
  const VeltoReplyHandler reply = owed();
  std::thread caller([&] { callFromManyThreads(reply); });
  pair.server.listener->close(pair.id);
  caller.join();
  callFromManyThreads(reply);
  pair.client.delegate->waitForError("Listener connection invalidated");
  pair.server.delegate->waitForError("Connection invalidated");
  EXPECT_EQ(pair.server.delegate->errorCount("Connection invalidated"), 1u);
}

TEST_F(LateReplies, ThatNeverComeLeaveTheSenderToItsTimeOut) {
  // Let go of uncalled: the sender's end is told so, and keeps nothing; whoever waits, waits for the time-out.
  std::atomic<int> received{0};
  pair.server.delegate->onMessage([&](const NSDictionary&, const NSString&, const VeltoReplyHandler&) { ++received; });
  NSError error;
  EXPECT_TRUE(pair.client.connection->sendMessageSync({{"owed", 1}}, 0.05, &error).isNil());
  expectError(error, 6, "Timed out waiting");
  EXPECT_TRUE(eventually([&] { return received == 1; }));
  expectLife();
}

}  // namespace
}  // namespace velto::testing
