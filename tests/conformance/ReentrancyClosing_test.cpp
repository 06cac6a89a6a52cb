// The close of an end inside one of its own callbacks, whichever it is: all ends as if it were closed elsewhere.

#include <csignal>

#include "tests/conformance/ReentrancyFixture.h"

namespace velto::testing {
namespace {

using ReentrancyClosing = ReentrancyTest;
INSTANTIATE_TEST_SUITE_P(, ReentrancyClosing, kArrangementsHere, printArrangement);

// The callbacks of a listener, each of which closes it.
enum class ListenerPlace { ready, message, invalidation, report, failedCall, link, reply };

// A listener that is closed inside one of its callbacks, and what brings that callback.
class ClosedInside {
 public:
  explicit ClosedInside(ListenerPlace place) : place_(place) {
    RecordingDelegate& delegate = *server.delegate;
    if (place == ListenerPlace::ready) delegate.onReady([this](const NSString&) { once_.run(); });
    if (place == ListenerPlace::message)
      delegate.onMessage([this](const NSDictionary&, const NSString&, const VeltoReplyHandler&) { once_.run(); });
    delegate.onError([this](const NSString&, const NSError&) { once_.run(); });
  }

  // Returns once the close has been called.
  void provoke(BareClient& client, const NSString& id) {
    using Peer = VeltoCommunicationMessageProtocol;
    const auto& listener = server.listener;
    if (place_ == ListenerPlace::message)
      client.proxy->call<&Peer::connectionID>(id, plainMessage(), VeltoReplyHandler());
    if (place_ == ListenerPlace::invalidation) client.connection->invalidate();
    if (place_ == ListenerPlace::report) client.proxy->call<&Peer::connectionError>(reportedError());
    if (place_ == ListenerPlace::failedCall) {
      listener->setStrictMessageTypes(false);
      listener->sendMessage(messageWithAnchor(), id);
    }
    if (place_ == ListenerPlace::link) listener->daemonConnection()->invalidate();
    if (place_ == ListenerPlace::reply) {
      listener->sendMessage(plainMessage(), id, nullptr, [this](const NSDictionary&) { once_.run(); });
      client.exported->waitFor("connectionID:withMessage:handler:").reply(plainMessage());
    }
    once_.wait();
  }

  ~ClosedInside() { server.delegate->quiesce(); }
  ClosedInside(const ClosedInside&) = delete;
  ClosedInside& operator=(const ClosedInside&) = delete;

  const ListenerEnd server{kName};

 private:
  const ListenerPlace place_;
  Once once_{[this] { server.listener->close(); }};
};

TEST_P(ReentrancyClosing, OfAListenerInsideAnyCallbackEndsAllAsUsual) {
  PROVES("reentrancy.close.1", "a listener that is closed inside any of its callbacks ends as if closed elsewhere");
  for (const auto place :
       {ListenerPlace::ready, ListenerPlace::message, ListenerPlace::invalidation, ListenerPlace::report,
        ListenerPlace::failedCall, ListenerPlace::link, ListenerPlace::reply}) {
    SCOPED_TRACE(static_cast<int>(place));
    ClosedInside closed(place);
    const auto& [listener, delegate] = std::tie(closed.server.listener, closed.server.delegate);
    const auto client = bareClient();
    client->proxy->call<&VeltoCommunicationMessageProtocol::ping>();
    ASSERT_TRUE(delegate->waitForReadies(1));
    const NSString id = delegate->readies().front().connectionID;
    if (place != ListenerPlace::ready) client->exported->waitFor("connectionUUID:");
    closed.provoke(*client, id);
    EXPECT_EQ(delegate->waitForError("Connection invalidated").connectionID, id);
    EXPECT_TRUE(delegate->waitForError("Daemon connection invalidated").connectionID.isNil());
    waitUntilAlone(listener);
    EXPECT_EQ(delegate->errorCount("Connection invalidated"), 1u);
    EXPECT_EQ(delegate->errorCount("Daemon connection invalidated"), 1u);
    EXPECT_EQ(listener->daemonConnection(), nullptr);
    EXPECT_EQ(closed.server.entries(id), kNoEntries);
    delegate->quiesce();
  }
}

TEST_P(ReentrancyClosing, OfAListenerInsideTheErrorOfAnInterruptionEndsAllAsUsual) {
  PROVES("reentrancy.close.1", "a listener that is closed inside any of its callbacks ends as if closed elsewhere");
  const ListenerEnd server(kName);
  Once once([&] { server.listener->close(); });
  inError(*server.delegate, once, "Connection interrupted");
  ChildActor client;
  client.ask(std::string("connect ") + kName);
  ASSERT_EQ(client.ask("ready 20"), "yes");
  client.process().signal(SIGKILL);
  once.wait();
  server.delegate->waitForError("Connection invalidated");
  server.delegate->waitForError("Daemon connection invalidated");
  waitUntilAlone(server.listener);
  EXPECT_EQ(server.delegate->errors().size(), 3u);
  EXPECT_EQ(server.listener->receivedConnections().count(), 0u);
}

TEST_P(ReentrancyClosing, OfAClientInsideAnyCallbackEndsAllAsUsual) {
  PROVES("reentrancy.close.2", "a client that is closed inside any of its callbacks ends as if closed elsewhere");
  enum class Place { ready, message, report, invalidation, link, reply };
  const ListenerEnd server(kName);
  server.delegate->echo();
  std::size_t ended = 0;
  for (const Place place :
       {Place::ready, Place::message, Place::report, Place::invalidation, Place::link, Place::reply}) {
    SCOPED_TRACE(static_cast<int>(place));
    const auto delegate = std::make_shared<RecordingDelegate>();
    Gate known;
    VeltoConnection* made = nullptr;
    Once once([&] {
      known.wait();
      made->close();
    });
    if (place == Place::ready) delegate->onReady([&](const NSString&) { once.run(); });
    if (place == Place::message)
      delegate->onMessage([&](const NSDictionary&, const NSString&, const VeltoReplyHandler&) { once.run(); });
    inError(*delegate, once);
    const EarlyClient client(delegate);
    made = client.connection.get();
    known.open();
    ASSERT_TRUE(server.delegate->waitForReadies(++ended));
    ASSERT_TRUE(delegate->waitForReadies(1));
    const NSString id = delegate->readies().front().connectionID;
    if (place == Place::message) server.listener->sendMessage(plainMessage(), id);
    if (place == Place::report) client.connection->connectionError(reportedError());
    if (place == Place::invalidation) server.listener->close(id);
    if (place == Place::link) client.connection->daemonConnection()->invalidate();
    if (place == Place::reply)
      client.connection->sendMessage(plainMessage(), nullptr, [&](const NSDictionary&) { once.run(); });
    once.wait();
    EXPECT_EQ(delegate->waitForError("Listener connection invalidated").connectionID, id);
    EXPECT_TRUE(delegate->waitForError("Daemon connection invalidated").connectionID.isNil());
    waitUntilAlone(client.connection);
    EXPECT_EQ(delegate->errorCount("Listener connection invalidated"), 1u);
    EXPECT_EQ(delegate->errorCount("Daemon connection invalidated"), 1u);
    server.delegate->waitForError("Connection invalidated", ended);
    delegate->quiesce();
  }
}

}  // namespace
}  // namespace velto::testing
