#include "platform/xpc/transport/Traffic.h"

#include <gtest/gtest.h>

namespace velto::transport {
namespace {

class TrafficOfAListener : public ::testing::Test {
 protected:
  std::shared_ptr<Traffic::Share> open() {
    auto share = std::make_shared<Traffic::Share>(traffic);
    share->open(holding);
    return share;
  }

  const std::shared_ptr<Traffic> traffic = std::make_shared<Traffic>();
  const std::shared_ptr<Holding> holding = std::make_shared<Holding>(std::weak_ptr<HoldingOwner>());
};

}  // namespace

TEST_F(TrafficOfAListener, IsTheSumOfItsConnections) {
  const auto one = open(), other = open();
  one->received(1, 100);
  one->sent(2, 20);
  other->received(3, 300);
  holding->setBytes(Holding::Place::calls, 7);
  const auto sum = traffic->sum();
  EXPECT_EQ(sum.connections, 2u);
  EXPECT_EQ(sum.accepted, 2u);
  EXPECT_EQ(sum.messagesIn, 4u);
  EXPECT_EQ(sum.bytesIn, 400u);
  EXPECT_EQ(sum.messagesOut, 2u);
  EXPECT_EQ(sum.bytesOut, 20u);
  // Both have the same here.
  EXPECT_EQ(sum.undeliveredBytes, 14u);
  EXPECT_EQ(sum.unsentBytes, 0u);
  holding->setBytes(Holding::Place::calls, 0);
}

TEST_F(TrafficOfAListener, KeepsWhatAConnectionHasCountedThatHasEnded) {
  auto share = open();
  share->received(5, 50);
  share->close();
  share->close();
  share.reset();
  const auto sum = traffic->sum();
  EXPECT_EQ(sum.connections, 0u);
  EXPECT_EQ(sum.accepted, 1u);
  EXPECT_EQ(sum.messagesIn, 5u);
}

TEST_F(TrafficOfAListener, OneThatWasNeverOpenedCountsNowhere) {
  { const Traffic::Share never(traffic); }
  EXPECT_EQ(traffic->sum().accepted, 0u);
}

}  // namespace velto::transport
