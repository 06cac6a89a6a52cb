// Who gives way when all places are taken, with places for ten connections.

#include "platform/xpc/connection/AcceptedConnections.h"

#include <thread>

#include <gtest/gtest.h>

#include "platform/xpc/connection/ConnectionCore.h"
#include "platform/xpc/system/SystemCalls.h"

namespace velto::xpc {
namespace {

constexpr std::uint64_t kOne = 1;
constexpr std::uint64_t kOther = 2;
constexpr std::uint64_t kNewcomer = 3;

class AcceptedConnectionsTest : public ::testing::Test {
 protected:
  struct Member {
    std::shared_ptr<AcceptedConnections::Place> place;
    std::shared_ptr<ConnectionCore> connection;
  };
  struct TenPlaces final : system::SystemCalls {
    std::size_t descriptorLimit() override { return 11; }
  };

  AcceptedConnectionsTest() { system::replaceSystemCalls(&calls_); }
  ~AcceptedConnectionsTest() override { system::replaceSystemCalls(nullptr); }

  // Nothing when there is no place for it.
  std::shared_ptr<Member> enter(std::uint64_t peer) {
    gaveWay.reset();
    auto place = all.enter(peer, gaveWay);
    if (!place) return nullptr;
    auto connection = ConnectionCore::connecting("a test", "a test", nullptr);
    all.belongsTo(*place, connection);
    return std::make_shared<Member>(Member{std::move(place), std::move(connection)});
  }
  std::vector<std::shared_ptr<Member>> enterMany(std::uint64_t peer, int count) {
    std::vector<std::shared_ptr<Member>> entered;
    for (; count > 0; --count) entered.push_back(enter(peer));
    return entered;
  }

  AcceptedConnections& all = AcceptedConnections::shared();
  std::shared_ptr<ConnectionCore> gaveWay;

 private:
  TenPlaces calls_;
};

TEST_F(AcceptedConnectionsTest, NobodyGivesWayWhileThereArePlaces) {
  const auto entered = enterMany(kOne, 10);
  EXPECT_TRUE(entered.back());
  EXPECT_FALSE(gaveWay);
  EXPECT_EQ(all.count(), 10U);
}

TEST_F(AcceptedConnectionsTest, TheProcessThatHasTheMostLosesTheOneThatHasBeenSilentForTheLongest) {
  const auto few = enterMany(kOther, 3);
  const auto many = enterMany(kOne, 7);
  for (const auto& member : few) member->place->heard();
  for (const auto& member : many) {
    if (member != many[4]) member->place->heard();
  }
  const auto newcomer = enter(kNewcomer);
  EXPECT_TRUE(newcomer);
  EXPECT_EQ(gaveWay, many[4]->connection);
}

TEST_F(AcceptedConnectionsTest, WhoHasTheMostGetsNoPlaceOfOthers) {
  const auto few = enterMany(kOther, 4);
  const auto many = enterMany(kOne, 6);
  EXPECT_FALSE(enter(kOne));
  EXPECT_FALSE(gaveWay);
  // One that would then have as many as he does not either.
  const auto oneMore = enter(kOther);
  EXPECT_TRUE(oneMore);
  EXPECT_TRUE(gaveWay);
}

TEST_F(AcceptedConnectionsTest, AmongEqualsNobodyGivesWay) {
  std::vector<std::shared_ptr<Member>> entered;
  for (std::uint64_t peer = 1; peer <= 10; ++peer) entered.push_back(enter(peer));
  EXPECT_FALSE(enter(11));
  EXPECT_FALSE(gaveWay);
  entered.pop_back();
  EXPECT_TRUE(enter(11));
}

TEST_F(AcceptedConnectionsTest, WithoutADescriptorLeftOneOfTheGreatestGivesWayIfConnectionsHaveUsedThemUp) {
  auto many = enterMany(kOne, 4);
  EXPECT_FALSE(all.oneTooMany());
  many.push_back(enter(kOne));
  EXPECT_TRUE(all.oneTooMany());
}

}  // namespace
}  // namespace velto::xpc
