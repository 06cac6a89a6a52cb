// What a listener makes of the end of a connection, of calls that fail, and of what clients report.

#include <csignal>
#include <set>
#include <thread>

#include "platform/foundation/NSSynchronized.h"
#include "platform/xpc/NSXPCError.h"
#include "tests/conformance/ListenerFixture.h"

namespace velto::testing {
namespace {

using ListenerEvents = ListenerHere;
INSTANTIATE_TEST_SUITE_P(, ListenerEvents, kArrangementsHere, printArrangement);

std::string clearedLine(const NSString& id) {
  return "Cleared out connections and objects for " + id.string();
}

std::string invalidatedLine(const NSString& id) {
  return "VeltoConnection connection " + id.string() + " invalidated. Closing connection";
}

TEST_P(ListenerEvents, AnInvalidationIsLoggedThenToldThenClosed) {
  PROVES("listener.invalidated.1",
         "an invalidation is logged at level 2 as \"VeltoConnection connection ID invalidated. Closing connection\", "
         "then told to the delegate");
  PROVES("listener.invalidated.2",
         "an invalidation is told with the connection's identifier and code 2 \"Connection invalidated\"");
  PROVES("listener.invalidated.3",
         "the delegate hears of an invalidation while the tables still hold the connection; after that it is closed "
         "and \"Cleared out\" logged");
  const TwoEnds ends;
  clearLogOfHandshakes();
  std::optional<ListenerEnd::Entries> entries;
  bool logged = false;
  std::size_t cleared = 9;
  ends.server.delegate->onError([&](const NSString& id, const NSError&) {
    entries = ends.server.entries(id);
    logged = log.count(2, invalidatedLine(id)) == 1;
    cleared = log.count(2, clearedLine(id));
  });
  ends.client.connection->close();
  log.waitFor(2, clearedLine(ends.id));
  ends.server.delegate->quiesce();
  ASSERT_EQ(ends.server.delegate->errors().size(), 1u);
  const Event event = ends.server.delegate->errors().front();
  EXPECT_EQ(event.connectionID, ends.id);
  expectError(event.error, 2, "Connection invalidated");
  EXPECT_EQ(entries, kAllEntries);
  EXPECT_TRUE(logged);
  EXPECT_EQ(cleared, 0u);
  EXPECT_EQ(ends.server.entries(ends.id), kNoEntries);
  EXPECT_EQ(log.count(2, clearedLine(ends.id)), 1u);
}

TEST_P(ListenerEvents, AnInvalidationConcernsItsOwnConnection) {
  PROVES("listener.invalidated.6", "an invalidation concerns its own connection only");
  const TwoEnds ends;
  ClientEnd other(kName);
  const NSString otherID = other.ready();
  ends.client.connection->close();
  log.waitFor(2, clearedLine(ends.id));
  EXPECT_EQ(ends.server.entries(otherID), kAllEntries);
  EXPECT_EQ(ends.server.entries(ends.id), kNoEntries);
  EXPECT_EQ(ends.server.delegate->errors().size(), 1u);
}

TEST_P(ListenerEvents, AnInvalidationWithoutADelegateClosesTheConnection) {
  PROVES("listener.invalidated.5", "an invalidation without a delegate closes the connection all the same");
  const TwoEnds ends;
  ends.server.listener->setDelegate(nullptr);
  ends.client.connection->close();
  log.waitFor(2, clearedLine(ends.id));
  EXPECT_EQ(log.count(2, invalidatedLine(ends.id)), 1u);
  EXPECT_EQ(ends.server.entries(ends.id), kNoEntries);
  EXPECT_TRUE(ends.server.delegate->errors().empty());
}

TEST_P(ListenerEvents, AClientThatVanishesIsToldAsInterruptedAndThenAsInvalidated) {
  PROVES(
      "listener.interrupted.1",
      "an interruption is logged at level 0 as \"VeltoConnection connection interrupted\", then told to the delegate");
  PROVES("listener.interrupted.2",
         "an interruption is told with the connection's identifier and code 2 \"Connection interrupted\"");
  PROVES("listener.interrupted.3", "an interrupted connection stays in all three tables and can be sent to");
  PROVES("listener.interrupted.6", "a client that vanishes is told as an interruption and then as an invalidation");
  const ListenerEnd server(kName);
  ChildActor client;
  client.ask(std::string("connect ") + kName);
  ASSERT_EQ(client.ask("ready 20"), "yes");
  const NSString id = client.ask("id");
  std::vector<ListenerEnd::Entries> entries;
  std::vector<std::size_t> logged;
  server.delegate->onError([&](const NSString& which, const NSError&) {
    entries.push_back(server.entries(which));
    logged.push_back(log.count(0, "VeltoConnection connection interrupted"));
  });
  client.process().signal(SIGKILL);
  log.waitFor(2, clearedLine(id));
  server.delegate->quiesce();
  const auto errors = server.delegate->errors();
  ASSERT_EQ(errors.size(), 2u);
  EXPECT_EQ(errors[0].connectionID, id);
  expectError(errors[0].error, 2, "Connection interrupted");
  EXPECT_EQ(errors[1].connectionID, id);
  expectError(errors[1].error, 2, "Connection invalidated");
  EXPECT_EQ(entries, (std::vector{kAllEntries, kAllEntries}));
  EXPECT_EQ(logged, (std::vector<std::size_t>{1, 1}));
}

TEST_P(ListenerEvents, AFailedCallIsLoggedThenToldAndClosesNothing) {
  PROVES("listener.proxy.1",
         "a failed call to a client is logged at level 0 as \"VeltoIPCListener Remote Proxy Error\" with the error, "
         "then told to the delegate");
  PROVES("listener.proxy.2",
         "a failed call to a client is told with its identifier and the platform's error unchanged");
  PROVES("listener.proxy.3", "a failed call to a client closes nothing");
  PROVES("listener.wire.2",
         "a message to a client that holds a VKTLogAnchor is refused: the delegate hears the platform's error with the "
         "identifier, and the connection stays");
  PROVES("listener.send.13",
         "true only tells that the proxy took the message: a later failure comes to the delegate with the identifier");
  const TwoEnds ends(ListenerEnd::Types::any);
  ends.client.delegate->echo();
  std::size_t logged = 0;
  std::atomic<bool> done{false};
  ends.server.delegate->onError([&](const NSString&, const NSError& error) {
    logged = log.count(0, "VeltoIPCListener Remote Proxy Error " + error.description().string());
    done = true;
  });
  NSError error;
  EXPECT_TRUE(ends.server.listener->sendMessage(messageWithAnchor(), ends.id, &error));
  EXPECT_TRUE(error.isNil());
  ASSERT_TRUE(eventually([&] { return done.load(); }));
  ends.server.delegate->quiesce();
  const Event event = ends.server.delegate->errors().front();
  EXPECT_EQ(event.connectionID, ends.id);
  expectPlatformError(event.error, NSXPCCallRefused);
  EXPECT_EQ(logged, 1u);
  EXPECT_EQ(ends.server.entries(ends.id), kAllEntries);
  EXPECT_EQ(ends.server.listener->sendMessageSync(plainMessage(), ends.id, kLong), plainMessage());
  EXPECT_EQ(ends.client.delegate->messages().size(), 1u) << "the refused message is not delivered";
  EXPECT_EQ(ends.server.delegate->errors().size(), 1u);
}

TEST_P(ListenerEvents, AreToldWithNoLockHeld) {
  PROVES("listener.handlers.2", "the delegate hears of interruption, invalidation and failed call with no lock held");
  const TwoEnds ends(ListenerEnd::Types::any);
  Mutex mutex;
  std::set<std::string> seen;
  std::atomic<int> done{0};
  ends.server.delegate->onError([&](const NSString&, const NSError& error) {
    auto other = inBackground([&] {
      NSSynchronized lock(ends.server.listener->connectionConditions());
      return ends.server.listener->receivedConnections().count();
    });
    finish(other);
    {
      MutexLock lock(mutex);
      seen.insert(error.localizedDescription().string());
    }
    ++done;
  });
  ends.server.listener->sendMessage(messageWithAnchor(), ends.id);
  ASSERT_TRUE(ends.server.delegate->waitForErrors(1));
  ends.client.connection->close();
  log.waitFor(2, clearedLine(ends.id));
  {
    ChildActor vanishing;
    vanishing.ask(std::string("connect ") + kName);
    ASSERT_EQ(vanishing.ask("ready 20"), "yes");
    vanishing.process().signal(SIGKILL);
    ASSERT_TRUE(eventually([&] { return done == 4; }));
  }
  ends.server.delegate->quiesce();
  EXPECT_TRUE(seen.contains("Connection interrupted"));
  EXPECT_TRUE(seen.contains("Connection invalidated"));
  EXPECT_EQ(seen.size(), 3u);
}

TEST_P(ListenerEvents, APingIsLoggedAndDoesNothing) {
  PROVES("listener.ping.1",
         "a ping is logged at level 2 as \"VeltoConnection Pinged VeltoListener\" and does nothing else");
  const TwoEnds ends;
  clearLogOfHandshakes();
  const auto before = ends.server.delegate->events().size();
  ends.server.listener->ping();
  EXPECT_EQ(linesOfEnds(), (Lines{{2, "VeltoConnection Pinged VeltoListener"}}));
  const auto client = bareClient();
  const NSString id = client->handshake();
  log.waitFor(2, "VeltoConnection Pinged VeltoListener", 2);
  client->proxy->call<&VeltoCommunicationMessageProtocol::ping>();
  log.waitFor(2, "VeltoConnection Pinged VeltoListener", 3);
  EXPECT_EQ(ends.server.delegate->events().size(), before + 1) << "no more than the second connectionReady";
  EXPECT_EQ(ends.server.listener->receivedConnections().count(), 2u);
  EXPECT_TRUE(client->errors.all().empty());
}

TEST_P(ListenerEvents, TheClientsMethodsAreLackingAtTheListener) {
  PROVES("listener.peer.1",
         "a listener lacks the two methods that are the client's: whoever calls them is refused, and the connection "
         "stays");
  const ListenerEnd server(kName);
  server.delegate->echo();
  const auto client = bareClient();
  const NSString id = client->handshake();
  client->proxy->call<&VeltoCommunicationMessageProtocol::setStrictMessageTypesRemote>(false);
  client->proxy->call<&VeltoCommunicationMessageProtocol::connectionUUID>(NSString("mine"));
  EXPECT_TRUE(eventually([&] { return client->errors.all().size() == 2; }));
  for (const NSError& error : client->errors.all()) expectPlatformError(error, NSXPCCallRefused);
  const ReplyProbe reply;
  client->proxy->call<&VeltoCommunicationMessageProtocol::connectionID>(id, plainMessage(), reply.handler());
  EXPECT_EQ(reply.wait(), plainMessage());
  EXPECT_EQ(server.entries(id), kAllEntries);
  NSError error;
  EXPECT_FALSE(server.listener->sendMessage(messageWithDate(), id, &error)) << "the listener's own flag is untouched";
  EXPECT_TRUE(server.delegate->errors().empty());
}

TEST_P(ListenerEvents, AReportedErrorIsPassedOnUnchanged) {
  PROVES("listener.report.1", "an error that a client reports reaches the delegate with a nil identifier, unchanged");
  PROVES("listener.report.2", "a nil error that a client reports stays nil");
  PROVES("listener.report.3", "a reported error logs nothing, closes nothing and changes no table");
  const ListenerEnd server(kName);
  server.delegate->echo();
  const auto client = bareClient();
  const NSString id = client->handshake();
  log.waitFor(2, "VeltoConnection Pinged VeltoListener");
  log.clear();
  const NSError reported = NSError::errorWithDomain("org.example", -17, {{"one", 1}, {"two", NSArray{"2"}}});
  client->proxy->call<&VeltoCommunicationMessageProtocol::connectionError>(reported);
  client->proxy->call<&VeltoCommunicationMessageProtocol::connectionError>(NSError());
  ASSERT_TRUE(server.delegate->waitForErrors(2));
  EXPECT_EQ(linesOfEnds(), Lines{});
  const auto errors = server.delegate->errors();
  EXPECT_TRUE(errors[0].connectionID.isNil());
  EXPECT_EQ(errors[0].error, reported);
  EXPECT_TRUE(errors[1].connectionID.isNil());
  EXPECT_TRUE(errors[1].error.isNil());
  EXPECT_EQ(server.entries(id), kAllEntries);
  const ReplyProbe reply;
  client->proxy->call<&VeltoCommunicationMessageProtocol::connectionID>(id, plainMessage(), reply.handler());
  EXPECT_EQ(reply.wait(), plainMessage());
  EXPECT_EQ(server.delegate->errors().size(), 2u);
}

TEST_P(ListenerEvents, AReportedErrorWithoutADelegateIsLost) {
  PROVES("listener.report.4", "a reported error without a delegate is lost");
  const ListenerEnd server(kName);
  server.listener->setDelegate(nullptr);
  const auto client = bareClient();
  const NSString id = client->handshake();
  log.waitFor(2, "VeltoConnection Pinged VeltoListener");
  log.clear();
  client->proxy->call<&VeltoCommunicationMessageProtocol::connectionError>(
      NSError::errorWithDomain("org.example", 1, nil));
  client->proxy->call<&VeltoCommunicationMessageProtocol::ping>();
  log.waitFor(2, "VeltoConnection Pinged VeltoListener");
  EXPECT_EQ(linesOfEnds().size(), 1u);
  EXPECT_EQ(server.entries(id), kAllEntries);
  EXPECT_TRUE(server.delegate->errors().empty());
}

TEST_P(ListenerEvents, AMessageUnderAForeignIdentifierComesBackAsCode5) {
  PROVES("listener.report.5",
         "a message under a foreign identifier comes back as code 5 \"connectionID is not correct with message sent\" "
         "with a nil identifier, and its handler is never called");
  PROVES("listener.send.17", "an entry among the proxies is all that a send needs");
  const TwoEnds ends;
  {
    NSSynchronized lock(ends.server.listener->connectionConditions());
    NSMutableDictionary proxies = ends.server.listener->receivedProxyObjects();
    proxies.setObject(proxies[ends.id], "alias");
  }
  const HandlerProbe probe;
  NSError error;
  EXPECT_TRUE(ends.server.listener->sendMessage(plainMessage(), "alias", &error, probe.handler()));
  const Event event = ends.server.delegate->waitForError("connectionID is not correct with message sent");
  EXPECT_TRUE(event.connectionID.isNil());
  expectError(event.error, 5, "connectionID is not correct with message sent");
  EXPECT_TRUE(eventually([&] { return probe.isReleased(); }));
  EXPECT_EQ(probe.calls(), 0u);
  EXPECT_EQ(ends.server.entries(ends.id), kAllEntries);
  EXPECT_TRUE(ends.client.delegate->messages().empty());
}

TEST_P(ListenerEvents, NeverRunACallbackOnAThreadThatCallsTheListener) {
  PROVES("listener.life.2", "no callback runs on a thread that calls a function of the listener");
  PROVES("listener.drop.13", "no callback runs inside close");
  PROVES("listener.close.15", "no callback runs inside close of the whole listener");
  std::atomic<int> here{0};
  std::atomic<int> heard{0};
  const auto note = [&, self = std::this_thread::get_id()] {
    ++heard;
    if (std::this_thread::get_id() == self) ++here;
  };
  {
    const ListenerEnd server(kName);
    server.delegate->onReady([&](const NSString&) { note(); });
    server.delegate->onError([&](const NSString&, const NSError&) { note(); });
    ClientEnd first(kName);
    ClientEnd second(kName);
    first.delegate->echo();
    const NSString id = first.ready();
    second.ready();
    EXPECT_EQ(server.listener->sendMessageSync(plainMessage(), id, kLong), plainMessage());
    server.listener->close(id);
    server.delegate->waitForError("Connection invalidated", 1);
    server.listener->close();
    server.delegate->waitForError("Connection invalidated", 2);
    server.delegate->waitForError("Daemon connection invalidated");
    EXPECT_TRUE(eventually([&] { return heard == 5; }));
  }
  EXPECT_EQ(heard, 5);
  EXPECT_EQ(here, 0);
}

}  // namespace
}  // namespace velto::testing
