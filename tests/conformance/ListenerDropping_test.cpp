// A listener's close of one connection.

#include <set>

#include "platform/foundation/NSSynchronized.h"
#include "tests/conformance/ListenerFixture.h"

namespace velto::testing {
namespace {

class ListenerDropping : public ListenerHere {
 protected:
  static LogCapture::Line clearedLine(const NSString& id) {
    return {2, "Cleared out connections and objects for " + id.description().string()};
  }
  // A conditions' entry of the test's own, without a connection.
  static void enterConditions(const ListenerEnd& server, const char* id, const std::vector<NSCondition>& conditions) {
    NSSynchronized lock(server.listener->connectionConditions());
    server.listener->connectionConditions().setObject(NSMutableArray::arrayWithArray(NSArray(conditions)), id);
  }
};
INSTANTIATE_TEST_SUITE_P(, ListenerDropping, kArrangementsHere, printArrangement);

TEST_P(ListenerDropping, EmptiesTheTablesAndTellsTheDelegateAfterwards) {
  PROVES("listener.drop.2", "close with an identifier removes it from all three tables");
  PROVES("listener.drop.3",
         "close with an identifier logs \"Cleared out connections and objects for\" with the identifier at level 2, "
         "when everything is removed");
  PROVES("listener.drop.11",
         "after an owner's close the delegate hears code 2 \"Connection invalidated\" with the identifier, and a "
         "second \"Cleared out\" line follows");
  const TwoEnds ends;
  clearLogOfHandshakes();
  ends.server.listener->close(ends.id);
  EXPECT_EQ(ends.server.entries(ends.id), kNoEntries);
  EXPECT_EQ(ends.server.listener->connectionConditions().count(), 0u);
  EXPECT_GE(log.count(2, clearedLine(ends.id).text), 1u);
  const Event event = ends.server.delegate->waitForError("Connection invalidated");
  EXPECT_EQ(event.connectionID, ends.id);
  expectError(event.error, 2, "Connection invalidated");
  log.waitFor(2, clearedLine(ends.id).text, 2);
  const std::string invalidated = "VeltoConnection connection " + ends.id.string() + " invalidated. Closing connection";
  EXPECT_TRUE(log.inOrder({{2, invalidated}, clearedLine(ends.id)}));
  ends.client.delegate->waitForError("Listener connection invalidated");
  EXPECT_EQ(log.count(2, clearedLine(ends.id).text), 2u);
  EXPECT_EQ(log.count(2, invalidated), 1u);
  EXPECT_EQ(ends.server.delegate->errors().size(), 1u);
}

TEST_P(ListenerDropping, OfAnUnknownOrNilIdentifierOnlyWritesItsLine) {
  PROVES("listener.drop.4", "close with an unknown identifier writes its log line and does nothing else");
  PROVES("listener.drop.5", "close with a nil identifier writes its log line and does nothing else");
  const TwoEnds ends;
  ends.client.delegate->echo();
  clearLogOfHandshakes();
  ends.server.listener->close("unknown");
  ends.server.listener->close(NSString());
  EXPECT_EQ(linesOfEnds(), (Lines{clearedLine("unknown"), clearedLine(NSString())}));
  EXPECT_EQ(ends.server.entries(ends.id), kAllEntries);
  EXPECT_EQ(ends.server.listener->sendMessageSync(plainMessage(), ends.id, kLong), plainMessage());
  EXPECT_TRUE(ends.server.delegate->errors().empty());
}

TEST_P(ListenerDropping, RemovesProxyAndConditionsWithoutAConnection) {
  PROVES("listener.drop.6", "close with an identifier removes proxy and conditions also when there is no connection");
  const ListenerEnd server(kName);
  enterConditions(server, "half", {NSCondition::condition()});
  server.listener->receivedProxyObjects().setObject("no proxy", "half");
  server.listener->close("half");
  EXPECT_EQ(server.entries("half"), kNoEntries);
}

TEST_P(ListenerDropping, SignalsEveryConditionWithoutItsLock) {
  PROVES("listener.drop.7", "close with an identifier signals every condition registered under it");
  PROVES("listener.drop.8", "close signals without taking a condition's own lock");
  const ListenerEnd server(kName);
  const std::vector<NSCondition> conditions{NSCondition::condition(), NSCondition::condition(),
                                            NSCondition::condition()};
  enterConditions(server, "waited for", conditions);
  HeldConditions held(conditions);
  auto closing = inBackground([&] {
    server.listener->close("waited for");
    return true;
  });
  EXPECT_TRUE(finish(closing)) << "with all locks held by others";
  held.expectSignals();
}

// In the place of a condition: tells when it is asked what it is, and whether the monitor was held then.
class VisitedBody final : public ObjectBody {
 public:
  using Visit = std::function<void()>;
  explicit VisitedBody(Visit visit) : visit_(std::move(visit)) {}
  const ClassBody& classBody() const override {
    visit_();
    return *NSObject::classObject().classBody();
  }

 private:
  const Visit visit_;
};

struct Visited : NSObject {
  explicit Visited(VisitedBody::Visit visit) : NSObject(new VisitedBody(std::move(visit))) {}
};

TEST_P(ListenerDropping, GoesThroughTheConditionsInTheirOrderWithTheMonitorHeld) {
  PROVES("listener.drop.17", "close goes through the conditions in their order, with the monitor of their table held");
  const ListenerEnd server(kName);
  std::vector<int> visited;
  bool isArmed = false;
  NSMutableArray conditions = NSMutableArray::array();
  for (int number = 1; number <= 3; ++number) {
    conditions.addObject(Visited([&, number] {
      if (!isArmed) return;
      visited.push_back(number);
      const NSObject table = server.listener->connectionConditions();
      auto other = inBackground([&] { return NSSynchronized(table, std::try_to_lock).holdsMonitor(); });
      EXPECT_FALSE(finish(other)) << "at condition " << number;
    }));
  }
  server.listener->connectionConditions().setObject(conditions, "visited");
  isArmed = true;
  server.listener->close("visited");
  isArmed = false;
  EXPECT_EQ(visited, (std::vector<int>{1, 2, 3}));
}

TEST_P(ListenerDropping, ChangesTheConditionsUnderTheirMonitor) {
  PROVES("listener.drop.9", "close changes the conditions' table under its monitor");
  const ListenerEnd server(kName);
  enterConditions(server, "entry", {});
  log.clear();
  std::future<bool> closing;
  {
    NSSynchronized lock(server.listener->connectionConditions());
    closing = inBackground([&] {
      server.listener->close("entry");
      return true;
    });
    EXPECT_TRUE(isHeldUp(closing));
    EXPECT_TRUE(server.listener->isConnectionActive_internal("entry"));
    EXPECT_EQ(linesOfEnds(), Lines{}) << "the line comes when everything is removed";
  }
  EXPECT_TRUE(finish(closing));
  EXPECT_FALSE(server.listener->isConnectionActive_internal("entry"));
}

TEST_P(ListenerDropping, TwiceOnlyWritesItsLineOnceMore) {
  PROVES("listener.drop.10", "a second close with the same identifier logs once more and does nothing else");
  const TwoEnds ends;
  ends.server.listener->close(ends.id);
  log.waitFor(2, clearedLine(ends.id).text, 2);
  ends.client.delegate->waitForError("Listener connection invalidated");
  ends.client.delegate->waitForError("Daemon connection invalidated");
  log.clear();
  ends.server.listener->close(ends.id);
  EXPECT_EQ(linesOfEnds(), (Lines{clearedLine(ends.id)}));
  EXPECT_EQ(ends.server.delegate->errors().size(), 1u);
}

TEST_P(ListenerDropping, LeavesTheOtherConnections) {
  PROVES("listener.drop.12", "closing one connection leaves the others");
  const TwoEnds ends;
  ends.server.delegate->echo();
  ClientEnd other(kName);
  other.delegate->echo();
  const NSString otherID = other.ready();
  ends.server.listener->close(ends.id);
  ends.server.delegate->waitForError("Connection invalidated");
  EXPECT_EQ(ends.server.entries(otherID), kAllEntries);
  EXPECT_EQ(ends.server.listener->sendMessageSync(plainMessage(), otherID, kLong), plainMessage());
  EXPECT_EQ(other.connection->sendMessageSync(plainMessage(), kLong), plainMessage());
  EXPECT_TRUE(other.delegate->errors().empty());
}

TEST_P(ListenerDropping, ByTwoThreadsAtOnceIsHarmless) {
  PROVES("listener.drop.14", "two threads may close the same identifier at the same time");
  const ListenerEnd server(kName);
  std::set<std::string> closed;
  for (int round = 0; round < 5; ++round) {
    ClientEnd client(kName);
    const NSString id = client.ready();
    auto first = inBackground([&] { return server.listener->close(id), true; });
    auto second = inBackground([&] { return server.listener->close(id), true; });
    EXPECT_TRUE(finish(first));
    EXPECT_TRUE(finish(second));
    log.waitFor(2, clearedLine(id).text, 3);
    EXPECT_EQ(server.entries(id), kNoEntries);
    closed.insert(id.string());
  }
  const auto errors = server.delegate->errors();
  EXPECT_EQ(errors.size(), 5u);
  for (const Event& event : errors) {
    EXPECT_TRUE(closed.contains(event.connectionID.string()));
    expectError(event.error, 2, "Connection invalidated");
  }
}

TEST_P(ListenerDropping, TellsTheClientNothingButThroughThePlatform) {
  PROVES("listener.drop.15", "the client learns of it by its platform connection alone");
  const ListenerEnd server(kName);
  const auto client = bareClient();
  const NSString id = client->handshake();
  server.listener->close(id);
  client->proxy->call<&VeltoCommunicationMessageProtocol::ping>();
  client->errors.waitForOne();
  const std::vector<PeerCall> calls = client->exported->calls();
  ASSERT_EQ(calls.size(), 2u);
  EXPECT_EQ(calls[0].method, "setStrictMessageTypesRemote:");
  EXPECT_EQ(calls[1].method, "connectionUUID:");
}

}  // namespace
}  // namespace velto::testing
