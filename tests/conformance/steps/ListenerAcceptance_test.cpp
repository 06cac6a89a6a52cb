// The steps by which a listener takes up a connection.

#include "platform/foundation/Box.h"
#include "platform/logging/VeltoLogging.h"
#include "tests/conformance/steps/ListenerSteps.h"

namespace velto::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

using ListenerAcceptanceSteps = ListenerSteps;

TEST_F(ListenerAcceptanceSteps, AConnectionIsSetUpResumedRecordedToldOfAndIntroduced) {
  PROVES("listener.accept.2",
         "acceptance first logs \"VeltoListener Setting Up New Connection:\" with the identifier, at level 2");
  PROVES("listener.accept.3",
         "a connection is given its exported interface, exported object, remote interface, interruption handler, "
         "invalidation handler, in this order, and then resumed");
  PROVES("listener.accept.4", "the exported interface is of the peer protocol");
  PROVES("listener.accept.11",
         "\"Sending ConnectionUUID\" is logged with the identifier at level 2, after the entries and before "
         "connectionReady");
  PROVES("listener.accept.12", "connectionReady is called with the identifier, before the proxy is taken");
  PROVES(
      "listener.accept.15",
      "the client is sent the strict-types flag, then its identifier, once each, after connectionReady has returned");
  PROVES("listener.accept.17", "every connection is accepted");
  PROVES("listener.accept.24", "all in all, nothing but these platform calls is made for a connection");
  start();
  const auto offer = platform.listener(1).offerConnection();
  EXPECT_TRUE(offer.isAccepted);
  const std::string id = delegate->recorded.readies().front().connectionID.string();
  EXPECT_THAT(
      journal().take(),
      ElementsAre("connection#2 accepted", "log 2 VeltoListener Setting Up New Connection: " + id,
                  "interface#2 interfaceWithProtocol VeltoCommunicationMessageProtocol",
                  "interface#2 classesForSelector connectionID:withMessage:handler: 1 NO",
                  "interface#2 setClasses connectionID:withMessage:handler: 1 NO",
                  "connection#2 setExportedInterface interface#2", "connection#2 setExportedObject",
                  "interface#3 interfaceWithProtocol VeltoCommunicationMessageProtocol",
                  "connection#2 setRemoteObjectInterface interface#3", "connection#2 setInterruptionHandler",
                  "connection#2 setInvalidationHandler", "connection#2 resume", "log 2 Sending ConnectionUUID " + id,
                  "delegate connectionReady " + id, "connection#2 remoteObjectProxyWithErrorHandler proxy#2",
                  "proxy#2 setStrictMessageTypesRemote:", "proxy#2 connectionUUID:"));
  EXPECT_EQ(offer.connection->lastCall("connectionUUID:")->arguments().at(0), NSString(id));
  EXPECT_EQ(offer.connection->lastCall("setStrictMessageTypesRemote:")->arguments().at(0), NSNumber(true));
}

TEST_F(ListenerAcceptanceSteps, OnlyTheMessagesClassSetIsWidened) {
  PROVES("listener.accept.4", "the exported interface is of the peer protocol");
  PROVES("listener.accept.5", "of the exported interface the message's class set is the default one and VKTLogAnchor");
  PROVES("listener.accept.6",
         "of the exported interface every other class set, those of replies included, is the default one");
  PROVES("listener.accept.8", "the remote interface is a second one of the peer protocol, with default class sets");
  start();
  const auto client = accept();
  const InterfaceDouble exported = platform.interfaceOf(client.connection->exportedInterface().get());
  const InterfaceDouble remote = platform.interfaceOf(client.connection->remoteInterface().get());
  EXPECT_NE(exported.number, remote.number);
  EXPECT_EQ(exported.protocol, &xpc::protocolOf<VeltoCommunicationMessageProtocol>());
  EXPECT_EQ(remote.protocol, exported.protocol);
  auto expected = defaultClasses(*exported.protocol);
  EXPECT_EQ(remote.classes, expected);
  NSMutableSet widened = NSMutableSet::initWithSet(expected.at({kMessage, 1, false}));
  widened.addObject(VKTLogAnchor::classObject());
  EXPECT_NE(NSSet(widened), expected.at({kMessage, 1, false}));
  expected[{kMessage, 1, false}] = widened;
  EXPECT_EQ(exported.classes, expected);
}

TEST_F(ListenerAcceptanceSteps, TheListenerIsTheExportedObjectOfEveryConnection) {
  PROVES("listener.accept.7", "the exported object of every connection is the listener itself");
  start();
  const auto first = accept();
  const auto second = accept();
  const void* self = static_cast<VeltoCommunicationMessageProtocol*>(listener.get());
  EXPECT_EQ(first.connection->exportedObject(), self);
  EXPECT_EQ(second.connection->exportedObject(), self);
  EXPECT_NE(first.connection->exportedInterface(), second.connection->exportedInterface());
}

TEST_F(ListenerAcceptanceSteps, TheTablesAreFilledInTheirOrder) {
  PROVES("listener.accept.9", "the tables know nothing of a connection before it is resumed");
  PROVES("listener.accept.10",
         "acceptance enters the conditions, an empty array, and the connection itself before connectionReady");
  PROVES("listener.accept.14", "the proxy is stored before anything is sent through it");
  start();
  std::map<std::string, std::string> seen;
  journal().observe([&](const std::string& line) {
    if (line.starts_with("delegate") || line.starts_with("proxy#2") || line == "connection#2 resume" ||
        line.ends_with("proxy#2") || line.starts_with("log 2 Sending")) {
      std::string now;
      if (listener->connectionConditions().count() != 0) now += "C";
      if (listener->receivedConnections().count() != 0) now += "R";
      if (listener->receivedProxyObjects().count() != 0) now += "P";
      seen[line.substr(0, line.find(' ', line.find(' ') + 1))] += now + ";";
    }
  });
  const auto client = platform.listener(1).offerConnection();
  journal().observe({});
  EXPECT_THAT(seen, ElementsAre(std::pair("connection#2 remoteObjectProxyWithErrorHandler", "CR;"),
                                std::pair("connection#2 resume", ";"), std::pair("delegate connectionReady", "CR;"),
                                std::pair("log 2", "CR;"), std::pair("proxy#2 connectionUUID:", "CRP;"),
                                std::pair("proxy#2 setStrictMessageTypesRemote:", "CRP;")));
  const NSString id = delegate->recorded.readies().front().connectionID;
  EXPECT_TRUE(listener->connectionConditions()[id].isKindOfClass(NSMutableArray::classObject()));
  EXPECT_EQ(waiting(id), 0u);
  const auto recorded = unbox<NSXPCConnection>(listener->receivedConnections()[id]);
  ASSERT_TRUE(recorded);
  journal().take();
  recorded->invalidate();
  EXPECT_THAT(journal().take(), ElementsAre("connection#2 invalidate")) << "it is the connection that came";
}

TEST_F(ListenerAcceptanceSteps, TheTablesHoldTheConnectionAndItsProxy) {
  PROVES("listener.accept.27", "the entry among the proxies is the proxy of the connection");
  PROVES("listener.accept.28", "the tables keep a connection alive until it is closed");
  start();
  const auto client = accept();
  EXPECT_FALSE(client.connection->isLetGo());
  const auto proxy = unbox<PeerProxy>(listener->receivedProxyObjects()[client.id]);
  ASSERT_TRUE(proxy);
  proxy->call<&VeltoCommunicationMessageProtocol::ping>();
  EXPECT_THAT(journal().take(), ElementsAre("proxy#2 ping"));
  listener->close(client.id);
  EXPECT_TRUE(client.connection->isLetGo());
}

TEST_F(ListenerAcceptanceSteps, TheFlagIsReadAfterConnectionReady) {
  PROVES("listener.accept.16", "the strict-types flag that is sent is the one of that moment");
  PROVES("listener.strict.2", "a client that is connected keeps the flag it was sent");
  PROVES("listener.strict.3", "a client that connects later gets the new flag");
  start();
  const auto first = accept();
  delegate->recorded.onReady([&](const NSString&) { listener->setStrictMessageTypes(false); });
  const auto second = accept();
  EXPECT_EQ(first.connection->lastCall("setStrictMessageTypesRemote:")->arguments().at(0), NSNumber(true));
  EXPECT_EQ(second.connection->lastCall("setStrictMessageTypesRemote:")->arguments().at(0), NSNumber(false));
  EXPECT_EQ(first.connection->calls().size(), 2u) << "the first client is not told";
}

TEST_F(ListenerAcceptanceSteps, WithoutADelegateAllStepsButTheCallbackAreTaken) {
  PROVES("listener.accept.20", "without a delegate a connection is accepted all the same");
  PROVES("listener.accept.17", "every connection is accepted");
  start();
  listener->setDelegate(nullptr);
  const auto client = accept();
  EXPECT_TRUE(client.isAccepted);
  EXPECT_EQ(tables(client.id), "CRP");
  EXPECT_THAT(delegate->recorded.events(), IsEmpty());
}

TEST_F(ListenerAcceptanceSteps, APingIsLoggedAndNothingElse) {
  PROVES("listener.ping.1",
         "a ping is logged at level 2 as \"VeltoConnection Pinged VeltoListener\" and does nothing else");
  start();
  const auto client = accept();
  client.connection->deliver<&VeltoCommunicationMessageProtocol::ping>();
  EXPECT_THAT(journal().take(), ElementsAre("log 2 VeltoConnection Pinged VeltoListener"));
}

TEST_F(ListenerAcceptanceSteps, AReportedErrorIsPassedOnWithoutAnotherStep) {
  PROVES("listener.report.1", "an error that a client reports reaches the delegate with a nil identifier, unchanged");
  PROVES("listener.report.2", "a nil error that a client reports stays nil");
  PROVES("listener.report.3", "a reported error logs nothing, closes nothing and changes no table");
  start();
  const auto client = accept();
  client.connection->deliver<&VeltoCommunicationMessageProtocol::connectionError>(platformError());
  client.connection->deliver<&VeltoCommunicationMessageProtocol::connectionError>(NSError());
  EXPECT_THAT(journal().take(), ElementsAre("delegate connectionError (null) 2 the platform failed",
                                            "delegate connectionError (null) (null)"));
  EXPECT_EQ(tables(client.id), "CRP");
}

}  // namespace
}  // namespace velto::testing
