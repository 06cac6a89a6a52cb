// After everything is closed, everything is given back.

#include "tests/support/Census.h"

#include "platform/xpc/contract/Limits.h"
#include "tests/support/BrokerLink.h"
#include "tests/support/LibraryTest.h"
#include "tests/support/RawPeer.h"

namespace velto::testing {
namespace {

class Census : public LibraryTest {
 protected:
  // What the platform keeps for the life of the process is made by the first use, and does not count.
  void SetUp() override {
    useEverything();
    ASSERT_TRUE(comesDownTo(runningThreads, threadsAtRest()));
    descriptors = lowest(openDescriptors);
  }

  // Idle threads that the platform may keep, and those that were there before.
  std::size_t threadsAtRest() const { return threads + limits::kSpareWorkers; }

  static bool comesDownTo(std::size_t (*count)(), std::size_t expected) {
    const bool done = eventually([&] { return count() <= expected; });
    EXPECT_TRUE(done) << count() << ", expected at most " << expected;
    return done;
  }

  // The count once it has stopped falling.
  static std::size_t lowest(std::size_t (*count)()) {
    std::size_t least = count();
    eventually(
        [&] {
          least = std::min(least, count());
          return false;
        },
        std::chrono::milliseconds(300));
    return least;
  }

  static void useEverything() {
    ListenerEnd server("org.velto.test.census");
    server.delegate->echo();
    std::vector<std::unique_ptr<ClientEnd>> clients;
    for (int number = 0; number < 5; ++number) {
      clients.push_back(std::make_unique<ClientEnd>("org.velto.test.census"));
      const NSString id = clients.back()->ready();
      clients.back()->delegate->echo();
      EXPECT_TRUE(clients.back()->connection->sendMessageSync({{"number", number}}, 20.0));
      EXPECT_TRUE(server.listener->sendMessageSync({{"number", number}}, id, 20.0));
      // Replies that are owed when the connection ends, and calls that still wait for theirs.
      clients.back()->delegate->onMessage({});
      EXPECT_TRUE(server.listener->sendMessage({{"no", "answer"}}, id));
    }
    server.listener->close(clients.at(0)->connection->getID());
    clients.at(1)->connection->close();
    ClientEnd nobody("org.velto.test.nobody");
    nobody.delegate->waitForError("Listener not available");
    auto abandoned = VeltoConnection::initWithServiceName("org.velto.test.census", nullptr);
    abandoned->waitUntilReady(20.0);
    abandoned.reset();
  }

  const std::size_t threads = runningThreads();
  std::size_t descriptors = 0;
};

TEST_F(Census, DescriptorsReturnToWhereTheyWere) {
  for (int round = 0; round < 3; ++round) useEverything();
  EXPECT_TRUE(comesDownTo(openDescriptors, descriptors));
}

TEST_F(Census, ThreadsReturnToThoseThatAreKept) {
  for (int round = 0; round < 3; ++round) useEverything();
  EXPECT_TRUE(comesDownTo(runningThreads, threadsAtRest()));
}

TEST_F(Census, AListenerLetGoOfWithoutCloseGivesItsDescriptorsBack) {
  for (int round = 0; round < 3; ++round) {
    auto listener = VeltoListener::initWithServiceName("org.velto.test.census", nullptr);
    settle(listener->daemonConnection());
  }
  EXPECT_TRUE(comesDownTo(openDescriptors, descriptors));
}

TEST_F(Census, ClosedObjectsAreDestroyed) {
  std::weak_ptr<VeltoListener> listener;
  std::weak_ptr<VeltoConnection> connection;
  std::weak_ptr<RecordingDelegate> delegate;
  {
    Pair pair;
    pair.server.delegate->echo();
    pair.roundTrip();
    listener = pair.server.listener;
    connection = pair.client.connection;
    delegate = pair.server.delegate;
  }
  EXPECT_TRUE(eventually([&] { return listener.expired() && connection.expired() && delegate.expired(); }));
}

TEST_F(Census, ABareListenersClientsLeaveNothingBehind) {
  for (int round = 0; round < 3; ++round) {
    const auto listener = BareListener::start();
    BareClient client(listener->endpoint());
    client.proxy->call<&VeltoCommunicationMessageProtocol::ping>();
    listener->exported->waitFor("ping");
  }
  EXPECT_TRUE(comesDownTo(openDescriptors, descriptors));
}

}  // namespace
}  // namespace velto::testing
