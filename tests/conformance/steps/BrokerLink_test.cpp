// The link to the broker: how it is made, and what its two handlers do.

#include "broker/DaemonConnection.h"
#include "tests/conformance/steps/ClientSteps.h"

namespace velto::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class BrokerLink : public ClientSteps {
 protected:
  // A link alone, and the journal up to there forgotten.
  void makeLink(const std::shared_ptr<VeltoIPCDelegate>& receiver) {
    alone = setupDaemonConnection(receiver);
    journal().take();
  }

  std::shared_ptr<NSXPCConnection> alone;
};

TEST_F(BrokerLink, IsMadeStepByStepAndResumedBeforeItIsLogged) {
  PROVES("broker.setup.1",
         "a link is made in this order: interface, named connection, remote interface, interruption handler, "
         "invalidation handler, resume, log line");
  alone = setupDaemonConnection(delegate);
  EXPECT_THAT(
      journal().take(),
      ElementsAre("interface#1 interfaceWithProtocol VeltoIPCDaemonProtocol",
                  "connection#1 initWithServiceName org.velto.VeltoIPCDaemon",
                  "connection#1 setRemoteObjectInterface interface#1", "connection#1 setInterruptionHandler",
                  "connection#1 setInvalidationHandler", "connection#1 resume", "log 2 DaemonConnection Created"));
}

TEST_F(BrokerLink, GoesToTheBrokersServiceByName) {
  PROVES("broker.setup.2", "the link is a connection to a named service, whose name ends in VeltoIPCDaemon");
  makeLink(delegate);
  EXPECT_TRUE(link().serviceName().string().ends_with(".VeltoIPCDaemon")) << link().serviceName().view();
  EXPECT_TRUE(link().endpoint().isNil());
}

TEST_F(BrokerLink, ExportsNothing) {
  PROVES("broker.setup.3", "the link has no exported interface and no exported object");
  makeLink(delegate);
  EXPECT_EQ(link().exportedInterface(), nullptr);
  EXPECT_EQ(link().exportedObject(), nullptr);
}

TEST_F(BrokerLink, LeavesItsClassSetsAsTheyAre) {
  PROVES("broker.setup.4", "the link's interface keeps its default class sets");
  makeLink(delegate);
  EXPECT_EQ(platform.interface(1).classes, defaultClasses(xpc::protocolOf<VeltoIPCDaemonProtocol>()));
}

TEST_F(BrokerLink, IsMadeForANilDelegateToo) {
  PROVES("broker.setup.5", "without a delegate the link is made and resumed all the same, and is never null");
  const auto made = setupDaemonConnection(nullptr);
  EXPECT_NE(made, nullptr);
  const Lines lines = journal().take();
  ASSERT_FALSE(lines.empty());
  EXPECT_EQ(lines.back(), "log 2 DaemonConnection Created");
  EXPECT_EQ(lines.at(lines.size() - 2), "connection#1 resume");
}

TEST_F(BrokerLink, SendsNothingByItself) {
  PROVES("broker.setup.6", "making a link takes no proxy and calls nothing");
  makeLink(delegate);
  EXPECT_THAT(link().calls(), IsEmpty());
}

TEST_F(BrokerLink, HoldsItsDelegateWeakly) {
  PROVES("broker.setup.7", "nothing of a link keeps the delegate alive");
  makeLink(delegate);
  const std::weak_ptr<JournalDelegate> watched = delegate;
  delegate = nullptr;
  EXPECT_TRUE(watched.expired());
}

TEST_F(BrokerLink, InterruptionIsLoggedThenTold) {
  PROVES("broker.interruption.1",
         "an interrupted link logs \"Daemon connection interrupted\" at level 0, then tells the delegate with a nil "
         "identifier");
  PROVES("broker.interruption.2", "the error of an interrupted link: code 2 \"Daemon connection interrupted\"");
  makeLink(delegate);
  link().playInterruption();
  EXPECT_THAT(journal().take(), ElementsAre("log 0 Daemon connection interrupted",
                                            "delegate connectionError (null) 2 Daemon connection interrupted"));
  const auto errors = delegate->recorded.errors();
  EXPECT_TRUE(errors.at(0).connectionID.isNil());
  expectError(errors.at(0).error, 2, "Daemon connection interrupted");
}

TEST_F(BrokerLink, InvalidationIsLoggedThenTold) {
  PROVES("broker.invalidation.1",
         "an invalidated link logs \"Daemon connection invalidated\" at level 0, then tells the delegate with a nil "
         "identifier");
  PROVES("broker.invalidation.2", "the error of an invalidated link: code 2 \"Daemon connection invalidated\"");
  makeLink(delegate);
  link().playInvalidation();
  EXPECT_THAT(journal().take(), ElementsAre("log 0 Daemon connection invalidated",
                                            "delegate connectionError (null) 2 Daemon connection invalidated"));
  const auto errors = delegate->recorded.errors();
  EXPECT_TRUE(errors.at(0).connectionID.isNil());
  expectError(errors.at(0).error, 2, "Daemon connection invalidated");
}

TEST_F(BrokerLink, WithoutADelegateItsHandlersOnlyLog) {
  PROVES("broker.delegate.1", "the handlers of a link that was made without a delegate only log");
  makeLink(nullptr);
  link().playInterruption();
  link().playInvalidation();
  EXPECT_THAT(journal().take(),
              ElementsAre("log 0 Daemon connection interrupted", "log 0 Daemon connection invalidated"));
}

TEST_F(BrokerLink, OnceItsDelegateIsGoneItsHandlersOnlyLog) {
  PROVES("broker.delegate.2", "once the delegate is gone the handlers of a link only log");
  makeLink(delegate);
  delegate = nullptr;
  link().playInterruption();
  link().playInvalidation();
  EXPECT_THAT(journal().take(),
              ElementsAre("log 0 Daemon connection interrupted", "log 0 Daemon connection invalidated"));
}

TEST_F(BrokerLink, TellsOfEveryInterruption) {
  PROVES("broker.handlers.1", "the handlers report whenever they run; nothing is tried again and nothing made anew");
  makeLink(delegate);
  link().playInterruption();
  link().playInterruption();
  EXPECT_THAT(journal().take(), ElementsAre("log 0 Daemon connection interrupted",
                                            "delegate connectionError (null) 2 Daemon connection interrupted",
                                            "log 0 Daemon connection interrupted",
                                            "delegate connectionError (null) 2 Daemon connection interrupted"));
  EXPECT_EQ(platform.connectionCount(), 1u);
  EXPECT_FALSE(link().isInvalidated());
}

TEST_F(BrokerLink, LeavesItsOwnerAsItIs) {
  PROVES(
      "broker.handlers.2",
      "the handlers touch nothing of the owner: it is not closed, keeps its link, records no error, wakes no waiter");
  becomeReady("id");
  link().playInterruption();
  link().playInvalidation();
  journal().take();
  EXPECT_NE(client->daemonConnection(), nullptr);
  EXPECT_NE(client->listenerConnection(), nullptr);
  EXPECT_FALSE(peer().isInvalidated());
  NSError error = platformError();
  EXPECT_TRUE(client->waitUntilReady(0, &error));
  EXPECT_TRUE(error.isNil()) << "nothing was recorded";
  EXPECT_TRUE(client->sendMessage(NSDictionary{{"still", "sent"}}));
}

TEST_F(BrokerLink, LeavesAWaitingOwnerAsleep) {
  PROVES("broker.handlers.3", "an owner that waits for readiness does not hear of the link's end: its time runs out");
  lookUp();
  link().playInterruption();
  link().playInvalidation();
  NSError error;
  EXPECT_FALSE(client->waitUntilReady(0.01, &error));
  expectError(error, 6, "Timed out waiting");
}

TEST_F(BrokerLink, ReportsToTheDelegateOfTheStartAlways) {
  PROVES("broker.delegate.3",
         "after setDelegate the link's events still go to the first delegate, and the client's own to the new one");
  becomeReady("id");
  const auto second = makeDelegate("second");
  client->setDelegate(second);
  link().playInterruption();
  peer().playInterruption();
  link().playInvalidation();
  EXPECT_THAT(journal().beginningWith("delegate"),
              ElementsAre("delegate connectionError (null) 2 Daemon connection interrupted",
                          "delegate connectionError (null) 2 Daemon connection invalidated"));
  EXPECT_THAT(journal().beginningWith("second"),
              ElementsAre("second connectionError id 2 Listener connection interrupted"));
}

TEST_F(BrokerLink, ADelegateThatReplacedAGoneOneHearsNothingOfTheLink) {
  PROVES("broker.delegate.4", "a delegate that was set later never hears of the link, even when the first one is gone");
  lookUp();
  const auto second = makeDelegate("second");
  client->setDelegate(second);
  delegate = nullptr;
  link().playInterruption();
  link().playInvalidation();
  EXPECT_THAT(journal().take(),
              ElementsAre("log 0 Daemon connection interrupted", "log 0 Daemon connection invalidated"));
}

TEST_F(BrokerLink, IsNeverShared) {
  PROVES("broker.owner.1", "every client and every listener opens one link of its own");
  const auto first = VeltoConnection::initWithServiceName("one", delegate);
  const auto second = VeltoConnection::initWithServiceName("one", delegate);
  const auto listener = VeltoListener::initWithServiceName("one", delegate);
  ASSERT_EQ(platform.connectionCount(), 3u);
  for (std::size_t number = 1; number <= 3; ++number) {
    EXPECT_EQ(platform.connection(number).serviceName(), NSString("org.velto.VeltoIPCDaemon"));
  }
  EXPECT_NE(first->daemonConnection(), second->daemonConnection());
  EXPECT_NE(first->daemonConnection(), listener->daemonConnection());
  first->close();
  EXPECT_TRUE(platform.connection(1).isInvalidated());
  EXPECT_FALSE(platform.connection(2).isInvalidated());
  EXPECT_FALSE(platform.connection(3).isInvalidated());
}

TEST_F(BrokerLink, IsInvalidatedAndDroppedByClose) {
  PROVES("broker.owner.2", "close invalidates the link and lets go of it; no end ever takes a name back");
  lookUp();
  client->close();
  EXPECT_TRUE(link().isInvalidated());
  EXPECT_EQ(client->daemonConnection(), nullptr);
  EXPECT_TRUE(link().isLetGo());
  const auto listener = VeltoListener::initWithServiceName("service", delegate);
  auto& listenersLink = platform.connection(2);
  listener->close();
  EXPECT_TRUE(listenersLink.isInvalidated());
  EXPECT_EQ(listener->daemonConnection(), nullptr);
  EXPECT_TRUE(listenersLink.isLetGo());
  for (const std::string& line : journal().take()) {
    EXPECT_EQ(line.find("killListenerConnection"), std::string::npos) << line;
  }
}

}  // namespace
}  // namespace velto::testing
