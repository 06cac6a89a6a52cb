// Delegates whose callbacks run in a loop of the user's, or by an executor.

#include <deque>
#include <mutex>
#include <thread>

#include <poll.h>

#include "VeltoIPC/Limits.h"
#include "platform/xpc/NSXPCConnection.h"
#include "tests/support/BrokerLink.h"
#include "tests/support/Census.h"
#include "tests/support/LibraryTest.h"

namespace velto::testing {
namespace {

constexpr char kDeliveryName[] = "org.velto.test.delivery";

bool dispatchUntil(const Loop& loop, const std::function<bool()>& predicate) {
  const auto end = std::chrono::steady_clock::now() + kBound;
  while (!predicate()) {
    if (std::chrono::steady_clock::now() > end) return false;
    pollfd watched{loop.fd(), POLLIN, 0};
    if (::poll(&watched, 1, 10) == 1) loop.dispatch();
  }
  return true;
}

// Counts the callbacks that run elsewhere than in a dispatch of this thread.
class Strays {
 public:
  void watch(RecordingDelegate& delegate) {
    delegate.onReady([this](const NSString&) { look(); });
    delegate.onError([this](const NSString&, const NSError&) { look(); });
    delegate.onMessage([this](const NSDictionary& message, const NSString&, const VeltoReplyHandler& reply) {
      look();
      reply(message);
    });
  }
  void look() { count_ += Loop::isDispatching() && std::this_thread::get_id() == here_ ? 0 : 1; }
  int count() const { return count_; }

 private:
  const std::thread::id here_ = std::this_thread::get_id();
  std::atomic<int> count_{0};
};

class Deliveries : public LibraryTest {
 protected:
  void serve(const Delivery& delivery) {
    server = VeltoListener::initWithServiceName(kDeliveryName, atServer, delivery);
    settle(server->daemonConnection());
  }
  void connect(const Delivery& delivery) {
    client = VeltoConnection::initWithServiceName(kDeliveryName, atClient, delivery);
    ASSERT_TRUE(client->waitUntilReady(20.0));
  }
  void closeBoth() const {
    client->close();
    server->close();
  }
  // What the four ends of connections bring.
  bool haveHeardOfTheEnds() const {
    return atServer->errorCount("Connection invalidated") == 1 &&
           atServer->errorCount("Daemon connection invalidated") == 1 &&
           atClient->errorCount("Listener connection invalidated") == 1 &&
           atClient->errorCount("Daemon connection invalidated") == 1;
  }

  const std::shared_ptr<RecordingDelegate> atServer = std::make_shared<RecordingDelegate>();
  const std::shared_ptr<RecordingDelegate> atClient = std::make_shared<RecordingDelegate>();
  std::shared_ptr<VeltoListener> server;
  std::shared_ptr<VeltoConnection> client;
};

TEST_F(Deliveries, OfBothEndsInOneLoopHappenThereAndNowhereElse) {
  const Loop loop;
  Strays strays;
  strays.watch(*atServer);
  strays.watch(*atClient);
  serve(loop);
  // By the thread that is to run it all.
  connect(loop);
  EXPECT_TRUE(atServer->events().empty());
  EXPECT_TRUE(atClient->events().empty());
  NSDictionary reply;
  ASSERT_TRUE(client->sendMessage(kHello, nullptr, [&](NSDictionary came) {
    strays.look();
    reply = std::move(came);
  }));
  ASSERT_TRUE(dispatchUntil(loop, [&] { return !reply.isNil(); }));
  EXPECT_EQ(reply, kHello);
  EXPECT_EQ(atServer->events().front().kind, Event::Kind::ready);
  EXPECT_EQ(atClient->readies().size(), 1u);
  ASSERT_TRUE(server->sendMessage(kHello, client->getID()));
  ASSERT_TRUE(dispatchUntil(loop, [&] { return atClient->messages().size() == 1; }));
  closeBoth();
  EXPECT_TRUE(dispatchUntil(loop, [&] { return haveHeardOfTheEnds(); }));
  EXPECT_EQ(strays.count(), 0);
  EXPECT_TRUE(dispatchUntil(loop, [&] { return server.use_count() == 1 && client.use_count() == 1; }));
}

TEST_F(Deliveries, ByAnExecutorHappenWhereItRunsThem) {
  std::mutex mutex;
  std::deque<std::function<void()>> tasks;
  const Delivery delivery([&](std::function<void()> task) {
    const std::lock_guard lock(mutex);
    tasks.push_back(std::move(task));
  });
  std::atomic<int> strays{0};
  thread_local bool isRunning = false;
  for (const auto& delegate : {atServer, atClient}) {
    delegate->onReady([&](const NSString&) { strays += isRunning ? 0 : 1; });
    delegate->onError([&](const NSString&, const NSError&) { strays += isRunning ? 0 : 1; });
  }
  serve(delivery);
  connect(delivery);
  closeBoth();
  isRunning = true;
  EXPECT_TRUE(eventually([&] {
    for (;;) {
      std::function<void()> task;
      {
        const std::lock_guard lock(mutex);
        if (tasks.empty()) break;
        task = std::move(tasks.front());
        tasks.pop_front();
      }
      task();
    }
    return haveHeardOfTheEnds() && server.use_count() == 1 && client.use_count() == 1;
  }));
  EXPECT_EQ(strays, 0);
}

TEST_F(Deliveries, InALoopKeepNobodyFromWaitingOnItsThread) {
  const Loop loop;
  NSError error;
  const auto nobody = VeltoConnection::initWithServiceName("org.velto.test.nobody", nullptr, loop);
  EXPECT_FALSE(nobody->waitUntilReady(20.0, &error));
  expectError(error, 2, "Listener not available");
  serve({});
  atServer->echo();
  connect(loop);
  EXPECT_EQ(client->sendMessageSync(kHello, VKT_IPC_TIME_FOREVER), kHello);
  EXPECT_FALSE(client->sendMessageSync({{"date", NSDate::date()}}, VKT_IPC_TIME_FOREVER, &error));
  expectError(error, 3, "SendMessage failed message type check");
  EXPECT_TRUE(atClient->events().empty());
  closeBoth();
  EXPECT_TRUE(dispatchUntil(loop, [&] { return haveHeardOfTheEnds(); }));
}

TEST_F(Deliveries, OfAClientThatSleepsOnTheThreadOfItsLoopAreNotNeededForItsEnd) {
  const Loop loop;
  serve({});
  connect(loop);
  atServer->onMessage([&](const NSDictionary&, const NSString& id, const VeltoReplyHandler&) { server->close(id); });
  NSError error;
  EXPECT_FALSE(client->sendMessageSync(kHello, VKT_IPC_TIME_FOREVER, &error));
  expectError(error, 6, "Timed out waiting");
  EXPECT_TRUE(eventually([&] { return !client->sendMessage(kHello); }));
  closeBoth();
  EXPECT_TRUE(dispatchUntil(loop, [&] { return haveHeardOfTheEnds(); }));
}

TEST_F(Deliveries, OfAListenerThatSleepsOnTheThreadOfItsLoopAreNotNeededForTheEndOfItsClient) {
  const Loop loop;
  serve(loop);
  connect({});
  ASSERT_TRUE(dispatchUntil(loop, [&] { return atServer->readies().size() == 1; }));
  atClient->onMessage([&](const NSDictionary&, const NSString&, const VeltoReplyHandler&) { client->close(); });
  NSError error;
  EXPECT_FALSE(server->sendMessageSync(kHello, client->getID(), VKT_IPC_TIME_FOREVER, &error));
  expectError(error, 6, "Timed out waiting");
  closeBoth();
  EXPECT_TRUE(dispatchUntil(loop, [&] { return haveHeardOfTheEnds(); }));
}

// More than may be undelivered at once.
constexpr std::size_t kMany = 2 * limits::kUndeliveredCalls;

NSDictionary numbered(std::size_t number) {
  return {{"n", static_cast<std::int64_t>(number)}};
}

void expectAllInOrder(const RecordingDelegate& delegate) {
  const auto messages = delegate.messages();
  ASSERT_EQ(messages.size(), kMany);
  for (std::size_t number = 0; number < kMany; ++number) ASSERT_EQ(messages[number].message, numbered(number));
}

TEST_F(Deliveries, OfAListenerWhoseLoopIsBusyHoldItsSendersBackAndLoseNothing) {
  const Loop loop;
  serve(loop);
  connect({});
  for (std::size_t number = 0; number < kMany; ++number) ASSERT_TRUE(client->sendMessage(numbered(number)));
  EXPECT_FALSE(client->listenerConnection()->isWritable());
  EXPECT_TRUE(atServer->events().empty());
  ASSERT_TRUE(dispatchUntil(loop, [&] { return atServer->messages().size() == kMany; }));
  expectAllInOrder(*atServer);
  EXPECT_TRUE(client->listenerConnection()->isWritable());
  EXPECT_TRUE(atClient->errors().empty());
  closeBoth();
  EXPECT_TRUE(dispatchUntil(loop, [&] { return haveHeardOfTheEnds(); }));
}

TEST_F(Deliveries, OfAClientWhoseLoopIsBusyHoldItsListenerBackAndLoseNothing) {
  const Loop loop;
  serve({});
  connect(loop);
  const NSString id = client->getID();
  for (std::size_t number = 0; number < kMany; ++number) {
    ASSERT_TRUE(eventually([&] { return server->sendMessage(numbered(number), id); }));
  }
  EXPECT_TRUE(atClient->events().empty());
  ASSERT_TRUE(dispatchUntil(loop, [&] { return atClient->messages().size() == kMany; }));
  expectAllInOrder(*atClient);
  EXPECT_EQ(atClient->events().front().kind, Event::Kind::ready);
  EXPECT_TRUE(atServer->errors().empty());
  closeBoth();
  EXPECT_TRUE(dispatchUntil(loop, [&] { return haveHeardOfTheEnds(); }));
}

TEST_F(Deliveries, ThatNobodyMakesAnyMoreKeepNothing) {
  const std::size_t before = openDescriptors();
  // Each would leave one at least; what the process keeps from the first on is fewer.
  constexpr std::size_t kLives = 20;
  for (std::size_t life = 0; life < kLives; ++life) {
    std::optional<Loop> loop(std::in_place);
    serve(*loop);
    connect(*loop);
    ASSERT_TRUE(client->sendMessage(kHello, nullptr, [held = client](const NSDictionary&) {}));
    closeBoth();
    const std::weak_ptr<VeltoListener> weakServer = std::exchange(server, nullptr);
    const std::weak_ptr<VeltoConnection> weakClient = std::exchange(client, nullptr);
    EXPECT_FALSE(weakServer.expired());
    loop.reset();
    EXPECT_TRUE(eventually([&] { return weakServer.expired() && weakClient.expired(); }));
  }
  EXPECT_TRUE(eventually([&] { return openDescriptors() < before + kLives; })) << before;
  EXPECT_TRUE(atServer->events().empty());
  EXPECT_TRUE(atClient->events().empty());
}

}  // namespace
}  // namespace velto::testing
