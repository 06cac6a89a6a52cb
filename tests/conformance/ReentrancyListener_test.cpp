// Whatever a callback does to the listener that calls it. Each test provokes one callback in which every public
// function is called, on its own thread, and then by another thread that the callback waits for: with a lock of the
// library held, or with a callback that must return first, it would never end.

#include <csignal>

#include "tests/conformance/ReentrancyFixture.h"

namespace velto::testing {
namespace {

using ListenerReentrancy = ReentrancyTest;
INSTANTIATE_TEST_SUITE_P(, ListenerReentrancy, kArrangementsHere, printArrangement);

TEST_P(ListenerReentrancy, InConnectionReady) {
  PROVES("reentrancy.listener.1",
         "inside the listener's connectionReady every public function can be called, and by another thread that the "
         "callback waits for");
  const ListenerEnd server(kName);
  NSString id;
  Once once([&] { callEverythingTwice(*server.listener, id); });
  server.delegate->onReady([&](const NSString& ready) {
    if (id.isNil()) id = ready;
    once.run();
  });
  ClientEnd client(kName);
  once.wait();
  server.delegate->quiesce();
  client.ready();
  expectServing(server);
}

TEST_P(ListenerReentrancy, InReceivedMessage) {
  PROVES("reentrancy.listener.2",
         "inside the listener's receivedMessage every public function can be called, and by another thread that the "
         "callback waits for");
  const TwoEnds ends;
  ends.client.delegate->echo();
  Once once([&] {
    callEverythingTwice(*ends.server.listener, ends.id);
    EXPECT_EQ(ends.server.listener->sendMessageSync(plainMessage(), ends.id, kLong), plainMessage());
  });
  ends.server.delegate->onMessage([&](const NSDictionary&, const NSString&, const VeltoReplyHandler&) { once.run(); });
  EXPECT_TRUE(ends.client.connection->sendMessage(plainMessage()));
  once.wait();
  ends.server.delegate->quiesce();
  expectAlive(ends);
}

TEST_P(ListenerReentrancy, InTheErrorOfAnInvalidation) {
  PROVES("reentrancy.listener.3",
         "inside the listener's connectionError of an invalidation every public function can be called, and by another "
         "thread that the callback waits for");
  const TwoEnds ends;
  Once once([&] {
    callEverythingTwice(*ends.server.listener, ends.id);
    ends.server.listener->close(ends.id);
  });
  inError(*ends.server.delegate, once, "Connection invalidated");
  ends.client.connection->close();
  once.wait();
  ends.server.delegate->quiesce();
  EXPECT_TRUE(eventually([&] { return ends.server.entries(ends.id) == kNoEntries; }));
  expectServing(ends.server);
}

TEST_P(ListenerReentrancy, InTheErrorOfAnInterruption) {
  PROVES("reentrancy.listener.4",
         "inside the listener's connectionError of an interruption every public function can be called, and by another "
         "thread that the callback waits for");
  const ListenerEnd server(kName);
  ChildActor client;
  client.ask(std::string("connect ") + kName);
  ASSERT_EQ(client.ask("ready 20"), "yes");
  const NSString id = client.ask("id");
  Once once([&] {
    callEverythingTwice(*server.listener, id);
    server.listener->close(id);
  });
  inError(*server.delegate, once, "Connection interrupted");
  client.process().signal(SIGKILL);
  once.wait();
  server.delegate->quiesce();
  EXPECT_EQ(server.delegate->waitForError("Connection interrupted").connectionID, id);
  EXPECT_EQ(server.entries(id), kNoEntries);
  expectServing(server);
}

TEST_P(ListenerReentrancy, InTheErrorOfAFailedCall) {
  PROVES("reentrancy.listener.5",
         "inside the listener's connectionError of a failed call every public function can be called, and by another "
         "thread that the callback waits for");
  const TwoEnds ends(ListenerEnd::Types::any);
  ends.client.delegate->echo();
  Once once([&] {
    callEverythingTwice(*ends.server.listener, ends.id);
    EXPECT_EQ(ends.server.listener->sendMessageSync(plainMessage(), ends.id, kLong), plainMessage());
  });
  inError(*ends.server.delegate, once);
  EXPECT_TRUE(ends.server.listener->sendMessage(messageWithAnchor(), ends.id));
  once.wait();
  ends.server.delegate->quiesce();
  expectAlive(ends);
}

TEST_P(ListenerReentrancy, InTheErrorThatAClientReports) {
  PROVES("reentrancy.listener.6",
         "inside the listener's connectionError of a client's report every public function can be called, and by "
         "another thread that the callback waits for");
  const ListenerEnd server(kName);
  const auto client = bareClient();
  const NSString id = client->handshake();
  Once once([&] { callEverythingTwice(*server.listener, id); });
  inError(*server.delegate, once);
  client->proxy->call<&VeltoCommunicationMessageProtocol::connectionError>(reportedError());
  once.wait();
  server.delegate->quiesce();
  EXPECT_EQ(server.entries(id), kAllEntries);
  expectServing(server);
}

TEST_P(ListenerReentrancy, InTheErrorOfTheBrokerLink) {
  PROVES("reentrancy.listener.7",
         "inside the listener's connectionError of the broker link every public function can be called, and by another "
         "thread that the callback waits for");
  const TwoEnds ends;
  Once once([&] { callEverythingTwice(*ends.server.listener, ends.id); });
  inError(*ends.server.delegate, once, "Daemon connection invalidated");
  ends.server.listener->daemonConnection()->invalidate();
  once.wait();
  ends.server.delegate->quiesce();
  expectAlive(ends);
}

TEST_P(ListenerReentrancy, InAReplyHandler) {
  PROVES("reentrancy.listener.8",
         "inside a reply handler of the listener every public function can be called, and by another thread that the "
         "callback waits for");
  const TwoEnds ends;
  ends.client.delegate->echo();
  Once once([&] {
    callEverythingTwice(*ends.server.listener, ends.id);
    EXPECT_EQ(ends.server.listener->sendMessageSync(plainMessage(), ends.id, kLong), plainMessage());
  });
  EXPECT_TRUE(
      ends.server.listener->sendMessage(plainMessage(), ends.id, nullptr, [&](const NSDictionary&) { once.run(); }));
  once.wait();
  expectAlive(ends);
}

}  // namespace
}  // namespace velto::testing
