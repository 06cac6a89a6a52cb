// Whatever a callback does to the client that calls it, as ReentrancyListener_test.cpp has it for the listener.

#include "tests/conformance/ReentrancyFixture.h"

namespace velto::testing {
namespace {

using ClientReentrancy = ReentrancyTest;
INSTANTIATE_TEST_SUITE_P(, ClientReentrancy, kArrangementsHere, printArrangement);

TEST_P(ClientReentrancy, InConnectionReady) {
  PROVES("reentrancy.client.1",
         "inside the client's connectionReady every public function can be called, and by another thread that the "
         "callback waits for");
  const ListenerEnd server(kName);
  server.delegate->echo();
  const auto delegate = std::make_shared<RecordingDelegate>();
  Gate known;
  VeltoConnection* made = nullptr;
  Once once([&] {
    known.wait();
    callEverythingTwice(*made);
    EXPECT_EQ(made->sendMessageSync(plainMessage(), kLong), plainMessage());
  });
  delegate->onReady([&](const NSString&) { once.run(); });
  const EarlyClient client(delegate);
  made = client.connection.get();
  known.open();
  once.wait();
  delegate->quiesce();
}

TEST_P(ClientReentrancy, InReceivedMessage) {
  PROVES("reentrancy.client.2",
         "inside the client's receivedMessage every public function can be called, and by another thread that the "
         "callback waits for");
  const TwoEnds ends;
  ends.server.delegate->echo();
  Once once([&] {
    callEverythingTwice(*ends.client.connection);
    EXPECT_EQ(ends.client.connection->sendMessageSync(plainMessage(), kLong), plainMessage());
  });
  ends.client.delegate->onMessage([&](const NSDictionary&, const NSString&, const VeltoReplyHandler&) { once.run(); });
  EXPECT_TRUE(ends.server.listener->sendMessage(plainMessage(), ends.id));
  once.wait();
  ends.client.delegate->quiesce();
  expectAlive(ends);
}

TEST_P(ClientReentrancy, InTheErrorOfAnInvalidation) {
  PROVES("reentrancy.client.3",
         "inside the client's connectionError of an invalidation every public function can be called, and by another "
         "thread that the callback waits for");
  const TwoEnds ends;
  Once once([&] {
    callEverythingTwice(*ends.client.connection);
    ends.client.connection->close();
  });
  inError(*ends.client.delegate, once, "Listener connection invalidated");
  ends.server.listener->close(ends.id);
  once.wait();
  ends.client.delegate->quiesce();
  EXPECT_EQ(ends.client.connection->listenerProxyObject(), nullptr);
}

TEST_P(ClientReentrancy, InTheErrorOfAForeignIdentifier) {
  PROVES("reentrancy.client.4",
         "inside the client's connectionError of a foreign identifier every public function can be called, and by "
         "another thread that the callback waits for");
  const TwoEnds ends;
  ends.server.delegate->echo();
  Once once([&] {
    callEverythingTwice(*ends.client.connection);
    EXPECT_EQ(ends.client.connection->sendMessageSync(plainMessage(), kLong), plainMessage());
  });
  inError(*ends.client.delegate, once, "connectionID is not correct with message sent");
  {
    const NSObject proxy = ends.server.listener->receivedProxyObjects()[ends.id];
    ends.server.listener->receivedProxyObjects().setObject(proxy, "alias");
  }
  EXPECT_TRUE(ends.server.listener->sendMessage(plainMessage(), "alias"));
  once.wait();
  ends.client.delegate->quiesce();
  expectAlive(ends);
}

TEST_P(ClientReentrancy, InTheErrorOfAFailedCall) {
  PROVES("reentrancy.client.5",
         "inside the client's connectionError of a failed call every public function can be called, and by another "
         "thread that the callback waits for");
  const TwoEnds ends;
  Once once([&] { callEverythingTwice(*ends.client.connection); });
  inError(*ends.client.delegate, once);
  ends.server.delegate->onMessage(
      [](const NSDictionary&, const NSString&, const VeltoReplyHandler& reply) { reply(messageWithAnchor()); });
  EXPECT_TRUE(ends.client.connection->sendMessage(plainMessage()));
  once.wait();
  ends.client.delegate->quiesce();
  ends.server.delegate->quiesce();
  expectAlive(ends);
}

TEST_P(ClientReentrancy, InTheErrorOfANameThatNobodyHas) {
  PROVES("reentrancy.client.6",
         "inside the client's connectionError of a name that nobody has every public function can be called, and by "
         "another thread that the callback waits for");
  const auto delegate = std::make_shared<RecordingDelegate>();
  Gate known;
  VeltoConnection* made = nullptr;
  Once once([&] {
    known.wait();
    callEverythingTwice(*made);
    made->close();
  });
  inError(*delegate, once, "Listener not available");
  const EarlyClient client(delegate);
  made = client.connection.get();
  known.open();
  once.wait();
  delegate->waitForError("Daemon connection invalidated");
  delegate->quiesce();
}

TEST_P(ClientReentrancy, InTheErrorOfTheBrokerLink) {
  PROVES("reentrancy.client.7",
         "inside the client's connectionError of the broker link every public function can be called, and by another "
         "thread that the callback waits for");
  const TwoEnds ends;
  Once once([&] { callEverythingTwice(*ends.client.connection); });
  inError(*ends.client.delegate, once, "Daemon connection invalidated");
  ends.client.connection->daemonConnection()->invalidate();
  once.wait();
  ends.client.delegate->quiesce();
  expectAlive(ends);
}

TEST_P(ClientReentrancy, InAReplyHandler) {
  PROVES("reentrancy.client.8",
         "inside a reply handler of the client every public function can be called, and by another thread that the "
         "callback waits for");
  const TwoEnds ends;
  ends.server.delegate->echo();
  Once once([&] {
    callEverythingTwice(*ends.client.connection);
    EXPECT_EQ(ends.client.connection->sendMessageSync(plainMessage(), kLong), plainMessage());
  });
  EXPECT_TRUE(ends.client.connection->sendMessage(plainMessage(), nullptr, [&](const NSDictionary&) { once.run(); }));
  once.wait();
  expectAlive(ends);
}

}  // namespace
}  // namespace velto::testing
