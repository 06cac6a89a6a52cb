// One client, used by several threads at the same time.

#include <atomic>
#include <functional>
#include <future>
#include <vector>

#include "tests/conformance/steps/ClientSteps.h"

namespace velto::testing {
namespace {

class ClientThreads : public ClientSteps {
 protected:
  static constexpr int kRounds = 100;

  // Each function over and over, all at the same time.
  static void runSideBySide(const std::vector<std::function<void()>>& functions) {
    std::vector<std::future<void>> running;
    for (const auto& function : functions) {
      running.push_back(inBackground([function] {
        for (int round = 0; round < kRounds; ++round) function();
      }));
    }
    for (auto& each : running) finish(each);
  }

  const NSDictionary message{{"op", "any"}};
};

TEST_F(ClientThreads, UseAReadyClientSideBySide) {
  PROVES("client.threads.1",
         "sends, waits, errors, messages and accessors may be used on any threads at the same time");
  becomeReady("id");
  const auto second = makeDelegate("second");
  std::atomic<int> sent{0};
  runSideBySide({[&] { sent += client->sendMessage(message) ? 1 : 0; },
                 [&] { EXPECT_TRUE(client->sendMessageSync(message, 0).isNil()); },
                 [&] { EXPECT_TRUE(client->waitUntilReady(600)); }, [&] { client->connectionID("id", message, {}); },
                 [&] {
                   client->connectionError(nil);
                   client->setStrictMessageTypesRemote(true);
                 },
                 [&] {
                   client->setDelegate(second);
                   client->setDelegate(delegate);
                   EXPECT_EQ(client->getID(), NSString("id"));
                   EXPECT_FALSE(client->messageValid(nil));
                 }});
  EXPECT_EQ(sent, kRounds);
  EXPECT_EQ(peer().calls().size(), 2u * kRounds + 1) << "and the ping";
  const std::size_t received = delegate->recorded.messages().size() + second->recorded.messages().size();
  EXPECT_EQ(received, static_cast<std::size_t>(kRounds));
  const std::size_t errors = delegate->recorded.errors().size() + second->recorded.errors().size();
  EXPECT_EQ(errors, static_cast<std::size_t>(kRounds));
}

TEST_F(ClientThreads, CloseAClientThatOthersUse) {
  PROVES("client.threads.2",
         "close may come at any time, from several threads at once: what is under way ends or fails");
  for (int round = 0; round < 20; ++round) {
    const std::size_t links = platform.connectionCount();
    client = VeltoConnection::initWithServiceName("service", delegate);
    const auto lookup = platform.connection(links + 1).lastCall(kLookup);
    auto answer = inBackground([&] { lookup->answer(endpoint); });
    auto send = inBackground([&] { return client->sendMessageSync(message, VKT_IPC_TIME_FOREVER); });
    auto identify = inBackground([&] { client->connectionUUID("id"); });
    auto close = inBackground([&] { client->close(); });
    client->close();
    finish(answer);
    finish(identify);
    finish(close);
    EXPECT_TRUE(finish(send).isNil());
    EXPECT_EQ(client->listenerProxyObject(), nullptr);
    EXPECT_EQ(client->listenerConnection(), nullptr);
    EXPECT_TRUE(client->listenerEndpoint().isNil());
    EXPECT_EQ(client->daemonConnection(), nullptr);
    for (std::size_t number = links + 1; number <= platform.connectionCount(); ++number) {
      EXPECT_TRUE(platform.connection(number).isInvalidated());
    }
  }
}

}  // namespace
}  // namespace velto::testing
