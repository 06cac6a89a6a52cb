// A hundred clients that take half of their calls back, at any moment.

#include <atomic>
#include <memory>
#include <random>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "VeltoIPC/Client.h"
#include "VeltoIPC/Service.h"
#include "tests/support/Waiting.h"

namespace velto::testing {
namespace {

using namespace std::chrono_literals;

constexpr std::size_t kClients = 100;
constexpr std::size_t kCallsOfOne = 40;

struct Census {
  // Of each call, how often it ended.
  std::vector<std::atomic<int>> ends = std::vector<std::atomic<int>>(kClients * kCallsOfOne);
  std::atomic<std::size_t> all{0};
  std::atomic<std::size_t> replies{0};
  std::atomic<std::size_t> cancelled{0};
  std::atomic<std::size_t> others{0};

  void end(std::size_t call, const Call::Reply& reply) {
    ++ends[call];
    ++(reply ? replies : reply.error().failure() == Failure::cancelled ? cancelled : others);
    ++all;
  }
};

// Answers some at once and some later, from threads of its own; some that are to be taken back only once they are.
// Counts those that it has seen taken back.
class Answers {
 public:
  Answers() {
    service.on("", [this](const Request& request) { take(request); });
    service.start();
    for (int each = 0; each < 2; ++each) threads_.emplace_back([this] { work(); });
  }
  ~Answers() {
    isOver_ = true;
    for (std::thread& each : threads_) each.join();
  }

  const InProcess place;
  Service service{"answers", {.place = place}};
  std::atomic<std::size_t> seenCancelled{0};

 private:
  void take(const Request& request) {
    if (request.message()["number"].integerValue() % 3 == 0) {
      request.reply(request.message());
      return;
    }
    const std::lock_guard lock(mutex_);
    kept_.push_back(request);
  }
  void work() {
    while (!isOver_) {
      std::vector<Request> kept;
      {
        const std::lock_guard lock(mutex_);
        kept.swap(kept_);
      }
      for (const Request& request : kept) {
        const NSDictionary message = request.message();
        if (!request.isCancelled() && message["cancelled"].boolValue() && message["number"].integerValue() % 3 == 1) {
          const std::lock_guard lock(mutex_);
          kept_.push_back(request);
          continue;
        }
        if (request.isCancelled()) ++seenCancelled;
        request.reply(message);
      }
      std::this_thread::sleep_for(1ms);
    }
  }

  std::mutex mutex_;
  std::vector<Request> kept_;
  std::atomic<bool> isOver_{false};
  std::vector<std::thread> threads_;
};

TEST(Cancelling, EveryCallOfAHundredClientsEndsOnce) {
  Answers answers;
  Census census;
  std::vector<Client> clients;
  for (std::size_t each = 0; each < kClients; ++each) {
    clients.push_back(Client::connect("answers", {.place = answers.place}).value());
  }
  std::vector<std::thread> threads;
  for (std::size_t thread = 0; thread < 4; ++thread) {
    threads.emplace_back([&, thread] {
      std::minstd_rand random(static_cast<unsigned>(thread + 1));
      std::vector<Call> toCancel;
      for (std::size_t number = 0; number < kCallsOfOne; ++number) {
        for (std::size_t client = thread; client < kClients; client += 4) {
          const std::size_t identifier = client * kCallsOfOne + number;
          const bool isCancelled = random() % 2 == 0;
          const Call call = clients[client].call({{"number", identifier}, {"cancelled", isCancelled}});
          call.then([&census, identifier](const Call::Reply& reply) { census.end(identifier, reply); });
          if (isCancelled) toCancel.push_back(call);
          if (toCancel.size() > random() % 8) {
            toCancel.back().cancel();
            toCancel.pop_back();
          }
        }
      }
      for (const Call& each : toCancel) each.cancel();
    });
  }
  for (std::thread& each : threads) each.join();
  ASSERT_TRUE(eventually([&] { return census.all == census.ends.size(); }, kBound)) << census.all;
  // Whatever was under way is behind these.
  for (const Client& each : clients) EXPECT_TRUE(each.call({{"number", 0}}).get());
  EXPECT_EQ(census.others, 0U);
  EXPECT_GT(census.cancelled, 0U);
  EXPECT_GT(census.replies, 0U);
  EXPECT_GT(answers.seenCancelled, 0U) << "requests that were kept";
  EXPECT_LE(answers.seenCancelled, census.cancelled);
  for (std::size_t call = 0; call < census.ends.size(); ++call) ASSERT_EQ(census.ends[call], 1) << call;
}

}  // namespace
}  // namespace velto::testing
