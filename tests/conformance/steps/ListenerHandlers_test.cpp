// The steps of the three handlers that a listener gives to each connection.

#include "tests/conformance/steps/ListenerSteps.h"

namespace velto::testing {
namespace {

using ::testing::ElementsAre;

class ListenerHandlerSteps : public ListenerSteps {
 protected:
  static std::string clearedLine(const NSString& id) {
    return "log 2 Cleared out connections and objects for " + id.string();
  }
  static std::string invalidatedLine(const NSString& id) {
    return "log 2 VeltoConnection connection " + id.string() + " invalidated. Closing connection";
  }
  static std::string failedLine() {
    return "log 0 VeltoIPCListener Remote Proxy Error " + platformError().description().string();
  }
  static constexpr const char* kInterruptedLine = "log 0 VeltoConnection connection interrupted";
};

TEST_F(ListenerHandlerSteps, AnInterruptionIsLoggedThenToldAndChangesNothing) {
  PROVES(
      "listener.interrupted.1",
      "an interruption is logged at level 0 as \"VeltoConnection connection interrupted\", then told to the delegate");
  PROVES("listener.interrupted.2",
         "an interruption is told with the connection's identifier and code 2 \"Connection interrupted\"");
  PROVES("listener.interrupted.3", "an interrupted connection stays in all three tables and can be sent to");
  PROVES("listener.interrupted.4", "a connection may be interrupted any number of times");
  start();
  const auto client = accept();
  for (int time = 0; time < 3; ++time) {
    client.connection->playInterruption();
    EXPECT_THAT(journal().take(), ElementsAre(kInterruptedLine, "delegate connectionError " + client.id.string() +
                                                                    " 2 Connection interrupted"));
    expectError(delegate->recorded.errors().back().error, 2, "Connection interrupted");
    EXPECT_EQ(tables(client.id), "CRP");
    EXPECT_TRUE(listener->isConnectionActive_internal(client.id));
    EXPECT_TRUE(listener->sendMessage(kHello, client.id));
    journal().take();
  }
}

TEST_F(ListenerHandlerSteps, AnInvalidationIsLoggedThenToldThenClosed) {
  PROVES("listener.invalidated.1",
         "an invalidation is logged at level 2 as \"VeltoConnection connection ID invalidated. Closing connection\", "
         "then told to the delegate");
  PROVES("listener.invalidated.2",
         "an invalidation is told with the connection's identifier and code 2 \"Connection invalidated\"");
  PROVES("listener.invalidated.3",
         "the delegate hears of an invalidation while the tables still hold the connection; after that it is closed "
         "and \"Cleared out\" logged");
  PROVES("listener.invalidated.6", "an invalidation concerns its own connection only");
  start();
  const auto other = accept();
  const auto client = accept();
  std::string atCallback;
  delegate->recorded.onError([&](const NSString& id, const NSError&) { atCallback = tables(id); });
  client.connection->playInvalidation();
  const std::string id = client.id.string();
  EXPECT_THAT(journal().take(),
              ElementsAre(invalidatedLine(client.id), "delegate connectionError " + id + " 2 Connection invalidated",
                          "connection#3 invalidate", clearedLine(client.id)));
  expectError(delegate->recorded.errors().back().error, 2, "Connection invalidated");
  EXPECT_EQ(atCallback, "CRP");
  EXPECT_EQ(tables(client.id), "");
  EXPECT_EQ(tables(other.id), "CRP");
}

TEST_F(ListenerHandlerSteps, AFailedCallIsLoggedThenToldAndChangesNothing) {
  PROVES("listener.proxy.1",
         "a failed call to a client is logged at level 0 as \"VeltoIPCListener Remote Proxy Error\" with the error, "
         "then told to the delegate");
  PROVES("listener.proxy.2",
         "a failed call to a client is told with its identifier and the platform's error unchanged");
  PROVES("listener.proxy.3", "a failed call to a client closes nothing");
  PROVES("listener.send.13",
         "true only tells that the proxy took the message: a later failure comes to the delegate with the identifier");
  start();
  const auto client = accept();
  EXPECT_TRUE(listener->sendMessage(kHello, client.id));
  journal().take();
  for (const auto& call : client.connection->calls()) {
    call->refuse(platformError());
    EXPECT_THAT(journal().take(),
                ElementsAre(failedLine(), "delegate connectionError " + client.id.string() + " 2 the platform failed"))
        << call->selector();
    EXPECT_EQ(delegate->recorded.errors().back().error, platformError());
  }
  EXPECT_EQ(delegate->recorded.errors().size(), 3u);
  EXPECT_EQ(tables(client.id), "CRP");
}

TEST_F(ListenerHandlerSteps, EachConnectionHasHandlersOfItsOwn) {
  PROVES("listener.invalidated.6", "an invalidation concerns its own connection only");
  start();
  const auto first = accept();
  const auto second = accept();
  first.connection->playInterruption();
  second.connection->playInterruption();
  first.connection->playProxyError(platformError());
  second.connection->playProxyError(platformError());
  const auto errors = delegate->recorded.errors();
  ASSERT_EQ(errors.size(), 4u);
  EXPECT_EQ(errors[0].connectionID, first.id);
  EXPECT_EQ(errors[1].connectionID, second.id);
  EXPECT_EQ(errors[2].connectionID, first.id);
  EXPECT_EQ(errors[3].connectionID, second.id);
}

TEST_F(ListenerHandlerSteps, WithoutADelegateTheyLogAndTheInvalidationCloses) {
  PROVES("listener.handlers.3", "without a delegate, interruption and failed call are logged and nothing else");
  PROVES("listener.invalidated.5", "an invalidation without a delegate closes the connection all the same");
  start();
  listener->setDelegate(nullptr);
  const auto client = accept();
  client.connection->playInterruption();
  client.connection->playProxyError(platformError());
  EXPECT_THAT(journal().take(), ElementsAre(kInterruptedLine, failedLine()));
  client.connection->playInvalidation();
  EXPECT_THAT(journal().take(),
              ElementsAre(invalidatedLine(client.id), "connection#2 invalidate", clearedLine(client.id)));
}

TEST_F(ListenerHandlerSteps, TheyGoToTheDelegateOfTheMoment) {
  PROVES("listener.accept.22", "every callback goes to the delegate of that moment");
  start();
  const auto client = accept();
  const auto later = makeDelegate("later");
  listener->setDelegate(later);
  client.connection->playInterruption();
  client.connection->playProxyError(platformError());
  client.connection->playInvalidation();
  EXPECT_EQ(later->recorded.errors().size(), 3u);
  EXPECT_TRUE(delegate->recorded.errors().empty());
}

TEST_F(ListenerHandlerSteps, TheyDoNotKeepTheListenerAliveAndOnlyLogWhenItIsGone) {
  PROVES("listener.handlers.1", "the handlers of a connection do not keep the listener alive");
  PROVES("listener.interrupted.5", "an interruption after the listener is gone is logged and nothing else");
  PROVES("listener.invalidated.4", "an invalidation after the listener is gone is logged and nothing else");
  PROVES("listener.proxy.4", "a failed call to a client after the listener is gone is logged and nothing else");
  start();
  const auto client = accept();
  const auto call = client.connection->lastCall("connectionUUID:");
  letGoOfListener();
  client.connection->playInterruption();
  call->refuse(platformError());
  client.connection->playInvalidation();
  EXPECT_THAT(journal().take(), ElementsAre(kInterruptedLine, failedLine(), invalidatedLine(client.id)));
}

}  // namespace
}  // namespace velto::testing
