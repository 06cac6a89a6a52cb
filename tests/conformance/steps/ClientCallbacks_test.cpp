// What a delegate may do in a callback, and when the delegate is not called at all.

#include "tests/conformance/steps/ClientSteps.h"

namespace velto::testing {
namespace {

using ::testing::IsEmpty;

class ClientCallbacks : public ClientSteps {
 protected:
  // Every public method of the client.
  void callEverything() {
    client->getID();
    client->delegate();
    client->waitUntilReady(0);
    client->waitUntilReady(0.001);
    client->sendMessage(message);
    client->sendMessageSync(message, 0);
    client->sendMessageSync(message, 0.001);
    client->messageValid(NSUUID::UUID());
    client->setDelegate(client->delegate());
    client->setStrictMessageTypesRemote(true);
    client->daemonConnection();
    client->listenerConnection();
    client->listenerProxyObject();
    client->listenerEndpoint();
    client->close();
    client->close();
    client->sendMessage(message);
  }
  // From the callback's own thread, and from another for which it waits: with a lock of the library held, the second
  // would never come through.
  void callEverythingTwice() {
    ++callbacks;
    auto other = inBackground([this] { callEverything(); });
    finish(other);
    callEverything();
  }
  void reactToErrors() {
    delegate->recorded.onError([this](const NSString&, const NSError&) { callEverythingTwice(); });
  }

  const NSDictionary message{{"op", "any"}};
  int callbacks = 0;
};

TEST_F(ClientCallbacks, ConnectionReadyMayCallEverything) {
  PROVES("client.callbacks.1",
         "connectionReady is called with no lock held: anything may be called in it, on any thread");
  configure();
  delegate->recorded.onReady([this](const NSString&) { callEverythingTwice(); });
  peer().deliver<&VeltoCommunicationMessageProtocol::connectionUUID>("id");
  EXPECT_EQ(callbacks, 1);
}

TEST_F(ClientCallbacks, ReceivedMessageMayCallEverything) {
  PROVES("client.callbacks.2",
         "receivedMessage is called with no lock held: anything may be called in it, on any thread");
  becomeReady("id");
  delegate->recorded.onMessage([this](const NSDictionary&, const NSString&, const VeltoReplyHandler& reply) {
    reply(message);
    callEverythingTwice();
    reply(message);
  });
  CountedReply reply;
  peer().deliver<&VeltoCommunicationMessageProtocol::connectionID>("id", message, reply.handler());
  EXPECT_EQ(callbacks, 1);
  EXPECT_EQ(reply.replies().size(), 2u);
}

TEST_F(ClientCallbacks, EveryErrorMayCallEverything) {
  PROVES("client.callbacks.3",
         "connectionError is called with no lock held, whatever the error comes from: anything may be called in it");
  const std::function<void()> sources[] = {
      [this] { platform.connection(platform.connectionCount() - 1).playInvalidation(); },
      [this] { platform.connection(platform.connectionCount() - 1).playInterruption(); },
      [this] { platform.connection(platform.connectionCount()).playInterruption(); },
      [this] { platform.connection(platform.connectionCount()).playInvalidation(); },
      [this] { platform.connection(platform.connectionCount()).playProxyError(platformError()); },
      [this] { client->connectionError(nil); },
      [this] { client->connectionID("other", message, {}); }};
  for (const auto& source : sources) {
    delegate->recorded.onError({});
    client = VeltoConnection::initWithServiceName("service", delegate);
    platform.connection(platform.connectionCount()).lastCall(kLookup)->answer(endpoint);
    client->connectionUUID("id");
    callbacks = 0;
    reactToErrors();
    source();
    EXPECT_EQ(callbacks, 1);
  }
}

TEST_F(ClientCallbacks, ErrorsOfTheLookupMayCallEverything) {
  PROVES("client.callbacks.4", "so may the errors of a lookup that failed or found nobody");
  lookUp();
  reactToErrors();
  link().lastCall(kLookup)->answer(nil);
  EXPECT_EQ(callbacks, 1);
  client = VeltoConnection::initWithServiceName("other", delegate);
  platform.connection(2).lastCall(kLookup)->refuse(platformError());
  EXPECT_EQ(callbacks, 2);
}

TEST_F(ClientCallbacks, AReplyHandlerMayCallEverything) {
  PROVES("client.callbacks.5", "a reply handler of a send runs with no lock held: anything may be called in it");
  becomeReady("id");
  client->sendMessage(message, nullptr, [this](const NSDictionary&) { callEverythingTwice(); });
  lastMessage()->answer(message);
  EXPECT_EQ(callbacks, 1);
}

TEST_F(ClientCallbacks, ACallbackMayLetGoOfTheClient) {
  PROVES("client.callbacks.6", "the client lives while it calls back, even when the callback lets go of it");
  becomeReady("id");
  const std::weak_ptr<VeltoConnection> watched = client;
  bool wasAlive = false;
  delegate->recorded.onError([&](const NSString&, const NSError&) {
    client->close();
    client = nullptr;
    wasAlive = !watched.expired();
  });
  peer().playInvalidation();
  EXPECT_TRUE(wasAlive);
  EXPECT_TRUE(watched.expired());
}

TEST_F(ClientCallbacks, ADelegateMayReplaceItself) {
  PROVES("client.callbacks.7", "a callback may set another delegate, which the next one then goes to");
  becomeReady("id");
  const auto second = makeDelegate("second");
  delegate->recorded.onError([&](const NSString&, const NSError&) { client->setDelegate(second); });
  peer().playInterruption();
  peer().playInterruption();
  EXPECT_EQ(delegate->recorded.errors().size(), 1u);
  EXPECT_EQ(second->recorded.errors().size(), 1u);
}

TEST_F(ClientCallbacks, NoMethodOfTheOwnerCallsTheDelegate) {
  PROVES("peer.delegate.5", "no method that the owner calls calls the delegate: only what the platform brings does");
  client = VeltoConnection::initWithServiceName("service", delegate);
  callEverything();
  client = VeltoConnection::initWithServiceName("service", delegate);
  platform.connection(platform.connectionCount()).lastCall(kLookup)->answer(endpoint);
  client->waitUntilReady(0.001);
  client->connectionUUID("id");
  journal().take();
  client->sendMessage(NSDictionary{{"when", NSDate::date()}});
  client->sendMessageSync(message, -0.5);
  callEverything();
  EXPECT_THAT(journal().beginningWith("delegate"), IsEmpty());
}

TEST_F(ClientCallbacks, CallbacksOfDifferentLinksRunSideBySide) {
  PROVES("peer.delegate.6", "callbacks are not made one after another: one that waits does not keep another back");
  becomeReady("id");
  std::promise<void> secondCame;
  auto came = secondCame.get_future();
  delegate->recorded.onError([&](const NSString& identifier, const NSError&) {
    if (identifier.isNil()) {
      secondCame.set_value();
    } else {
      finish(came);
    }
  });
  auto first = inBackground([this] { peer().playInterruption(); });
  journal().waitFor("delegate connectionError id 2 Listener connection interrupted");
  link().playInterruption();
  finish(first);
}

}  // namespace
}  // namespace velto::testing
