// Who has a name, told to the services that want it and to the clients that wait for it: the same at the broker and in
// one process.

#include <algorithm>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include "VeltoIPC/Client.h"
#include "VeltoIPC/Service.h"
#include "platform/xpc/testing/Support.h"
#include "tests/support/BrokerLink.h"
#include "tests/support/Brokers.h"
#include "tests/support/RuntimeDirectory.h"
#include "tests/support/Waiting.h"

namespace velto::testing {
namespace {

using namespace std::chrono_literals;

constexpr char kNamesName[] = "org.velto.test.names";
constexpr auto kNoWait = 0s;

// A service that answers with its own number, and what it heard of its name.
class Server {
 public:
  Server(int number, NamePolicy policy, const std::optional<InProcess>& place)
      : service(kNamesName, {.namePolicy = policy,
                             .place = place,
                             .onRegistered = [this] { heard.put("registered"); },
                             .onUnregistered = [this](const CallError& error) { heard.put(nameOf(error.failure())); },
                             .onTakenOver = [this](int process) { heard.put("by " + std::to_string(process)); },
                             .onGivenBack = [this] { heard.put("given back"); }}) {
    service.onOther([number](const Request& request) { request.reply({{"number", number}}); });
    service.start();
  }

  Inbox<std::string> heard;
  Service service;
};

const std::string kByThisProcess = "by " + std::to_string(::getpid());

class WhoHasAName : public ::testing::TestWithParam<bool> {
 protected:
  WhoHasAName() {
    if (GetParam()) {
      directory.emplace();
      broker.emplace();
    } else {
      place.emplace();
    }
  }

  std::unique_ptr<Server> serve(int number, NamePolicy policy) {
    return std::make_unique<Server>(number, policy, place);
  }
  std::unique_ptr<Server> serveNow(int number, NamePolicy policy) {
    auto server = serve(number, policy);
    EXPECT_EQ(server->service.waitUntilRegistered(kGenerous), std::nullopt);
    return server;
  }
  // The number of who serves the name.
  std::int64_t found() const {
    const auto client = Client::connect(kNamesName, {.place = place});
    return client ? client->call(NSDictionary{{"a", 1}}).get().value()["number"].integerValue() : 0;
  }

  std::optional<RuntimeDirectory> directory;
  std::optional<DaemonProcess> broker;
  std::optional<InProcess> place;
};

INSTANTIATE_TEST_SUITE_P(AtTheBroker, WhoHasAName, ::testing::Values(true));
INSTANTIATE_TEST_SUITE_P(InOneProcess, WhoHasAName, ::testing::Values(false));

TEST_P(WhoHasAName, TheLastOneUnlessItIsToWaitAndEachHearsOfIt) {
  const auto first = serveNow(1, NamePolicy::takeOver);
  auto second = serveNow(2, NamePolicy::takeOver);
  EXPECT_EQ(first->heard.waitFor(3), (std::vector<std::string>{"registered", kByThisProcess, "taken"}));
  EXPECT_EQ(first->service.waitUntilRegistered(kNoWait)->failure(), Failure::taken);
  EXPECT_EQ(found(), 2);
  second.reset();
  first->heard.waitFor(5);
  EXPECT_EQ(first->heard.soFar().back(), "registered");
  EXPECT_EQ(first->heard.soFar()[3], "given back");
  EXPECT_EQ(first->service.waitUntilRegistered(kNoWait), std::nullopt);
  EXPECT_EQ(found(), 1);
}

TEST_P(WhoHasAName, IsAskedForAgainWhenTheOtherStopsInGoodOrder) {
  const auto first = serveNow(1, NamePolicy::takeOver);
  const auto second = serve(2, NamePolicy::waitIfTaken);
  EXPECT_EQ(second->heard.waitFor(2), (std::vector<std::string>{kByThisProcess, "taken"}));
  EXPECT_EQ(second->service.waitUntilRegistered(20ms)->failure(), Failure::taken);
  EXPECT_EQ(found(), 1);
  EXPECT_TRUE(first->service.stop(kGenerous));
  EXPECT_EQ(second->service.waitUntilRegistered(kGenerous), std::nullopt);
  EXPECT_EQ(second->heard.waitFor(4), (std::vector<std::string>{kByThisProcess, "taken", "given back", "registered"}));
  EXPECT_EQ(found(), 2);
  EXPECT_EQ(first->heard.soFar(), std::vector<std::string>{"registered"});
}

TEST_P(WhoHasAName, IsRefusedForGoodToOneThatLeavesItToAnother) {
  auto first = serveNow(1, NamePolicy::refuseIfTaken);
  const auto second = serve(2, NamePolicy::refuseIfTaken);
  EXPECT_EQ(second->service.waitUntilRegistered(kGenerous)->failure(), Failure::taken) << "it need not wait so long";
  EXPECT_EQ(found(), 1);
  const auto third = serveNow(3, NamePolicy::takeOver);
  first->heard.waitFor(3);
  EXPECT_EQ(first->service.waitUntilRegistered(kGenerous)->failure(), Failure::taken);
  third->service.close();
  const auto fourth = serveNow(4, NamePolicy::waitIfTaken);
  EXPECT_EQ(found(), 4);
  EXPECT_EQ(first->heard.soFar(), (std::vector<std::string>{"registered", kByThisProcess, "taken"}));
  EXPECT_EQ(second->heard.soFar(), (std::vector<std::string>{kByThisProcess, "taken"}));
}

// One of them is first, and the others go on waiting.
TEST_P(WhoHasAName, IsOneOfThoseThatWaitForIt) {
  std::vector<std::unique_ptr<Server>> servers;
  for (int number = 1; number <= 4; ++number) servers.push_back(serveNow(number, NamePolicy::takeOver));
  while (!servers.empty()) {
    const auto having = [&] {
      return std::ranges::count_if(
          servers, [](const auto& each) { return !each->service.waitUntilRegistered(kNoWait).has_value(); });
    };
    ASSERT_TRUE(eventually([&] { return having() == 1; }, kBound)) << servers.size() << " are left";
    std::erase_if(servers, [](const auto& each) { return !each->service.waitUntilRegistered(kNoWait).has_value(); });
  }
}

TEST_P(WhoHasAName, IsToldToClientsThatWait) {
  ASSERT_EQ(Client::connect(kNamesName, {.patience = 30ms, .place = place}).error(),
            CallError(Failure::unavailable, std::string("nobody serves \"") + kNamesName + "\""));
  auto waiting = std::async(std::launch::async, [this] { return found(); });
  EXPECT_EQ(waiting.wait_for(30ms), std::future_status::timeout);
  const auto server = serveNow(1, NamePolicy::takeOver);
  EXPECT_EQ(waiting.get(), 1);
}

TEST_P(WhoHasAName, IsFoundByClientsThatReconnectHoweverLateItComes) {
  auto first = serveNow(1, NamePolicy::takeOver);
  Inbox<int> again;
  const Client client =
      Client::connect(kNamesName, {.reconnects = true, .onReconnected = [&] { again.put(1); }, .place = place}).value();
  first.reset();
  // It may be under way before the end is known here.
  const auto call = client.call(NSDictionary{{"a", 1}}, {.isIdempotent = true});
  const auto second = serveNow(2, NamePolicy::takeOver);
  EXPECT_EQ(call.get().value()["number"].integerValue(), 2);
  again.waitFor(1);
}

TEST_P(WhoHasAName, IsNotWaitedForByWhoHasClosed) {
  const auto first = serveNow(1, NamePolicy::takeOver);
  const auto second = serve(2, NamePolicy::waitIfTaken);
  second->heard.waitFor(2);
  second->service.close();
  EXPECT_EQ(second->service.waitUntilRegistered(kGenerous)->failure(), Failure::closed);
  first->service.close();
  EXPECT_EQ(serveNow(3, NamePolicy::refuseIfTaken)->heard.waitFor(1), std::vector<std::string>{"registered"});
  EXPECT_EQ(second->heard.soFar(), (std::vector<std::string>{kByThisProcess, "taken"}));
}

class NamesAtABroker : public ::testing::Test {
 protected:
  RuntimeDirectory directory;
  std::optional<DaemonProcess> broker{std::in_place};

  void killBroker() {
    broker->process().signal(SIGKILL);
    broker->process().wait();
    broker.reset();
  }
};

TEST_F(NamesAtABroker, AreTheirsAgainWhoHadThemWhenItWasKilled) {
  Server loser(1, NamePolicy::takeOver, std::nullopt);
  ASSERT_EQ(loser.service.waitUntilRegistered(kGenerous), std::nullopt);
  Server owner(2, NamePolicy::takeOver, std::nullopt);
  loser.heard.waitFor(3);
  owner.heard.waitFor(1);
  killBroker();
  loser.heard.waitFor(4);
  owner.heard.waitFor(2);
  broker.emplace();
  EXPECT_TRUE(eventually([&] { return owner.heard.soFar().back() == "registered"; }, kBound));
  EXPECT_TRUE(eventually([&] { return loser.heard.soFar().back() == "taken"; }, kBound));
  EXPECT_EQ(owner.service.waitUntilRegistered(kNoWait), std::nullopt);
}

TEST_F(NamesAtABroker, AreWaitedForOverItsDeath) {
  auto waiting = std::async(std::launch::async, [] { return Client::connect(kNamesName); });
  EXPECT_EQ(waiting.wait_for(50ms), std::future_status::timeout);
  killBroker();
  EXPECT_EQ(waiting.wait_for(50ms), std::future_status::timeout);
  broker.emplace();
  Server server(1, NamePolicy::waitIfTaken, std::nullopt);
  EXPECT_TRUE(waiting.get());
}

TEST_F(NamesAtABroker, AreRegisteredAgainWhenSomebodyDropsThem) {
  Server server(1, NamePolicy::takeOver, std::nullopt);
  server.heard.waitFor(1);
  TestLink().kill(kNamesName);
  EXPECT_EQ(server.heard.waitFor(3), (std::vector<std::string>{"registered", "unavailable", "registered"}));
  // An older way to take it over is heard of, too.
  const auto listener = NSXPCListener::anonymousListener();
  TestLink().registerEndpoint(listener->endpoint(), kNamesName);
  EXPECT_EQ(server.heard.waitFor(5)[4], "taken");
}

// One that knows the three methods and no more.
TEST(NamesAtAnOlderBroker, AreRegisteredAndFoundAllTheSame) {
  const RuntimeDirectory directory;
  const auto broker = ScriptedBroker::start();
  broker->answerWith(nil);
  auto waiting = std::async(std::launch::async, [] { return Client::connect(kNamesName, {.patience = kGenerous}); });
  const std::string lookUp = std::string("find ") + kNamesName;
  EXPECT_TRUE(eventually(
      [&] {
        const auto calls = broker->calls();
        return std::ranges::count(calls, lookUp) >= 3;
      },
      kBound))
      << "it is asked again and again";
  const auto listener = NSXPCListener::anonymousListener();
  broker->answerWith(listener->endpoint());
  Server server(1, NamePolicy::refuseIfTaken, std::nullopt);
  EXPECT_EQ(server.service.waitUntilRegistered(kGenerous), std::nullopt);
  const auto calls = broker->calls();
  EXPECT_EQ(std::ranges::count(calls, std::string("register ") + kNamesName), 1);
  broker->answerWith(broker->registered());
  // Who has found somebody that does not answer looks again.
  listener->invalidate();
  EXPECT_TRUE(waiting.get());
  broker->stop();
}

}  // namespace
}  // namespace velto::testing
