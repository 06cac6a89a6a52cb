// A listener's close of everything, and its end.

#include <set>

#include "platform/foundation/NSSynchronized.h"
#include "platform/foundation/ObjectBody.h"
#include "tests/conformance/ListenerFixture.h"

namespace velto::testing {
namespace {

using ListenerClosing = ListenerHere;
INSTANTIATE_TEST_SUITE_P(, ListenerClosing, kArrangementsHere, printArrangement);

TEST_P(ListenerClosing, WithThreeConnectionsBringsSixLinesAndFourErrors) {
  PROVES("listener.close.9",
         "close with three connections brings six \"Cleared out\" lines, three \"Connection invalidated\" with their "
         "identifiers and one \"Daemon connection invalidated\" with nil");
  PROVES("listener.close.8", "close logs nothing of its own");
  PROVES("listener.close.10", "a second close does nothing visible");
  const TwoEnds ends;
  ClientEnd second(kName);
  ClientEnd third(kName);
  const std::set<std::string> ids{ends.id.string(), second.ready().string(), third.ready().string()};
  ends.server.listener->close();
  EXPECT_EQ(ends.server.listener->receivedConnections().count(), 0u);
  EXPECT_EQ(ends.server.listener->daemonConnection(), nullptr);
  ends.server.delegate->waitForErrors(4);
  log.waitForContaining(2, "Cleared out connections and objects for ", 6);
  waitUntilAlone(ends.server.listener);
  std::set<std::string> invalidated;
  for (const Event& event : ends.server.delegate->errors()) {
    if (event.isError("Connection invalidated")) invalidated.insert(event.connectionID.string());
  }
  EXPECT_EQ(invalidated, ids);
  const Event link = ends.server.delegate->waitForError("Daemon connection invalidated");
  EXPECT_TRUE(link.connectionID.isNil());
  expectError(link.error, 2, "Daemon connection invalidated");
  EXPECT_EQ(ends.server.delegate->errors().size(), 4u);
  EXPECT_EQ(log.containing(2, "Cleared out connections and objects for ").size(), 6u);
  for (const std::string& id : ids) EXPECT_EQ(log.count(2, "Cleared out connections and objects for " + id), 2u);
  for (const ClientEnd* client : std::vector<const ClientEnd*>{&ends.client, &second, &third}) {
    client->delegate->waitForError("Listener connection invalidated");
    client->delegate->waitForError("Daemon connection invalidated");
  }
  log.clear();
  ends.server.listener->close();
  EXPECT_EQ(linesOfEnds(), Lines{});
  EXPECT_EQ(ends.server.listener.use_count(), 1);
  EXPECT_EQ(ends.server.delegate->errors().size(), 4u);
}

TEST_P(ListenerClosing, WithoutConnectionsLogsNothing) {
  PROVES("listener.close.8", "close logs nothing of its own");
  const ListenerEnd server(kName);
  server.listener->close();
  server.delegate->waitForError("Daemon connection invalidated");
  EXPECT_TRUE(log.containing(2, "Cleared out").empty());
}

TEST_P(ListenerClosing, DropsEveryProxyAndLeavesConditionsThatHaveNoConnection) {
  PROVES("listener.close.2", "close drops every remaining proxy, those without a connection too");
  PROVES("listener.close.7", "close leaves conditions whose identifier has no connection");
  const TwoEnds ends;
  {
    NSSynchronized lock(ends.server.listener->connectionConditions());
    ends.server.listener->receivedProxyObjects().setObject("no proxy", "lonely");
    ends.server.listener->connectionConditions().setObject(NSMutableArray::array(), "lonely");
  }
  ends.server.listener->close();
  EXPECT_EQ(ends.server.entries(ends.id), kNoEntries);
  EXPECT_EQ(ends.server.listener->receivedProxyObjects().count(), 0u);
  EXPECT_EQ(ends.server.listener->connectionConditions().allKeys(), NSArray{"lonely"});
  EXPECT_TRUE(log.containing(2, "objects for lonely").empty());
}

TEST_P(ListenerClosing, LeavesTheWayInOpen) {
  PROVES("listener.close.6",
         "after close a client that holds the endpoint is accepted, with a new identifier and entries in the tables");
  PROVES("listener.close.14", "after close the name still leads to the listener while it lives");
  PROVES("listener.close.11", "close leaves the delegate and the strict-types flag");
  TestLink link;
  const TwoEnds ends(ListenerEnd::Types::any);
  ends.server.delegate->echo();
  const NSXPCListenerEndpoint endpoint = link.find(kName);
  ends.server.listener->close();
  ends.server.delegate->waitForError("Daemon connection invalidated");
  EXPECT_EQ(ends.server.listener->delegate(), ends.server.delegate);
  BareClient client(endpoint);
  const NSString id = client.handshake();
  EXPECT_NE(id, ends.id);
  EXPECT_EQ(ends.server.entries(id), kAllEntries);
  EXPECT_FALSE(client.exported->waitFor("setStrictMessageTypesRemote:").flag) << "the flag has stayed";
  EXPECT_EQ(ends.server.delegate->readies().back().connectionID, id);
  ClientEnd byName(kName);
  byName.ready();
  EXPECT_EQ(byName.connection->sendMessageSync(plainMessage(), kLong), plainMessage());
  EXPECT_EQ(ends.server.listener->receivedConnections().count(), 2u);
}

TEST_P(ListenerClosing, NeedsNoBrokerLink) {
  PROVES("listener.close.12", "close without a broker link closes the rest");
  const TwoEnds ends;
  const auto link = ends.server.listener->daemonConnection();
  ends.server.listener->setDaemonConnection(nullptr);
  ends.server.listener->close();
  EXPECT_EQ(ends.server.entries(ends.id), kNoEntries);
  EXPECT_EQ(ends.server.delegate->waitForError("Connection invalidated").connectionID, ends.id);
  EXPECT_EQ(ends.server.delegate->errorCount("Daemon connection invalidated"), 0u);
  link->invalidate();
}

TEST_P(ListenerClosing, WakesTheSynchronousSendsOnEveryConnection) {
  PROVES("listener.close.13", "close wakes the synchronous sends on every connection");
  const TwoEnds ends;
  ClientEnd second(kName);
  std::vector<std::future<NSError>> calls;
  for (const NSString& id : {ends.id, second.ready()}) {
    for (const double timeout : {VKT_IPC_TIME_FOREVER, kLong}) {
      calls.push_back(inBackground([&ends, id, timeout] {
        NSError error;
        EXPECT_TRUE(ends.server.listener->sendMessageSync(plainMessage(), id, timeout, &error).isNil());
        return error;
      }));
    }
  }
  ASSERT_TRUE(ends.client.delegate->waitForMessages(2));
  ASSERT_TRUE(second.delegate->waitForMessages(2));
  ends.server.listener->close();
  for (auto& call : calls) expectError(finish(call), 6, "Timed out waiting");
}

using ListenerClosingAtABroker = QuietTest;

TEST_F(ListenerClosingAtABroker, TellsItNothing) {
  PROVES("listener.close.4", "close sends the broker nothing");
  PROVES("listener.start.8", "the registration is one message without an answer, and is never sent again");
  const auto broker = ScriptedBroker::start();
  {
    const auto delegate = std::make_shared<RecordingDelegate>();
    const auto listener = VeltoListener::initWithServiceName(kName, delegate);
    EXPECT_TRUE(eventually([&] { return broker->calls().size() == 1; }));
    listener->close();
    delegate->waitForError("Daemon connection invalidated");
    EXPECT_TRUE(eventually([&] { return broker->calls().back() == "link ended"; }));
    waitUntilAlone(listener);
  }
  EXPECT_EQ(broker->calls(), (std::vector<std::string>{std::string("register ") + kName, "link ended"}));
  broker->stop();
}

// An object that tells when it is let go of.
class WatchedBody final : public ObjectBody {
 public:
  WatchedBody(std::string name, std::vector<std::string>& gone) : name_(std::move(name)), gone_(gone) {}
  ~WatchedBody() override { gone_.push_back(name_); }
  const ClassBody& classBody() const override { return *NSObject::classObject().classBody(); }

 private:
  const std::string name_;
  std::vector<std::string>& gone_;
};

struct Watched : NSObject {
  Watched(const std::string& name, std::vector<std::string>& gone) : NSObject(new WatchedBody(name, gone)) {}
};

using ListenerEnding = QuietTest;

TEST_F(ListenerEnding, LetsGoOfProxiesConditionsConnectionsAndLinkInThisOrder) {
  PROVES("listener.end.2",
         "a destroyed listener lets go of its proxies, conditions, connections and broker link in this order");
  std::vector<std::string> gone;
  const auto connection = NSXPCConnection::initWithListenerEndpoint(nil);
  auto listener = VeltoListener::init();
  listener->receivedConnections().setObject(Watched("connections", gone), "id");
  listener->connectionConditions().setObject(Watched("conditions", gone), "id");
  listener->receivedProxyObjects().setObject(Watched("proxies", gone), "id");
  listener->setDaemonConnection(
      std::shared_ptr<NSXPCConnection>(connection.get(), [&](NSXPCConnection*) { gone.emplace_back("link"); }));
  EXPECT_TRUE(gone.empty());
  listener.reset();
  EXPECT_EQ(gone, (std::vector<std::string>{"proxies", "conditions", "connections", "link"}));
  EXPECT_EQ(log.lines(), Lines{});
}

using ListenerLife = ListenerHere;
INSTANTIATE_TEST_SUITE_P(, ListenerLife, kArrangementsHere, printArrangement);

TEST_P(ListenerLife, EndsWhenItIsClosedAndNobodyHoldsIt) {
  PROVES("listener.end.3", "a closed listener that nobody holds is destroyed");
  const auto delegate = std::make_shared<RecordingDelegate>();
  auto listener = VeltoListener::initWithServiceName(kName, delegate);
  settle(listener->daemonConnection());
  const std::weak_ptr<VeltoListener> watched = listener;
  {
    ClientEnd client(kName);
    client.ready();
    listener->close();
    delegate->waitForErrors(2);
  }
  listener.reset();
  EXPECT_TRUE(eventually([&] { return watched.expired(); }));
  TestLink link;
  EXPECT_TRUE(eventually([&] { return link.find(kName).isNil(); })) << "and its name with it";
}

}  // namespace
}  // namespace velto::testing
