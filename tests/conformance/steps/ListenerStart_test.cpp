// The steps by which a listener is made and registered, and those that it does not take.

#include <gtest/gtest-spi.h>

#include "tests/conformance/steps/ListenerSteps.h"

namespace velto::testing {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

using ListenerStartSteps = ListenerSteps;

TEST_F(ListenerStartSteps, APlainListenerMakesAnAnonymousListenerAndNothingElse) {
  PROVES("listener.init.3", "init makes one anonymous platform listener, gives it no delegate and does not resume it");
  PROVES("listener.init.4", "init opens no link to the broker and sends it nothing");
  listener = VeltoListener::init();
  EXPECT_THAT(journal().take(), ElementsAre("listener#1 anonymousListener"));
  EXPECT_EQ(platform.listener(1).delegate(), nullptr);
  EXPECT_EQ(platform.connectionCount(), 0u);
  EXPECT_FALSE(platform.listener(1).offerConnection().isAccepted);
}

TEST_F(ListenerStartSteps, APlainListenerIsClosedWithoutAStep) {
  PROVES("listener.init.7", "a listener from init can be closed, and nothing is seen of it");
  listener = VeltoListener::init();
  listener->setDelegate(delegate);
  journal().take();
  listener->close();
  EXPECT_THAT(journal().take(), IsEmpty());
}

TEST_F(ListenerStartSteps, AListenerRegistersItsEndpointThenListens) {
  PROVES(
      "listener.start.1",
      "a new listener makes its defaults, the anonymous platform listener among them, before it opens the broker link");
  PROVES("listener.start.2", "the broker link is resumed before its proxy is taken");
  PROVES("listener.start.3",
         "\"Sending ListenerEndpoint\" is logged at level 2 after the broker's proxy is taken and before the "
         "registration");
  PROVES("listener.start.5", "the endpoint goes to the broker before the platform listener has a delegate");
  PROVES("listener.start.7", "the platform listener is resumed last");
  PROVES("listener.start.8", "the registration is one message without an answer, and is never sent again");
  PROVES("listener.start.16", "all in all, nothing but these platform calls is made at the start");
  listener = VeltoListener::initWithServiceName("name", delegate);
  EXPECT_THAT(journal().take(),
              ElementsAre("listener#1 anonymousListener", "interface#1 interfaceWithProtocol VeltoIPCDaemonProtocol",
                          "connection#1 initWithServiceName org.velto.VeltoIPCDaemon",
                          "connection#1 setRemoteObjectInterface interface#1", "connection#1 setInterruptionHandler",
                          "connection#1 setInvalidationHandler", "connection#1 resume",
                          "log 2 DaemonConnection Created", "connection#1 remoteObjectProxyWithErrorHandler proxy#1",
                          "log 2 Sending ListenerEndpoint", "listener#1 endpoint",
                          "proxy#1 sendListenerConnection:withName:", "listener#1 setDelegate", "listener#1 resume"));
  EXPECT_FALSE(platform.connection(1).lastCall(kRegister)->hasReply());
}

TEST_F(ListenerStartSteps, TheRegistrationIsSentBeforeTheListenerHasADelegate) {
  PROVES("listener.start.5", "the endpoint goes to the broker before the platform listener has a delegate");
  bool hadDelegate = true;
  journal().observe([&](const std::string& line) {
    if (line == "proxy#1 sendListenerConnection:withName:") hadDelegate = platform.listener(1).delegate() != nullptr;
  });
  start();
  EXPECT_FALSE(hadDelegate);
}

TEST_F(ListenerStartSteps, TheRegistrationCarriesEndpointAndName) {
  PROVES("listener.start.4",
         "the registration carries the anonymous listener's endpoint and the service name as given");
  PROVES("listener.start.10", "a nil service name goes to the broker as it is");
  PROVES("listener.start.11", "an empty service name goes to the broker as it is");
  std::vector<std::shared_ptr<VeltoListener>> made;
  std::size_t number = 0;
  for (const NSString& name : {NSString("a name"), NSString(""), NSString()}) {
    made.push_back(VeltoListener::initWithServiceName(name, delegate));
    ++number;
    const auto call = platform.connection(number).lastCall(kRegister);
    ASSERT_EQ(call->arguments().size(), 2u);
    EXPECT_TRUE(call->arguments()[0].isIdenticalTo(platform.listener(number).knownEndpoint()));
    EXPECT_EQ(call->arguments()[1], name);
  }
}

TEST_F(ListenerStartSteps, TheBrokersProxyIsNotKept) {
  PROVES("listener.start.17", "the broker's proxy is not kept after the registration");
  start();
  platform.connection(1).lastCall(kRegister)->drop();
  EXPECT_NONFATAL_FAILURE(platform.connection(1).playProxyError(platformError()), "nothing is left of the last proxy");
  EXPECT_THAT(journal().take(), IsEmpty());
}

TEST_F(ListenerStartSteps, ThePlatformListenersDelegateIsTheListener) {
  PROVES("listener.start.6",
         "the platform listener's delegate is the listener itself, set before the platform listener is resumed");
  PROVES("listener.start.9", "daemonConnection is the link that was opened");
  start();
  EXPECT_EQ(platform.listener(1).delegate(), std::static_pointer_cast<NSXPCListenerDelegate>(listener));
  const auto link = listener->daemonConnection();
  ASSERT_TRUE(link);
  link->invalidate();
  EXPECT_THAT(journal().take(), ElementsAre("connection#1 invalidate"));
}

TEST_F(ListenerStartSteps, ARegistrationThatFailsIsLoggedThenTold) {
  PROVES("listener.broker.1",
         "a registration that fails is logged at level 0 as \"Velto Remote Proxy Error\" with the error, then told to "
         "the delegate");
  PROVES("listener.broker.2",
         "a registration that fails reaches the delegate with a nil identifier and the platform's error unchanged");
  PROVES("listener.broker.5", "a registration that fails is not tried again, and the platform listener stays resumed");
  start();
  platform.connection(1).lastCall(kRegister)->refuse(platformError());
  EXPECT_THAT(journal().take(), ElementsAre("log 0 Velto Remote Proxy Error " + platformError().description().string(),
                                            "delegate connectionError (null) 2 the platform failed"));
  EXPECT_EQ(delegate->recorded.errors().front().error, platformError());
  EXPECT_EQ(platform.connectionCount(), 1u);
  EXPECT_EQ(platform.connection(1).calls().size(), 1u) << "no second attempt";
  EXPECT_TRUE(platform.listener(1).offerConnection().isAccepted);
}

TEST_F(ListenerStartSteps, ARegistrationThatFailsIsToldToTheDelegateOfThatMoment) {
  PROVES("listener.broker.3", "a registration that fails is told to the delegate of that moment");
  PROVES("listener.broker.6", "a registration that fails while there is no delegate is logged and nothing else");
  start();
  const auto later = makeDelegate("later");
  const std::string line = "log 0 Velto Remote Proxy Error " + platformError().description().string();
  listener->setDelegate(later);
  const auto call = platform.connection(1).lastCall(kRegister);
  call->refuse(platformError());
  EXPECT_THAT(journal().take(), ElementsAre(line, "later connectionError (null) 2 the platform failed"));
  const auto second = VeltoListener::initWithServiceName("second", nullptr);
  journal().take();
  platform.connection(2).lastCall(kRegister)->refuse(platformError());
  EXPECT_THAT(journal().take(), ElementsAre(line));
}

TEST_F(ListenerStartSteps, ARegistrationThatFailsWhenTheListenerIsGoneIsLoggedOnly) {
  PROVES("listener.broker.4", "a registration that fails after the listener is gone is logged and nothing else");
  start();
  const auto call = platform.connection(1).lastCall(kRegister);
  letGoOfListener();
  call->refuse(platformError());
  EXPECT_THAT(journal().take(),
              ElementsAre("log 0 Velto Remote Proxy Error " + platformError().description().string()));
}

TEST_F(ListenerStartSteps, TheLinkReportsToTheFirstDelegate) {
  PROVES(
      "listener.broker.7",
      "a broker link that is invalidated is told with a nil identifier and code 2 \"Daemon connection invalidated\"");
  PROVES(
      "listener.broker.8",
      "a broker link that is interrupted is told with a nil identifier and code 2 \"Daemon connection interrupted\"");
  PROVES("listener.broker.9", "the broker link reports to the delegate given at the start, also after another was set");
  start();
  listener->setDelegate(makeDelegate("later"));
  platform.connection(1).playInterruption();
  EXPECT_THAT(journal().take(), Contains("delegate connectionError (null) 2 Daemon connection interrupted").Times(1));
  expectError(delegate->recorded.errors().back().error, 2, "Daemon connection interrupted");
  platform.connection(1).playInvalidation();
  EXPECT_THAT(journal().take(), Contains("delegate connectionError (null) 2 Daemon connection invalidated").Times(1));
  expectError(delegate->recorded.errors().back().error, 2, "Daemon connection invalidated");
  EXPECT_EQ(delegate->recorded.errors().size(), 2u);
}

TEST_F(ListenerStartSteps, TheDelegateIsHeldWeakly) {
  PROVES("listener.start.13", "nothing of a listener or its link keeps the delegate alive");
  start();
  accept();
  std::weak_ptr<JournalDelegate> watched = delegate;
  delegate.reset();
  EXPECT_TRUE(watched.expired());
  EXPECT_EQ(listener->delegate(), nullptr);
}

}  // namespace
}  // namespace velto::testing
