// The registry of synchronous sends that wait: when a send enters it, under what key, and when it leaves.

#include "tests/conformance/double/RandomDouble.h"
#include "tests/conformance/steps/ClientSteps.h"

namespace velto::testing {
namespace {

class ClientRegistry : public ClientSteps {
 protected:
  // Sends on a thread of its own and returns once that thread sleeps; the key that it made goes to `key`.
  std::future<NSDictionary> sendAsleep(NSUUID& key) {
    auto watch = std::make_shared<SleepWatch>();
    auto send = inBackground([this, watch] {
      const SleepWatch::Guard guard(*watch);
      return client->sendMessageSync(message, VKT_IPC_TIME_FOREVER);
    });
    watch->waitUntilAsleep();
    key = lastUUIDMade();
    return send;
  }

  const NSDictionary message{{"op", "ask"}};
};

TEST_F(ClientRegistry, HoldsASendWhileItWaits) {
  PROVES("client.registry.1", "while a synchronous send waits its key is valid, and no longer once it has its reply");
  becomeReady("id");
  NSUUID key;
  auto send = sendAsleep(key);
  EXPECT_TRUE(client->messageValid(key));
  lastMessage()->answer(message);
  EXPECT_EQ(finish(send), message);
  EXPECT_FALSE(client->messageValid(key));
}

TEST_F(ClientRegistry, KnowsTheKeyAsAnObject) {
  PROVES("client.registry.2", "the key is the UUID itself: an equal one stands for the same send");
  becomeReady("id");
  NSUUID key;
  auto send = sendAsleep(key);
  EXPECT_TRUE(client->messageValid(NSUUID::UUIDWithString(key.UUIDString())));
  lastMessage()->drop();
  client->close();
  finish(send);
}

TEST_F(ClientRegistry, TakesASendInAfterItIsSent) {
  PROVES("client.registry.3", "a send is registered once its message has been handed over, not before");
  becomeReady("id");
  bool wasValid = true;
  journal().observe([&](const std::string& line) {
    if (line.starts_with("proxy#2")) wasValid = client->messageValid(lastUUIDMade());
  });
  const NSUUID before = lastUUIDMade();
  client->sendMessageSync(message, 0);
  journal().observe({});
  EXPECT_FALSE(wasValid);
  EXPECT_NE(lastUUIDMade(), before) << "the send has made its key";
}

TEST_F(ClientRegistry, LetsASendGoWhoseTimeIsOver) {
  PROVES("client.registry.4", "a send that ran out of time is taken out too");
  becomeReady("id");
  const NSUUID before = lastUUIDMade();
  EXPECT_TRUE(client->sendMessageSync(message, 0.001).isNil());
  EXPECT_NE(lastUUIDMade(), before);
  EXPECT_FALSE(client->messageValid(lastUUIDMade()));
}

TEST_F(ClientRegistry, NeverHoldsASendThatFailed) {
  PROVES("client.registry.5", "a send that was refused is never registered");
  becomeReady("id");
  EXPECT_TRUE(client->sendMessageSync(NSDictionary{{"when", NSDate::date()}}, VKT_IPC_TIME_FOREVER).isNil());
  EXPECT_FALSE(client->messageValid(lastUUIDMade()));
}

TEST_F(ClientRegistry, GivesEverySendAKeyOfItsOwn) {
  PROVES("client.registry.6",
         "sends that wait at the same time have keys of their own; one that ends leaves the other");
  becomeReady("id");
  NSUUID first;
  NSUUID second;
  auto one = sendAsleep(first);
  const auto firstCall = lastMessage();
  auto other = sendAsleep(second);
  EXPECT_NE(first, second);
  EXPECT_TRUE(client->messageValid(first));
  EXPECT_TRUE(client->messageValid(second));
  firstCall->answer(message);
  finish(one);
  EXPECT_FALSE(client->messageValid(first));
  EXPECT_TRUE(client->messageValid(second));
  lastMessage()->answer(message);
  finish(other);
}

TEST_F(ClientRegistry, IsGoneOnceClosed) {
  PROVES("client.registry.7", "close drops every entry at once");
  becomeReady("id");
  NSUUID key;
  auto send = sendAsleep(key);
  bool wasValid = true;
  journal().observe([&](const std::string& line) {
    if (line == "connection#2 invalidate") wasValid = client->messageValid(key);
  });
  client->close();
  journal().observe({});
  EXPECT_FALSE(wasValid) << "the registry goes before the connection does";
  EXPECT_FALSE(client->messageValid(key));
  EXPECT_TRUE(finish(send).isNil());
}

}  // namespace
}  // namespace velto::testing
