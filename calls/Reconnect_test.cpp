// What a client keeps, tells and waits for while its service is away, or behind.

#include <atomic>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "VeltoIPC/Client.h"
#include "VeltoIPC/Service.h"
#include "platform/foundation/Foundation.h"
#include "platform/xpc/Delivery.h"
#include "platform/xpc/contract/Limits.h"
#include "platform/xpc/testing/Support.h"

namespace velto {
namespace {

using namespace std::chrono_literals;
using testing::eventually;
using testing::Inbox;

constexpr auto kForEver = std::chrono::nanoseconds::max();

// A service that is there, goes away, and comes back.
class Absences : public ::testing::Test {
 protected:
  Client connect() {
    comeBack();
    return Client::connect("sums", {.reconnects = true,
                                    .onLost = [this](const CallError& error) { lost.put(error); },
                                    .onWritable = [this] { writable.put(1); },
                                    .place = place})
        .value();
  }
  void comeBack() {
    service.emplace("sums", ServiceOptions{.place = place});
    service->on("sum", [](const Request& request) { request.reply({{"sum", 3}}); });
    service->on("note", [this](const Request&) { isReleased.wait(); });
    service->start();
  }
  void goAway() {
    service.reset();
    lost.waitFor(1);
  }
  void fill() const {
    while (!client.trySend({{"op", "note"}})) continue;
  }
  static void expectSum(const Call& call) { EXPECT_EQ(call.get().value(), (NSDictionary{{"sum", 3}})); }

  std::promise<void> release;
  const std::shared_future<void> isReleased = release.get_future().share();
  InProcess place;
  std::optional<Service> service;
  Inbox<CallError> lost;
  Inbox<int> writable;
  const Client client = connect();
};

TEST_F(Absences, EndNoCallBeforeItsTimeOrItsCancelling) {
  goAway();
  const Call timed = client.call("sum", {}, {.timeout = 30ms});
  const Call cancelled = client.call("sum", {});
  const Call kept = client.call("sum", {});
  cancelled.cancel();
  EXPECT_EQ(cancelled.get().error().failure(), Failure::cancelled);
  EXPECT_EQ(timed.get().error().failure(), Failure::timedOut);
  EXPECT_FALSE(kept.hasEnded());
  comeBack();
  expectSum(kept);
}

TEST_F(Absences, EndNoCallThatWasKeptWhileTheyWereBehind) {
  fill();
  Inbox<Call> kept;
  const TaskQueue tasks{Delivery()};
  tasks.add([&] { kept.put(client.call("sum", {})); });
  const Call call = kept.waitFor(1).front();
  EXPECT_FALSE(call.hasEnded());
  service->close();
  Service next("sums", {.place = place});
  next.on("sum", [](const Request& request) { request.reply({{"sum", 3}}); });
  next.start();
  expectSum(call);
  release.set_value();
}

TEST_F(Absences, KeepCallsUpToTheLimitOfWhichThoseThatHaveEndedTakeNone) {
  goAway();
  for (std::size_t ended = 0; ended <= limits::kPendingReplies; ++ended) client.call("sum", {}).cancel();
  std::vector<Call> kept;
  for (std::size_t made = 0; made < limits::kPendingReplies; ++made) kept.push_back(client.call("sum", {}));
  EXPECT_FALSE(kept.back().hasEnded());
  EXPECT_EQ(client.call("sum", {}).get().error(), CallError(Failure::overLimit, "65536 calls wait already"));
  kept[7].cancel();
  const Call last = client.call("sum", {});
  EXPECT_FALSE(last.hasEnded());
  EXPECT_FALSE(kept.front().hasEnded());
}

TEST_F(Absences, AreToldToWhoMayNotWaitAndSoIsTheirEnd) {
  goAway();
  EXPECT_EQ(client.trySend({{"op", "note"}})->failure(), Failure::full);
  EXPECT_TRUE(writable.soFar().empty());
  release.set_value();
  comeBack();
  writable.waitFor(1);
  EXPECT_TRUE(eventually([&] { return !client.trySend({{"op", "note"}}); }));
}

TEST_F(Absences, AreWaitedForAsleep) {
  goAway();
  std::promise<clock_t> spent;
  std::thread sender([&] {
    const auto cpu = [] {
      timespec time{};
      clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
      return static_cast<clock_t>(time.tv_sec * 1'000 + time.tv_nsec / 1'000'000);
    };
    const clock_t before = cpu();
    EXPECT_EQ(client.send({{"op", "sum"}}, 500ms)->failure(), Failure::timedOut);
    spent.set_value(cpu() - before);
  });
  EXPECT_LT(spent.get_future().get(), 100) << "ms of half a second";
  sender.join();
  comeBack();
}

TEST_F(Absences, ARequestToStopEndsACallThatWaitsForRoom) {
  fill();
  std::stop_source stop;
  std::promise<Call::Reply> ended;
  std::thread caller([&] { ended.set_value(client.call("sum", {}, {.stop = stop.get_token()}).get()); });
  stop.request_stop();
  EXPECT_EQ(ended.get_future().get().error().failure(), Failure::cancelled);
  caller.join();
  release.set_value();
}

TEST_F(Absences, AreWaitedForOverTheLongestTimesThereAre) {
  expectSum(client.call("sum", {}, {.timeout = kForEver}));
  EXPECT_EQ(client.send({{"op", "sum"}}, kForEver), std::nullopt);
  EXPECT_EQ(service->waitUntilRegistered(kForEver), std::nullopt);
  fill();
  std::promise<std::optional<CallError>> sent;
  std::thread sender([&] { sent.set_value(client.send({{"op", "sum"}}, kForEver)); });
  release.set_value();
  EXPECT_EQ(sent.get_future().get(), std::nullopt);
  sender.join();
  using std::chrono::milliseconds;
  EXPECT_TRUE(Client::connect(
      "sums",
      {.patience = milliseconds::max(), .reconnects = true, .reconnectsFor = milliseconds::max(), .place = place}));
  EXPECT_TRUE(service->stop(kForEver));
}

TEST_F(Absences, OfMessagesThatAreRefusedOnTheirWayAreToldOnce) {
  Inbox<CallError> failed;
  const std::vector<std::uint8_t> bytes(std::size_t{17} << 20);
  const NSDictionary large{{"op", "sum"}, {"text", NSString(std::string(bytes.size(), 'x'))}};
  EXPECT_EQ(client.send(large, std::nullopt, [&](const CallError& error) { failed.put(error); }), std::nullopt);
  EXPECT_EQ(failed.waitFor(1)[0].failure(), Failure::overLimit);
  EXPECT_EQ(client.call(large).get().error().failure(), Failure::overLimit);
  expectSum(client.call("sum", {}));
  EXPECT_EQ(failed.soFar().size(), 1U);
}

}  // namespace
}  // namespace velto
