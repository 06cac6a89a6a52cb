// Thousands of synchronous sends against closes from either end: every one of them returns.

#include "tests/death/Storm.h"
#include "tests/peer/Payload.h"
#include "tests/support/Arrangement.h"

namespace velto::testing {
namespace {

constexpr std::size_t kSends = 4000;

enum class Closer { near, far, both };

class StrandedWaiters : public ArrangedTest {
 protected:
  // Rounds of one connection each, until there have been enough sends. `makeRound` makes the connection and hands its
  // send and its two closes to goThrough().
  void repeat(const std::function<Storm::Counts(std::size_t round, Closer closer)>& round) {
    Storm::Counts all;
    for (std::size_t number = 0; all.sent < kSends; ++number) all += round(number, static_cast<Closer>(number % 3));
    EXPECT_EQ(all.returned(), all.sent);
    EXPECT_EQ(all.strange, 0u);
    // The closes met senders that waited; the storm was more than refusals.
    EXPECT_GT(all.timedOut, 100u);
    EXPECT_GT(all.replied, kSends / 2);
  }

  static Storm::Counts goThrough(std::size_t round, Closer closer, Storm::Send send, const std::function<void()>& near,
                                 const std::function<void()>& far) {
    Storm storm(std::move(send));
    storm.waitForReplies(round * 7 % 100);
    auto other = inBackground([&] {
      if (closer != Closer::near) far();
    });
    if (closer != Closer::far) near();
    other.get();
    return storm.finish();
  }
};

TEST_P(StrandedWaiters, AreNoneAmongAClientsSends) {
  const auto server = makeListener();
  repeat([&](std::size_t round, Closer closer) {
    ClientEnd client("flow");
    const std::string id = client.ready().string();
    const bool all = round % 2 == 0;
    return goThrough(
        round, closer,
        [&](const NSDictionary& message, double timeout, NSError* error) {
          return client.connection->sendMessageSync(message, timeout, error);
        },
        [&] { client.connection->close(); },
        // Every other time all of the listener's connections, not this one by its name.
        [&] { EXPECT_EQ(server->ask(all ? "close" : "close " + id), "closed"); });
  });
}

TEST_P(StrandedWaiters, AreNoneAmongAListenersSends) {
  ListenerEnd server("flow");
  repeat([&](std::size_t round, Closer closer) {
    const auto client = makeEnd();
    EXPECT_EQ(client->ask("connect flow"), "connecting");
    EXPECT_EQ(client->ask("ready 20"), "yes");
    const NSString id = client->ask("id");
    const bool all = round % 2 == 0;
    return goThrough(
        round, closer,
        [&](const NSDictionary& message, double timeout, NSError* error) {
          return server.listener->sendMessageSync(message, id, timeout, error);
        },
        [&] { all ? server.listener->close() : server.listener->close(id); },
        [&] { EXPECT_EQ(client->ask("close"), "closed"); });
  });
}

// Both ends here, so that both can send at once.
TEST_P(StrandedWaiters, AreNoneWhenBothEndsSend) {
  const auto answer = [](const NSDictionary& message, const NSString&, const VeltoReplyHandler& reply) {
    if (wordOf(payloadOf(message)) == "echo") reply(message);
  };
  ListenerEnd server("flow");
  server.delegate->onMessage(answer);
  repeat([&](std::size_t round, Closer closer) {
    ClientEnd client("flow");
    client.delegate->onMessage(answer);
    const NSString id = client.ready();
    Storm fromServer([&](const NSDictionary& message, double timeout, NSError* error) {
      return server.listener->sendMessageSync(message, id, timeout, error);
    });
    auto counts = goThrough(
        round, closer,
        [&](const NSDictionary& message, double timeout, NSError* error) {
          return client.connection->sendMessageSync(message, timeout, error);
        },
        [&] { client.connection->close(); },
        [&] { round % 2 == 0 ? server.listener->close() : server.listener->close(id); });
    return counts += fromServer.finish();
  });
}

INSTANTIATE_TEST_SUITE_P(Everywhere, StrandedWaiters, kAllArrangements, printArrangement);

}  // namespace
}  // namespace velto::testing
