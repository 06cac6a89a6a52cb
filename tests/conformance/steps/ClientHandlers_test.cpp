// The four handlers that a client gives to the platform.

#include "tests/conformance/steps/ClientSteps.h"

namespace velto::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class ClientHandlers : public ClientSteps {
 protected:
  // The error in the log, as it prints.
  static std::string printed(const NSError& error) { return error.description().string(); }
  // What a wait that only looks finds recorded.
  NSError recordedError() const {
    NSError error;
    client->waitUntilReady(0, &error);
    return error;
  }
};

TEST_F(ClientHandlers, AFailureOfTheBrokersProxyIsLoggedThenPassedOn) {
  PROVES(
      "client.handlers.1",
      "a failed call to the broker logs \"Velto lost connection with VeltoIPCDaemon\" and the error at level 0, then "
      "reports the platform's error unchanged");
  lookUp();
  const NSError error = platformError();
  link().playProxyError(error);
  EXPECT_THAT(journal().take(), ElementsAre("log 0 Velto lost connection with VeltoIPCDaemon " + printed(error),
                                            "delegate connectionError (null) 2 the platform failed"));
  EXPECT_TRUE(delegate->recorded.errors().at(0).error.isIdenticalTo(error));
  EXPECT_TRUE(recordedError().isIdenticalTo(error));
}

TEST_F(ClientHandlers, AFailureOfTheBrokersProxyWakesWhoeverWaits) {
  PROVES("client.handlers.2", "a failed lookup ends a wait for readiness with the platform's error");
  lookUp();
  NSError error;
  auto waiter = waitAsleep(600, error);
  link().lastCall(kLookup)->refuse(platformError());
  EXPECT_FALSE(finish(waiter));
  EXPECT_EQ(error, platformError());
}

TEST_F(ClientHandlers, InterruptionIsLoggedAndReportedAndClosesNothing) {
  PROVES("client.handlers.3",
         "an interrupted connection logs \"Listener connection interrupted\" at level 0, then reports code 2 with the "
         "same text");
  PROVES("client.handlers.4", "an interruption closes nothing");
  becomeReady("id");
  peer().playInterruption();
  EXPECT_THAT(journal().take(), ElementsAre("log 0 Listener connection interrupted",
                                            "delegate connectionError id 2 Listener connection interrupted"));
  expectError(delegate->recorded.errors().at(0).error, 2, "Listener connection interrupted");
  EXPECT_TRUE(recordedError().isIdenticalTo(delegate->recorded.errors().at(0).error));
  EXPECT_FALSE(peer().isInvalidated());
  EXPECT_NE(client->listenerConnection(), nullptr);
  EXPECT_NE(client->listenerProxyObject(), nullptr);
  EXPECT_TRUE(client->sendMessage(NSDictionary::dictionary()));
}

TEST_F(ClientHandlers, InvalidationIsLoggedThenClosesThenIsReported) {
  PROVES("client.handlers.5",
         "an invalidated connection logs \"Listener connection invalided. Shutting down connections\" at level 2, "
         "closes the client, then reports code 2 \"Listener connection invalidated\"");
  becomeReady("id");
  peer().playInvalidation();
  EXPECT_THAT(journal().take(),
              ElementsAre("log 2 Listener connection invalided. Shutting down connections", "connection#2 invalidate",
                          "connection#1 invalidate", "delegate connectionError id 2 Listener connection invalidated"));
  expectError(delegate->recorded.errors().at(0).error, 2, "Listener connection invalidated");
  EXPECT_TRUE(recordedError().isIdenticalTo(delegate->recorded.errors().at(0).error));
  EXPECT_EQ(client->listenerConnection(), nullptr);
  EXPECT_EQ(client->daemonConnection(), nullptr);
}

TEST_F(ClientHandlers, InvalidationAfterACloseFindsNothingToCloseAndIsReported) {
  PROVES("client.handlers.6",
         "the invalidation after a deliberate close is logged and reported too, and closes nothing");
  becomeReady("id");
  client->close();
  journal().take();
  peer().playInvalidation();
  EXPECT_THAT(journal().take(), ElementsAre("log 2 Listener connection invalided. Shutting down connections",
                                            "delegate connectionError id 2 Listener connection invalidated"));
}

TEST_F(ClientHandlers, AFailureOfTheListenersProxyIsLoggedThenPassedOn) {
  PROVES("client.handlers.7",
         "a failed call to the listener logs \"Remote Proxy Error\" and the error at level 0, then reports the "
         "platform's error unchanged");
  becomeReady("id");
  const NSError error = platformError();
  peer().playProxyError(error);
  EXPECT_THAT(journal().take(), ElementsAre("log 0 Remote Proxy Error " + printed(error),
                                            "delegate connectionError id 2 the platform failed"));
  EXPECT_TRUE(delegate->recorded.errors().at(0).error.isIdenticalTo(error));
  EXPECT_TRUE(recordedError().isIdenticalTo(error));
  EXPECT_FALSE(peer().isInvalidated());
}

TEST_F(ClientHandlers, ErrorsBeforeTheIdentifierHaveNone) {
  PROVES("peer.delegate.2",
         "an error before the identifier has come reaches the client's delegate with a nil identifier");
  configure();
  peer().playProxyError(platformError());
  peer().playInterruption();
  peer().playInvalidation();
  ASSERT_EQ(delegate->recorded.errors().size(), 3u);
  for (const Event& event : delegate->recorded.errors()) EXPECT_TRUE(event.connectionID.isNil());
}

TEST_F(ClientHandlers, OnlyLogOnceTheClientIsGone) {
  PROVES("client.handlers.8", "once the client is gone its handlers log their lines and do nothing else");
  becomeReady("id");
  client->sendMessage(NSDictionary::dictionary());
  const NSError error = platformError();
  // Calls that are under way hold the proxies' error handlers, not the client.
  const auto message = lastMessage();
  journal().take();
  letGoOfClient();
  message->refuse(error);
  peer().playInterruption();
  peer().playInvalidation();
  EXPECT_THAT(journal().take(),
              ElementsAre("log 0 Remote Proxy Error " + printed(error), "log 0 Listener connection interrupted",
                          "log 2 Listener connection invalided. Shutting down connections"));
  EXPECT_THAT(delegate->recorded.errors(), IsEmpty());
}

TEST_F(ClientHandlers, TheBrokersProxyOnlyLogsOnceTheClientIsGone) {
  PROVES("client.handlers.9",
         "the error handler of the broker's proxy holds the client weakly, and logs when it is gone");
  lookUp();
  const NSError error = platformError();
  client = nullptr;
  // The lookup alone held it; refusing it lets go of that first.
  link().lastCall(kLookup)->refuse(error);
  EXPECT_THAT(journal().take(), ElementsAre("log 0 Velto lost connection with VeltoIPCDaemon " + printed(error)));
}

TEST_F(ClientHandlers, InvalidationHoldsTheClientWhileItRuns) {
  PROVES("client.handlers.10", "a client that nobody else holds is still closed and told of by its invalidation");
  becomeReady("id");
  client = nullptr;
  peer().playInvalidation();
  EXPECT_THAT(journal().take(),
              ElementsAre("log 2 Listener connection invalided. Shutting down connections", "connection#2 invalidate",
                          "connection#1 invalidate", "delegate connectionError id 2 Listener connection invalidated"));
}

TEST_F(ClientHandlers, InvalidationTellsNobodyWhenItsCloseWasTheEndOfTheClient) {
  PROVES("client.handlers.12",
         "an invalidation asks for the client anew after closing it: one that is gone by then is not told of");
  becomeReady("id");
  client = nullptr;
  journal().observe([this](const std::string& line) {
    if (line == "connection#1 invalidate") peer().letGoOfExportedObject();
  });
  peer().playInvalidation();
  journal().observe({});
  EXPECT_THAT(journal().take(), ElementsAre("log 2 Listener connection invalided. Shutting down connections",
                                            "connection#2 invalidate", "connection#1 invalidate"));
}

TEST_F(ClientHandlers, TellTheDelegateOfThatMoment) {
  PROVES("peer.delegate.3", "the delegate is read afresh at every callback, and none is no obstacle");
  becomeReady("id");
  const auto second = makeDelegate("second");
  peer().playInterruption();
  client->setDelegate(second);
  peer().playInterruption();
  client->setDelegate(nullptr);
  peer().playInterruption();
  client->setDelegate(delegate);
  peer().playInvalidation();
  EXPECT_THAT(journal().beginningWith("delegate"),
              ElementsAre("delegate connectionError id 2 Listener connection interrupted",
                          "delegate connectionError id 2 Listener connection invalidated"));
  EXPECT_THAT(journal().beginningWith("second"),
              ElementsAre("second connectionError id 2 Listener connection interrupted"));
  EXPECT_EQ(journal().beginningWith("log 0 Listener connection interrupted").size(), 3u);
}

TEST_F(ClientHandlers, NeverConnectAnew) {
  PROVES("client.handlers.11", "whatever fails, the client makes no new connection, link or call");
  becomeReady("id");
  const std::size_t calls = peer().calls().size();
  peer().playProxyError(platformError());
  peer().playInterruption();
  link().playInterruption();
  peer().playInvalidation();
  link().playInvalidation();
  EXPECT_EQ(platform.connectionCount(), 2u);
  EXPECT_EQ(peer().calls().size(), calls);
  EXPECT_EQ(link().calls().size(), 1u);
}

}  // namespace
}  // namespace velto::testing
