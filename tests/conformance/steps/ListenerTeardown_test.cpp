// The steps by which a listener ends one connection, or all, or itself.

#include "platform/foundation/Box.h"
#include "tests/conformance/steps/ListenerSteps.h"

namespace velto::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;

class ListenerTeardownSteps : public ListenerSteps {
 protected:
  static std::string clearedLine(const NSString& id) {
    return "log 2 Cleared out connections and objects for " + id.description().string();
  }
};

TEST_F(ListenerTeardownSteps, CloseOfOneInvalidatesRemovesAndLogs) {
  PROVES("listener.drop.1", "close with an identifier ends the platform's connection before it removes anything");
  PROVES("listener.drop.2", "close with an identifier removes it from all three tables");
  PROVES("listener.drop.3",
         "close with an identifier logs \"Cleared out connections and objects for\" with the identifier at level 2, "
         "when everything is removed");
  PROVES("listener.drop.12", "closing one connection leaves the others");
  start();
  const auto other = accept();
  const auto client = accept();
  std::vector<std::string> seen;
  journal().observe([&](const std::string&) { seen.push_back(tables(client.id)); });
  listener->close(client.id);
  journal().observe({});
  EXPECT_THAT(journal().take(), ElementsAre("connection#3 invalidate", clearedLine(client.id)));
  EXPECT_THAT(seen, ElementsAre("CRP", ""));
  EXPECT_EQ(tables(other.id), "CRP");
  EXPECT_FALSE(other.connection->isInvalidated());
}

TEST_F(ListenerTeardownSteps, TheInvalidationThatFollowsTellsTheDelegateAndClosesOnceMore) {
  PROVES("listener.drop.10", "a second close with the same identifier logs once more and does nothing else");
  PROVES("listener.drop.11",
         "after an owner's close the delegate hears code 2 \"Connection invalidated\" with the identifier, and a "
         "second \"Cleared out\" line follows");
  PROVES("listener.drop.13", "no callback runs inside close");
  start();
  const auto client = accept();
  const std::string id = client.id.string();
  listener->close(client.id);
  EXPECT_THAT(journal().take(), ElementsAre("connection#2 invalidate", clearedLine(client.id)));
  client.connection->playInvalidation();
  EXPECT_THAT(journal().take(),
              ElementsAre("log 2 VeltoConnection connection " + id + " invalidated. Closing connection",
                          "delegate connectionError " + id + " 2 Connection invalidated", clearedLine(client.id)));
}

TEST_F(ListenerTeardownSteps, CloseOfAnUnknownOneOnlyLogs) {
  PROVES("listener.drop.4", "close with an unknown identifier writes its log line and does nothing else");
  PROVES("listener.drop.5", "close with a nil identifier writes its log line and does nothing else");
  start();
  const auto client = accept();
  listener->close("unknown");
  listener->close(NSString());
  EXPECT_THAT(journal().take(), ElementsAre(clearedLine("unknown"), clearedLine(NSString())));
  EXPECT_EQ(tables(client.id), "CRP");
}

TEST_F(ListenerTeardownSteps, CloseGoesThroughTheConnectionsThenDropsTheLink) {
  PROVES("listener.close.1", "close closes every connection, in the order of the table's keys");
  PROVES("listener.close.2", "close drops every remaining proxy, those without a connection too");
  PROVES("listener.close.3",
         "close invalidates the broker link after the connections and the proxies, and then forgets it");
  PROVES("listener.close.4", "close sends the broker nothing");
  PROVES("listener.close.5", "close leaves the platform listener resumed, with its delegate");
  PROVES("listener.close.8", "close logs nothing of its own");
  PROVES("listener.close.15", "no callback runs inside close of the whole listener");
  start();
  for (int count = 0; count < 4; ++count) accept();
  listener->receivedProxyObjects().setObject("no proxy", "lonely");
  std::vector<std::string> expected;
  for (const NSObject& id : listener->receivedConnections().allKeys()) {
    const auto connection = unbox<NSXPCConnection>(listener->receivedConnections()[id]);
    for (std::size_t number = 2; number <= 5; ++number) {
      const NSString known = platform.connection(number).lastCall("connectionUUID:")->arguments().at(0).as<NSString>();
      if (known == id) expected.push_back("connection#" + std::to_string(number) + " invalidate");
    }
    expected.push_back(clearedLine(id.as<NSString>()));
  }
  expected.emplace_back("connection#1 invalidate");
  std::size_t proxies = 9;
  std::size_t connections = 9;
  bool hadLink = false;
  journal().observe([&](const std::string& line) {
    if (line != "connection#1 invalidate") return;
    proxies = listener->receivedProxyObjects().count();
    connections = listener->receivedConnections().count();
    hadLink = listener->daemonConnection() != nullptr;
  });
  listener->close();
  journal().observe({});
  EXPECT_EQ(expected.size(), 9u);
  EXPECT_THAT(journal().take(), ElementsAreArray(expected));
  EXPECT_EQ(proxies, 0u);
  EXPECT_EQ(connections, 0u);
  EXPECT_TRUE(hadLink) << "it is forgotten once it is invalidated";
  EXPECT_EQ(listener->daemonConnection(), nullptr);
  EXPECT_EQ(platform.connection(1).calls().size(), 1u) << "the registration, and nothing since";
  EXPECT_EQ(platform.listener(1).delegate(), std::static_pointer_cast<NSXPCListenerDelegate>(listener));
  EXPECT_FALSE(platform.listener(1).isLetGo());
}

TEST_F(ListenerTeardownSteps, CloseOfAllTwiceTakesNoFurtherStep) {
  PROVES("listener.close.10", "a second close does nothing visible");
  PROVES("listener.close.8", "close logs nothing of its own");
  start();
  listener->close();
  EXPECT_THAT(journal().take(), ElementsAre("connection#1 invalidate"));
  listener->close();
  EXPECT_THAT(journal().take(), IsEmpty());
}

TEST_F(ListenerTeardownSteps, CloseWithoutALinkTakesTheOtherSteps) {
  PROVES("listener.close.12", "close without a broker link closes the rest");
  start();
  const auto client = accept();
  listener->setDaemonConnection(nullptr);
  listener->close();
  EXPECT_THAT(journal().take(), ElementsAre("connection#2 invalidate", clearedLine(client.id)));
}

TEST_F(ListenerTeardownSteps, AfterCloseAConnectionIsAcceptedAsBefore) {
  PROVES("listener.close.16", "a further close ends the connections that were accepted since");
  PROVES("listener.close.6",
         "after close a client that holds the endpoint is accepted, with a new identifier and entries in the tables");
  PROVES("listener.close.11", "close leaves the delegate and the strict-types flag");
  start();
  listener->setStrictMessageTypes(false);
  const auto former = accept();
  listener->close();
  const auto client = accept();
  EXPECT_TRUE(client.isAccepted);
  EXPECT_NE(client.id, former.id);
  EXPECT_EQ(tables(client.id), "CRP");
  EXPECT_EQ(client.connection->lastCall("setStrictMessageTypesRemote:")->arguments().at(0), NSNumber(false));
  EXPECT_EQ(delegate->recorded.readies().size(), 2u);
  listener->close();
  EXPECT_THAT(journal().take(), ElementsAre("connection#3 invalidate", clearedLine(client.id)));
}

TEST_F(ListenerTeardownSteps, DestructionTakesNoStep) {
  PROVES("listener.end.1", "destroying a listener sends nothing: no invalidate, nothing to the broker");
  start();
  const auto client = accept();
  client.connection->letGoOfExportedObject();
  const std::weak_ptr<VeltoListener> watched = listener;
  listener.reset();
  EXPECT_TRUE(watched.expired());
  EXPECT_THAT(journal().take(), IsEmpty());
  EXPECT_FALSE(client.connection->isInvalidated());
  EXPECT_FALSE(platform.connection(1).isInvalidated());
  EXPECT_TRUE(client.connection->isLetGo());
  EXPECT_TRUE(platform.connection(1).isLetGo());
  EXPECT_TRUE(platform.listener(1).isLetGo());
}

}  // namespace
}  // namespace velto::testing
