// From the constructor to the ping: the lookup, what its answer brings, and in what order.

#include <map>

#include "message/PeerProtocol.h"
#include "tests/conformance/steps/ClientInside.h"
#include "tests/conformance/steps/ClientSteps.h"

namespace velto::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

using ClientEstablishment = ClientSteps;

TEST_F(ClientEstablishment, OpensTheLinkThenTakesItsProxyThenLooksUp) {
  PROVES(
      "client.start.1",
      "a client opens its link, takes the broker's proxy, logs \"Getting ListenerEndpoint\" at level 2 and sends the "
      "lookup, in this order");
  client = VeltoConnection::initWithServiceName("service", delegate);
  EXPECT_THAT(journal().take(),
              ElementsAre("interface#1 interfaceWithProtocol VeltoIPCDaemonProtocol",
                          "connection#1 initWithServiceName org.velto.VeltoIPCDaemon",
                          "connection#1 setRemoteObjectInterface interface#1", "connection#1 setInterruptionHandler",
                          "connection#1 setInvalidationHandler", "connection#1 resume",
                          "log 2 DaemonConnection Created", "connection#1 remoteObjectProxyWithErrorHandler proxy#1",
                          "log 2 Getting ListenerEndpoint", "proxy#1 findListenerEndpointForName:handle:"));
}

TEST_F(ClientEstablishment, LooksUpTheNameThatItWasGiven) {
  PROVES("client.start.2", "the lookup carries the service name as it was given, and a reply block");
  lookUp();
  const auto lookup = link().lastCall(kLookup);
  EXPECT_EQ(lookup->arguments(), std::vector<NSObject>{"service"});
  EXPECT_TRUE(lookup->hasReply());
  const auto empty = VeltoConnection::initWithServiceName("", delegate);
  EXPECT_EQ(platform.connection(2).lastCall(kLookup)->arguments(), std::vector<NSObject>{""});
  const auto none = VeltoConnection::initWithServiceName(nil, delegate);
  EXPECT_EQ(platform.connection(3).lastCall(kLookup)->arguments(), std::vector<NSObject>{nil});
}

TEST_F(ClientEstablishment, ReturnsBeforeAnythingIsThere) {
  PROVES("client.start.3",
         "the constructor waits for nothing: endpoint, connection, proxy and identifier are not there");
  lookUp();
  EXPECT_TRUE(client->listenerEndpoint().isNil());
  EXPECT_EQ(client->listenerConnection(), nullptr);
  EXPECT_EQ(client->listenerProxyObject(), nullptr);
  EXPECT_TRUE(client->getID().isNil());
  EXPECT_FALSE(client->waitUntilReady(0));
}

TEST_F(ClientEstablishment, KeepsItsLinkAndItsDelegate) {
  PROVES("client.start.4", "the link that was opened is daemonConnection, the delegate that was given is delegate");
  lookUp();
  ASSERT_NE(client->daemonConnection(), nullptr);
  EXPECT_FALSE(link().isLetGo());
  EXPECT_EQ(client->delegate(), delegate);
  client->daemonConnection()->invalidate();
  EXPECT_THAT(journal().take(), ElementsAre("connection#1 invalidate")) << "it is that very link";
}

TEST_F(ClientEstablishment, NeverAsksTwice) {
  PROVES("client.start.5", "there is one lookup, never repeated, whatever becomes of it");
  lookUp();
  link().playInterruption();
  link().playProxyError(platformError());
  EXPECT_FALSE(client->waitUntilReady(0.01));
  EXPECT_THAT(link().calls(), SizeIs(1));
  EXPECT_EQ(platform.connectionCount(), 1u);
}

TEST_F(ClientEstablishment, StartsWithoutADelegate) {
  PROVES("client.start.6", "a client without a delegate is established like any other, and its errors tell nobody");
  delegate = nullptr;
  becomeReady("id");
  EXPECT_EQ(client->delegate(), nullptr);
  EXPECT_TRUE(client->waitUntilReady(0));
  peer().playInterruption();
  link().playInvalidation();
  EXPECT_THAT(journal().take(),
              ElementsAre("log 0 Listener connection interrupted", "log 0 Daemon connection invalidated"));
}

TEST_F(ClientEstablishment, DoesNotKeepItsDelegateAlive) {
  PROVES("peer.delegate.1", "neither a client nor what it hands to the platform keeps the delegate alive");
  becomeReady("id");
  client->sendMessage(NSDictionary::dictionary());
  const std::weak_ptr<JournalDelegate> watched = delegate;
  delegate = nullptr;
  EXPECT_TRUE(watched.expired());
  EXPECT_EQ(client->delegate(), nullptr);
}

TEST_F(ClientEstablishment, ThePendingLookupKeepsTheClientAlive) {
  PROVES("client.start.7", "until the broker has answered, the lookup keeps the client alive");
  lookUp();
  const std::weak_ptr<VeltoConnection> watched = client;
  client = nullptr;
  EXPECT_FALSE(watched.expired());
  link().lastCall(kLookup)->answer(nil);
  EXPECT_TRUE(watched.expired());
}

TEST_F(ClientEstablishment, AnAnswerMayComeWhileTheLookupIsStillBeingSent) {
  PROVES(
      "client.start.8",
      "the registry of synchronous sends is there before the lookup goes out: an answer at that very moment finds it");
  bool hadRegistry = false;
  journal().observe([&](const std::string& line) {
    if (line != "proxy#1 findListenerEndpointForName:handle:") return;
    link().lastCall(kLookup)->answer(endpoint);
    const auto* end = static_cast<const VeltoCommunicationMessageProtocol*>(peer().exportedObject());
    const auto* early = dynamic_cast<const VeltoConnection*>(end);
    hadRegistry = early != nullptr && !registryOf(*early).isNil();
  });
  client = VeltoConnection::initWithServiceName("service", delegate);
  journal().observe({});
  EXPECT_TRUE(hadRegistry);
  EXPECT_FALSE(peer().isInvalidated()) << "nor is it taken for a closed client";
  peer().deliver<&VeltoCommunicationMessageProtocol::connectionUUID>("id");
  EXPECT_TRUE(client->sendMessage(NSDictionary::dictionary()));
}

TEST_F(ClientEstablishment, NoListenerIsLoggedAndReportedWithoutIdentifier) {
  PROVES("client.lookup.1",
         "the answer nil logs \"Endpoint for NAME is Nill\" at level 0, then reports code 2 \"Listener not available\" "
         "with a nil identifier");
  lookUp();
  link().lastCall(kLookup)->answer(nil);
  EXPECT_THAT(journal().take(), ElementsAre("log 0 Endpoint for service is Nill",
                                            "delegate connectionError (null) 2 Listener not available"));
  expectError(delegate->recorded.errors().at(0).error, 2, "Listener not available");
}

TEST_F(ClientEstablishment, NoListenerLeavesTheLinkOpenAndTheErrorRecorded) {
  PROVES("client.lookup.2", "after the answer nil the link stays open, nothing is tried again, and the error stays");
  lookUp();
  link().lastCall(kLookup)->answer(nil);
  EXPECT_FALSE(link().isInvalidated());
  EXPECT_NE(client->daemonConnection(), nullptr);
  EXPECT_EQ(platform.connectionCount(), 1u);
  EXPECT_THAT(link().calls(), SizeIs(1));
  for (int time = 0; time < 2; ++time) {
    NSError error;
    EXPECT_FALSE(client->waitUntilReady(60, &error));
    expectError(error, 2, "Listener not available");
  }
}

TEST_F(ClientEstablishment, NoListenerWakesWhoeverWaits) {
  PROVES("client.lookup.3", "the answer nil ends a wait for readiness before its deadline");
  lookUp();
  NSError error;
  auto waiter = waitAsleep(600, error);
  link().lastCall(kLookup)->answer(nil);
  EXPECT_FALSE(finish(waiter));
  expectError(error, 2, "Listener not available");
}

TEST_F(ClientEstablishment, AnEndpointIsConnectedToStepByStep) {
  PROVES("client.configure.1",
         "the answer with an endpoint is followed, in this order, by: log line, peer interface, connection to the "
         "endpoint, remote interface, exported interface, exported object, interruption handler, invalidation handler, "
         "resume, proxy, ping, log line");
  lookUp();
  link().lastCall(kLookup)->answer(endpoint);
  EXPECT_THAT(journal().take(),
              ElementsAre("log 2 Connection Configuration Started",
                          "interface#2 interfaceWithProtocol VeltoCommunicationMessageProtocol",
                          "connection#2 initWithListenerEndpoint", "connection#2 setRemoteObjectInterface interface#2",
                          "connection#2 setExportedInterface interface#2", "connection#2 setExportedObject",
                          "connection#2 setInterruptionHandler", "connection#2 setInvalidationHandler",
                          "connection#2 resume", "connection#2 remoteObjectProxyWithErrorHandler proxy#2",
                          "proxy#2 ping", "log 2 Connection Configured and Pinged"));
}

TEST_F(ClientEstablishment, ConnectsToTheEndpointOfTheAnswer) {
  PROVES("client.configure.2", "the connection is made with the very endpoint of the answer, kept as listenerEndpoint");
  configure();
  EXPECT_TRUE(peer().endpoint().isIdenticalTo(endpoint));
  EXPECT_TRUE(client->listenerEndpoint().isIdenticalTo(endpoint));
}

TEST_F(ClientEstablishment, ExportsItself) {
  PROVES("client.configure.3", "the exported object is the client itself, behind the one interface of both roles");
  configure();
  EXPECT_EQ(peer().exportedObject(), asPeer(client));
  EXPECT_EQ(peer().exportedInterface(), peer().remoteInterface());
  EXPECT_EQ(platform.interface(2).classes, defaultClasses(xpc::protocolOf<VeltoCommunicationMessageProtocol>()));
}

TEST_F(ClientEstablishment, StoresEachPieceBeforeItGoesOn) {
  PROVES("client.configure.4",
         "the endpoint is stored first, the connection before it is set up, the proxy before the ping");
  lookUp();
  struct Pieces {
    bool endpoint;
    bool connection;
    bool proxy;
  };
  std::map<std::string, Pieces> seen;
  journal().observe([&](const std::string& line) {
    seen[line] = {!client->listenerEndpoint().isNil(), client->listenerConnection() != nullptr,
                  client->listenerProxyObject() != nullptr};
  });
  link().lastCall(kLookup)->answer(endpoint);
  journal().observe({});
  const auto expectAt = [&](const std::string& line, Pieces expected) {
    ASSERT_TRUE(seen.contains(line)) << line;
    EXPECT_EQ(seen[line].endpoint, expected.endpoint) << line;
    EXPECT_EQ(seen[line].connection, expected.connection) << line;
    EXPECT_EQ(seen[line].proxy, expected.proxy) << line;
  };
  expectAt("log 2 Connection Configuration Started", {true, false, false});
  expectAt("connection#2 initWithListenerEndpoint", {true, false, false});
  expectAt("connection#2 setRemoteObjectInterface interface#2", {true, true, false});
  expectAt("connection#2 resume", {true, true, false});
  expectAt("connection#2 remoteObjectProxyWithErrorHandler proxy#2", {true, true, false});
  expectAt("proxy#2 ping", {true, true, true});
}

TEST_F(ClientEstablishment, ConnectsToTheEndpointThatItReadsBack) {
  PROVES("client.configure.5", "connection and ping go by what the accessors answer at that moment");
  lookUp();
  const NSXPCListenerEndpoint other = makeEndpoint();
  journal().observe([&](const std::string& line) {
    if (line == "log 2 Connection Configuration Started") client->setListenerEndpoint(other);
    if (line == "connection#2 remoteObjectProxyWithErrorHandler proxy#2") client->setListenerEndpoint(nil);
  });
  link().lastCall(kLookup)->answer(endpoint);
  journal().observe({});
  EXPECT_TRUE(peer().endpoint().isIdenticalTo(other));
}

TEST_F(ClientEstablishment, PingsOnceAndSendsNothingElse) {
  PROVES("client.configure.6", "the ping is sent once and is all that goes to the listener before the client is ready");
  PROVES("peer.life.1", "a client's first call is its ping, and it pings once");
  becomeReady("id");
  ASSERT_THAT(peer().calls(), SizeIs(1));
  EXPECT_EQ(peer().calls()[0]->selector(), "ping");
  EXPECT_THAT(peer().calls()[0]->arguments(), IsEmpty());
}

TEST_F(ClientEstablishment, IsNotReadyOnceConfigured) {
  PROVES("client.configure.7", "configured is not ready: only the listener's identifier makes it so");
  configure();
  EXPECT_FALSE(client->waitUntilReady(0));
  EXPECT_TRUE(client->getID().isNil());
  EXPECT_THAT(delegate->recorded.events(), IsEmpty());
}

TEST_F(ClientEstablishment, AListenerThatNeverAnswersThePingLetsTheTimeRunOut) {
  PROVES("client.configure.8",
         "without an answer to the ping a wait for readiness ends with code 6 \"Timed out waiting\"");
  configure();
  NSError error;
  EXPECT_FALSE(client->waitUntilReady(0.02, &error));
  expectError(error, 6, "Timed out waiting");
}

TEST_F(ClientEstablishment, TheConnectionKeepsTheClientAliveUntilItIsInvalidated) {
  PROVES("client.configure.9", "an established client lives until its connection to the listener is invalidated");
  becomeReady("id");
  const std::weak_ptr<VeltoConnection> watched = client;
  client = nullptr;
  EXPECT_FALSE(watched.expired());
  peer().playInvalidation();
  EXPECT_TRUE(watched.expired());
}

TEST_F(ClientEstablishment, DestructionTearsNothingDown) {
  PROVES("client.configure.10", "destroying a client invalidates nothing: only close does");
  lookUp();
  link().lastCall(kLookup)->answer(nil);
  journal().take();
  letGoOfClient();
  EXPECT_THAT(journal().take(), IsEmpty());
  EXPECT_FALSE(link().isInvalidated());
  EXPECT_TRUE(link().isLetGo());
}

TEST_F(ClientEstablishment, AnAnswerAfterCloseTakesItsStepsAndIsClosedAgain) {
  PROVES("client.configure.11",
         "an answer that comes after close takes all its steps and is then closed in turn: closed stays closed");
  lookUp();
  const auto lookup = link().lastCall(kLookup);
  client->close();
  journal().take();
  lookup->answer(endpoint);
  const Lines lines = journal().take();
  ASSERT_GE(lines.size(), 2u);
  EXPECT_EQ(lines.front(), "log 2 Connection Configuration Started");
  EXPECT_EQ(lines.at(lines.size() - 2), "log 2 Connection Configured and Pinged");
  EXPECT_EQ(lines.back(), "connection#2 invalidate");
  EXPECT_EQ(client->listenerConnection(), nullptr);
  EXPECT_EQ(client->listenerProxyObject(), nullptr);
  EXPECT_TRUE(client->listenerEndpoint().isNil());
}

}  // namespace
}  // namespace velto::testing
