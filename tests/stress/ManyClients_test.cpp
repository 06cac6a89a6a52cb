// Clients of one listener that come, send, are closed from every side and go, all at once.
#include <atomic>
#include <memory>
#include <thread>
#include <vector>

#include "platform/foundation/NSSynchronized.h"
#include "tests/stress/StressTest.h"

namespace velto::testing {
namespace {

constexpr unsigned kThreads = 6;
constexpr int kClientsOfEach = 12;
const char kManyName[] = "org.velto.test.many";

NSArray connectionsOf(const VeltoListener& listener) {
  const NSSynchronized monitor(listener.connectionConditions());
  return listener.receivedConnections().allKeys();
}

// Does what each message asks for, in the callback that brought it.
void obey(VeltoListener& listener, const NSDictionary& message, const NSString& id, const VeltoReplyHandler& reply) {
  const std::string wish = message["wish"].as<NSString>().string();
  if (wish == "ask back") {
    NSError error;
    checkedEnd(message, listener.sendMessageSync(message, id, 20.0, &error), error);
  } else if (wish == "tell all") {
    for (const NSObject& each : connectionsOf(listener)) listener.sendMessage(message, each.as<NSString>());
  } else if (wish == "close me") {
    listener.close(id);
  }
  reply(message);
}

NSDictionary randomMessage(Dice& dice) {
  static constexpr const char* kWishes[] = {"echo", "echo", "echo", "ask back", "ask back", "tell all", "close me"};
  return {{"wish", kWishes[dice.roll(std::size(kWishes))]},
          {"number", dice.roll(1000)},
          {"bytes", NSData::dataWithVector(std::vector<std::uint8_t>(dice.roll(20'000), 120))}};
}

void sendRandomly(VeltoConnection& connection, Dice& dice, std::atomic<int>& replies) {
  const NSDictionary message = randomMessage(dice);
  if (dice.oneIn(3)) {
    connection.sendMessage(message, nullptr, [&replies, message](const NSDictionary& reply) {
      EXPECT_EQ(reply, message);
      ++replies;
    });
    return;
  }
  NSError error;
  const double timeout = dice.oneIn(2) ? VKT_IPC_TIME_FOREVER : 20.0;
  if (checkedEnd(message, connection.sendMessageSync(message, timeout, &error), error) == End::replied) ++replies;
}

// A client that is used by two threads and closed by one of them, by the listener, by both, or inside a callback.
void liveOneClient(Dice& dice, std::atomic<int>& replies) {
  const auto delegate = std::make_shared<RecordingDelegate>();
  std::shared_ptr<VeltoConnection> client = VeltoConnection::initWithServiceName(kManyName, delegate);
  std::weak_ptr<VeltoConnection> weakClient = client;
  delegate->onMessage([weakClient, closes = dice.oneIn(4)](const NSDictionary& message, const NSString&,
                                                           const VeltoReplyHandler& reply) {
    reply(message);
    if (const auto alive = weakClient.lock(); alive && closes) alive->close();
  });
  delegate->onError([weakClient](const NSString&, const NSError&) {
    if (const auto alive = weakClient.lock()) alive->close();
  });
  if (dice.oneIn(8)) return client->close();
  NSError error;
  EXPECT_TRUE(client->waitUntilReady(20.0, &error)) << error.description().view();
  std::thread other([&replies, client, dice]() mutable {
    for (int count = 0; count < 4; ++count) sendRandomly(*client, dice, replies);
    if (dice.oneIn(2)) client->close();
  });
  for (int count = 0; count < 4; ++count) sendRandomly(*client, dice, replies);
  client->close();
  other.join();
  client.reset();
  // Whatever is under way still holds its client; after that, nothing does.
  EXPECT_TRUE(eventually([&] { return weakClient.expired(); })) << "a closed client is still held";
  delegate->quiesce();
}

using ManyClients = StressTest;

TEST_F(ManyClients, SendAndCloseFromEverySideAtOnce) {
  std::atomic<int> replies{0};
  {
    ListenerEnd server(kManyName);
    server.delegate->onMessage([&](const NSDictionary& message, const NSString& id, const VeltoReplyHandler& reply) {
      obey(*server.listener, message, id, reply);
    });
    // What the listener hears of the end of a connection, it hears while others come.
    server.delegate->onError([&](const NSString& id, const NSError&) { server.listener->close(id); });
    inThreads(kThreads, [&](Dice& dice) {
      for (int count = 0; count < kClientsOfEach; ++count) liveOneClient(dice, replies);
    });
    EXPECT_TRUE(eventually([&] { return connectionsOf(*server.listener).count() == 0; }));
  }
  EXPECT_GT(replies, 0);
}

// Another thread may send as soon as it knows the identifier; such a message must not reach the client before its own
// identifier has.
TEST_F(ManyClients, NoMessageOvertakesTheIdentifier) {
  std::atomic<bool> isOver{false};
  ListenerEnd server(kManyName);
  auto hasty = inBackground([&] {
    while (!isOver) {
      for (const NSObject& each : connectionsOf(*server.listener)) {
        server.listener->sendMessage({{"early", true}}, each.as<NSString>());
      }
    }
  });
  for (int count = 0; count < 100; ++count) {
    ClientEnd client(kManyName);
    client.ready();
    client.delegate->waitForMessages(1);
    EXPECT_EQ(client.delegate->errors().size(), 0U);
  }
  isOver = true;
  finish(hasty);
}

}  // namespace
}  // namespace velto::testing
