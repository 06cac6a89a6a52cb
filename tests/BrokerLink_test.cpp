// The link to the broker: what it reports, to whom, and what it never says.

#include "tests/support/BrokerLink.h"

#include <algorithm>

#include "broker/DaemonConnection.h"
#include "platform/xpc/NSXPCError.h"
#include "tests/support/LibraryTest.h"
#include "tests/support/RawPeer.h"

namespace velto::testing {
namespace {

constexpr const char* kLinkName = "org.velto.test.link";

class BrokerLink : public QuietTest {
 protected:
  void TearDown() override {
    broker->stop();
    waitUntilAlone(broker);
    QuietTest::TearDown();
  }

  bool brokerHears(const std::string& call, std::size_t times = 1) const {
    return eventually([&] {
      const auto calls = broker->calls();
      return std::count(calls.begin(), calls.end(), call) >= static_cast<std::ptrdiff_t>(times);
    });
  }

  // Knows nobody, and says so.
  const std::shared_ptr<ScriptedBroker> broker = [] {
    auto made = ScriptedBroker::start();
    made->answerWith(nil);
    return made;
  }();
};

TEST_F(BrokerLink, IsLoggedWhenItIsMadeAndReportsItsEndToTheDelegate) {
  const auto delegate = std::make_shared<RecordingDelegate>();
  const std::shared_ptr<NSXPCConnection> link = setupDaemonConnection(delegate);
  ASSERT_TRUE(link);
  EXPECT_EQ(log.count(2, "DaemonConnection Created"), 1u);
  settle(link);
  broker->dropLinks();
  const Event event = delegate->waitForError("Daemon connection invalidated");
  EXPECT_TRUE(event.connectionID.isNil());
  expectError(event.error, 2, "Daemon connection invalidated");
  EXPECT_EQ(delegate->events().size(), 1u);
  EXPECT_EQ(log.count(0, "Daemon connection invalidated"), 1u);
}

TEST_F(BrokerLink, WithoutDelegateItsHandlersOnlyLog) {
  const std::shared_ptr<NSXPCConnection> link = setupDaemonConnection(nullptr);
  ASSERT_TRUE(link);
  settle(link);
  broker->dropLinks();
  EXPECT_TRUE(log.waitFor(0, "Daemon connection invalidated"));
}

TEST_F(BrokerLink, AfterItsDelegateIsGoneItsHandlersOnlyLog) {
  auto delegate = std::make_shared<RecordingDelegate>();
  const std::weak_ptr<RecordingDelegate> gone = delegate;
  const std::shared_ptr<NSXPCConnection> link = setupDaemonConnection(delegate);
  settle(link);
  delegate.reset();
  EXPECT_TRUE(gone.expired()) << "the link keeps the delegate alive";
  broker->dropLinks();
  EXPECT_TRUE(log.waitFor(0, "Daemon connection invalidated"));
}

TEST_F(BrokerLink, OfAClientKeepsReportingToTheFirstDelegate) {
  ClientEnd client(kLinkName);
  client.delegate->waitForError("Listener not available");
  const auto second = std::make_shared<RecordingDelegate>();
  client.connection->setDelegate(second);
  broker->dropLinks();
  client.delegate->waitForError("Daemon connection invalidated");
  client.connection->connectionError(nil);
  second->waitForError("Unknown error sent from listener");
  EXPECT_EQ(second->events().size(), 1u);
  EXPECT_EQ(client.delegate->errorCount("Unknown error sent from listener"), 0u);
}

TEST_F(BrokerLink, OfAListenerKeepsReportingToTheFirstDelegate) {
  ListenerEnd server(kLinkName);
  const auto second = std::make_shared<RecordingDelegate>();
  server.listener->setDelegate(second);
  broker->dropLinks();
  server.delegate->waitForError("Daemon connection invalidated");
  server.listener->connectionError(NSError::errorWithDomain("some", 1, NSDictionary::dictionary()));
  second->waitForErrors(1);
  EXPECT_EQ(second->events().size(), 1u);
  EXPECT_EQ(server.delegate->events().size(), 1u);
}

TEST_F(BrokerLink, ClosingTheOwnerReportsTheEndOfTheLink) {
  const auto delegate = std::make_shared<RecordingDelegate>();
  const auto listener = VeltoListener::initWithServiceName(kLinkName, delegate);
  EXPECT_TRUE(listener->daemonConnection());
  listener->close();
  EXPECT_FALSE(listener->daemonConnection());
  const Event event = delegate->waitForError("Daemon connection invalidated");
  EXPECT_TRUE(event.connectionID.isNil());
  expectError(event.error, 2, "Daemon connection invalidated");
  EXPECT_EQ(log.count(0, "Daemon connection invalidated"), 1u);
}

TEST_F(BrokerLink, OfAListenerCarriesOneRegistrationAndNeverAWithdrawal) {
  {
    ListenerEnd server(kLinkName);
    ASSERT_TRUE(brokerHears(std::string("register ") + kLinkName));
  }
  ASSERT_TRUE(brokerHears("link ended"));
  // The lookup is the test's own, made to wait for the registration.
  EXPECT_EQ(broker->calls(),
            (std::vector<std::string>{std::string("register ") + kLinkName, "find org.velto.nobody", "link ended"}));
}

TEST_F(BrokerLink, OfAClientCarriesOneLookupAndNothingElse) {
  {
    ClientEnd client(kLinkName);
    client.delegate->waitForError("Listener not available");
  }
  ASSERT_TRUE(brokerHears("link ended"));
  EXPECT_EQ(broker->calls(), (std::vector<std::string>{std::string("find ") + kLinkName, "link ended"}));
}

TEST_F(BrokerLink, IsEveryObjectsOwn) {
  ClientEnd one(kLinkName);
  ClientEnd other(kLinkName);
  one.delegate->waitForError("Listener not available");
  other.delegate->waitForError("Listener not available");
  one.connection->close();
  one.delegate->waitForError("Daemon connection invalidated");
  EXPECT_EQ(other.delegate->errorCount("Daemon connection invalidated"), 0u);
  settle(other.connection->daemonConnection());
}

// The last registration wins, lookups find what is registered, and a withdrawal ends it.
TEST(Broker, KeepsTheLastRegistrationOfANameUntilItIsWithdrawnOrItsListenerGone) {
  RuntimeDirectory directory;
  LogCapture log;
  BrokerHere broker;
  TestLink link;
  EXPECT_TRUE(link.find(kLinkName).isNil());
  auto first = BareListener::start();
  auto second = BareListener::start();
  link.registerEndpoint(first->endpoint(), kLinkName);
  EXPECT_EQ(TestLink().find(kLinkName), first->endpoint());
  link.registerEndpoint(second->endpoint(), kLinkName);
  EXPECT_EQ(TestLink().find(kLinkName), second->endpoint());
  link.kill(kLinkName);
  EXPECT_TRUE(TestLink().find(kLinkName).isNil());
  link.registerEndpoint(first->endpoint(), kLinkName);
  first.reset();
  EXPECT_TRUE(eventually([&] { return link.find(kLinkName).isNil(); }));
}

using NoBroker = QuietTest;

TEST_F(NoBroker, TheClientHearsOfItFromTheLinkAndFromItsLookup) {
  const auto delegate = std::make_shared<RecordingDelegate>();
  const auto client = VeltoConnection::initWithServiceName(kLinkName, delegate);
  ASSERT_TRUE(client);
  EXPECT_TRUE(client->daemonConnection());
  EXPECT_EQ(log.count(2, "DaemonConnection Created"), 1u);
  delegate->waitForError("Daemon connection invalidated");
  EXPECT_EQ(log.count(0, "Daemon connection invalidated"), 1u) << log.text();
  delegate->waitForErrors(2);
  const auto lost = log.containing(0, "Velto lost connection with VeltoIPCDaemon ");
  ASSERT_EQ(lost.size(), 1u) << log.text();

  NSError error;
  EXPECT_FALSE(client->waitUntilReady(20.0, &error));
  expectPlatformError(error, NSXPCConnectionInvalid);
  EXPECT_EQ(lost[0], "Velto lost connection with VeltoIPCDaemon " + error.description().string());
  EXPECT_EQ(delegate->errors().size(), 2u);
  client->close();
}

TEST_F(NoBroker, TheListenerHearsOfItFromTheLinkAndFromItsRegistration) {
  const auto delegate = std::make_shared<RecordingDelegate>();
  const auto listener = VeltoListener::initWithServiceName(kLinkName, delegate);
  ASSERT_TRUE(listener);
  delegate->waitForErrors(2);
  delegate->waitForError("Daemon connection invalidated");
  const auto errors = delegate->errors();
  const auto platform = std::find_if(
      errors.begin(), errors.end(), [](const Event& event) { return !event.isError("Daemon connection invalidated"); });
  ASSERT_NE(platform, errors.end());
  EXPECT_TRUE(platform->connectionID.isNil());
  expectPlatformError(platform->error, NSXPCConnectionInvalid);
  EXPECT_EQ(log.count(0, "Velto Remote Proxy Error " + platform->error.description().string()), 1u) << log.text();
  listener->close();
}

}  // namespace
}  // namespace velto::testing
