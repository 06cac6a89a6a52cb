// Services, and the broker, that are killed while they are needed.

#include <chrono>
#include <cstdlib>
#include <map>
#include <vector>

#include <gtest/gtest.h>

#include "VeltoIPC/Client.h"
#include "platform/xpc/testing/Support.h"
#include "tests/calls/Actor.h"
#include "tests/calls/Churn.h"
#include "tests/support/Brokers.h"
#include "tests/support/RuntimeDirectory.h"

namespace velto::testing {
namespace {

using namespace std::chrono_literals;

constexpr char kKilledName[] = "org.velto.test.killed";

TEST(Killed, AServiceWithAThousandCallsEndsEachOfThemOnce) {
  constexpr int kCalls = 1'000;
  const RuntimeDirectory directory;
  const DaemonProcess broker;
  Actor service(kKilledName);
  Inbox<std::pair<int, Failure>> ends;
  const Client client = Client::connect(kKilledName).value();
  for (int number = 0; number < kCalls; ++number) {
    client.call({{"op", "hold"}, {"number", number}}).then([&ends, number](const Call::Reply& reply) {
      ends.put({number, reply ? Failure::failed : reply.error().failure()});
    });
  }
  service.waitUntilHeld(kCalls);
  EXPECT_TRUE(ends.soFar().empty());
  service.kill();
  ends.waitFor(kCalls);
  // Whatever came twice would stand before this.
  EXPECT_EQ(client.call({{"op", "hold"}}).get().error().failure(), Failure::peerGone);
  std::map<int, int> counts;
  for (const auto& [number, failure] : ends.soFar()) {
    EXPECT_EQ(failure, Failure::peerGone);
    ++counts[number];
  }
  EXPECT_EQ(counts.size(), static_cast<std::size_t>(kCalls));
  EXPECT_EQ(ends.soFar().size(), static_cast<std::size_t>(kCalls));
}

// Longer in the soak, which says how long.
TEST(Killed, ServicesAndBrokersInTurnAreOneErrorEachForClientsThatReconnect) {
  const char* const seconds = std::getenv("VELTO_CHURN_SECONDS");
  constexpr int kReconnecting = 4;
  const ChurnCensus census = churn(seconds != nullptr ? std::chrono::seconds(std::atoi(seconds)) : 3s, kReconnecting);
  EXPECT_EQ(census.clientsWell, kReconnecting);
  EXPECT_EQ(census.ends, census.calls);
  EXPECT_EQ(census.wrongReplies, 0U);
  EXPECT_GT(census.replies, 0U);
  // Each loss is told once, and each is made good; what becomes of the broker is no loss.
  EXPECT_EQ(census.losses, static_cast<std::uint64_t>(census.serviceKills * kReconnecting));
  EXPECT_EQ(census.reconnections, census.losses);
  for (const auto& [failure, count] : census.failures) {
    EXPECT_EQ(failure, "peerGone") << count;
  }
  ::testing::Test::RecordProperty("calls", static_cast<int>(census.calls));
  std::printf("%llu calls, %llu replies, %d services and %d brokers killed\n",
              static_cast<unsigned long long>(census.calls), static_cast<unsigned long long>(census.replies),
              census.serviceKills, census.brokerKills);
}

}  // namespace
}  // namespace velto::testing
