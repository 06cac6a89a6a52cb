#include "tests/calls/Churn.h"

#include <atomic>
#include <memory>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <signal.h>

#include "VeltoIPC/Client.h"
#include "platform/foundation/ThreadAnnotations.h"
#include "tests/calls/Actor.h"
#include "tests/support/Brokers.h"
#include "tests/support/RuntimeDirectory.h"
#include "tests/support/Waiting.h"

namespace velto::testing {

namespace {

using namespace std::chrono_literals;

constexpr char kChurnName[] = "org.velto.test.churn";
constexpr int kUnderWay = 8;

// One client, which calls for as long as it is to.
class Caller {
 public:
  Caller() : client_(Client::connect(kChurnName, options()).value()) {}

  void run(const std::atomic<bool>& isOver) {
    std::vector<std::pair<std::int64_t, Call>> calls;
    while (!isOver) {
      while (calls.size() < kUnderWay) calls.push_back(make());
      end(calls.front());
      calls.erase(calls.begin());
    }
    for (const auto& each : calls) end(each);
  }
  bool isWell() const {
    const auto reply = client_.call({{"op", "echo"}, {"number", -1}}, {.timeout = 20s}).get();
    return reply && (*reply)["number"].integerValue() == -1;
  }
  std::uint64_t replies() {
    MutexLock lock(mutex_);
    return census_.replies;
  }
  void addTo(ChurnCensus& census) {
    MutexLock lock(mutex_);
    census.calls += census_.calls;
    census.ends += census_.ends;
    census.replies += census_.replies;
    census.wrongReplies += census_.wrongReplies;
    census.losses += census_.losses;
    census.reconnections += census_.reconnections;
    for (const auto& [name, count] : census_.failures) census.failures[name] += count;
  }

 private:
  ClientOptions options() {
    return {.reconnects = true,
            .onLost =
                [this](const CallError&) {
                  MutexLock lock(mutex_);
                  ++census_.losses;
                },
            .onReconnected =
                [this] {
                  MutexLock lock(mutex_);
                  ++census_.reconnections;
                }};
  }
  std::pair<std::int64_t, Call> make() {
    const std::int64_t number = ++next_;
    const Call call = client_.call({{"op", "echo"}, {"number", number}}, {.timeout = 20s});
    MutexLock lock(mutex_);
    ++census_.calls;
    return {number, call};
  }
  void end(const std::pair<std::int64_t, Call>& made) {
    const auto reply = made.second.get();
    MutexLock lock(mutex_);
    ++census_.ends;
    if (!reply) {
      ++census_.failures[nameOf(reply.error().failure())];
    } else if ((*reply)["number"].integerValue() == made.first) {
      ++census_.replies;
    } else {
      ++census_.wrongReplies;
    }
  }

  Mutex mutex_;
  ChurnCensus census_ VELTO_GUARDED_BY(mutex_);
  std::int64_t next_ = 0;
  Client client_;
};

// Until each has been answered since the last kill: a loss that nobody has made good yet would hide the next.
void waitUntilAllAreServed(const std::vector<std::unique_ptr<Caller>>& callers) {
  std::vector<std::uint64_t> before;
  for (const auto& each : callers) before.push_back(each->replies());
  const auto areServed = [&] {
    for (std::size_t each = 0; each < callers.size(); ++each) {
      if (callers[each]->replies() < before[each] + kUnderWay) return false;
    }
    return true;
  };
  EXPECT_TRUE(eventually(areServed, kBound));
}

}  // namespace

ChurnCensus churn(std::chrono::milliseconds duration, int clients) {
  const RuntimeDirectory directory;
  auto broker = std::make_unique<DaemonProcess>();
  auto service = std::make_unique<Actor>(kChurnName);
  service->waitUntilRegistered();
  std::vector<std::unique_ptr<Caller>> callers;
  for (int each = 0; each < clients; ++each) callers.push_back(std::make_unique<Caller>());
  std::atomic<bool> isOver{false};
  std::vector<std::thread> threads;
  for (const auto& each : callers) threads.emplace_back([&caller = *each, &isOver] { caller.run(isOver); });
  ChurnCensus census;
  const auto end = std::chrono::steady_clock::now() + duration;
  for (int turn = 0; std::chrono::steady_clock::now() < end; ++turn) {
    std::this_thread::sleep_for(100ms);
    waitUntilAllAreServed(callers);
    if (turn % 2 == 0) {
      service->kill();
      service = std::make_unique<Actor>(kChurnName);
      ++census.serviceKills;
    } else {
      broker->process().signal(SIGKILL);
      broker->process().wait();
      broker = std::make_unique<DaemonProcess>();
      ++census.brokerKills;
    }
    service->waitUntilRegistered();
  }
  isOver = true;
  for (std::thread& each : threads) each.join();
  for (const auto& each : callers) census.clientsWell += each->isWell() ? 1 : 0;
  for (const auto& each : callers) each->addTo(census);
  return census;
}

}  // namespace velto::testing
