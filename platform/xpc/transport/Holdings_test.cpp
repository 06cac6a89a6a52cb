// The bounds of what all connections hold together, with levels that are stated and never used.

#include "platform/xpc/transport/Holdings.h"

#include <gtest/gtest.h>

#include "platform/xpc/contract/Limits.h"
#include "platform/xpc/system/SystemCalls.h"
#include "platform/xpc/testing/Support.h"
#include "platform/xpc/transport/Reactor.h"

namespace velto::transport {
namespace {

using velto::testing::Inbox;
using Place = Holding::Place;

// A connection that keeps what it is told.
struct Owner final : HoldingOwner {
  static std::shared_ptr<Owner> make() {
    auto made = std::make_shared<Owner>();
    made->holding = std::make_unique<Holding>(made);
    return made;
  }
  void heldTooMuch(const std::string& reason) override { told.put(reason); }
  void mayReadOn() override { told.put("read on"); }

  std::unique_ptr<Holding> holding;
  Inbox<std::string> told;
};

class HoldingsTest : public ::testing::Test {
 protected:
  // A connection would have brought a thread, on which owners are told.
  HoldingsTest() {
    Reactor::shared().makeQueue()->add([] {});
  }
};

constexpr auto kMany = static_cast<std::size_t>(limits::kHeldBytesBeforeWaiting);
constexpr auto kMost = static_cast<std::size_t>(limits::kMaximumHeldBytes);
constexpr auto kLittle = static_cast<std::size_t>(limits::kLittleHeldBytes);

TEST_F(HoldingsTest, AtTheFirstBoundEverybodyIsReadAndOneOverOnlyThoseThatHoldLittle) {
  const auto big = Owner::make();
  const auto other = Owner::make();
  const auto small = Owner::make();
  small->holding->setBytes(Place::input, kLittle);
  other->holding->setBytes(Place::calls, 2 * kLittle);
  big->holding->setBytes(Place::calls, kMany - 3 * kLittle);
  EXPECT_FALSE(big->holding->mustWait());
  big->holding->setBytes(Place::replies, kLittle);
  EXPECT_TRUE(big->holding->mustWait());
  // Who changes nothing is asked with the next change.
  other->holding->setBytes(Place::calls, 3 * kLittle);
  EXPECT_TRUE(other->holding->mustWait());
  small->holding->setBytes(Place::input, kLittle / 2);
  EXPECT_FALSE(small->holding->mustWait());
  // It is over for both when there is room again.
  big->holding->setBytes(Place::calls, 0);
  EXPECT_EQ(big->told.waitFor(1).front(), "read on");
  EXPECT_EQ(other->told.waitFor(1).front(), "read on");
  EXPECT_FALSE(big->holding->mustWait() || other->holding->mustWait());
  EXPECT_TRUE(small->told.soFar().empty());
}

TEST_F(HoldingsTest, OverTheSecondBoundWhoHoldsTheMostIsEndedAndCountsNoMore) {
  const auto most = Owner::make();
  const auto less = Owner::make();
  most->holding->setBytes(Place::output, kMost / 2 + kLittle);
  less->holding->setBytes(Place::calls, kMost / 2 - kLittle);
  less->holding->setBytes(Place::replies, kLittle);
  const std::string reason = most->told.waitFor(1).front();
  EXPECT_NE(reason.find("it holds the most, " + std::to_string(kMost / 2 + kLittle)), std::string::npos) << reason;
  EXPECT_NE(reason.find("bytes held for all peers: " + std::to_string(kMost + kLittle) + ", maximum " +
                        std::to_string(kMost)),
            std::string::npos)
      << reason;
  // Two thirds of the rest may come again: nothing of it is left in the sum.
  const auto next = Owner::make();
  next->holding->setBytes(Place::calls, kMany - kMost / 2 - kLittle);
  EXPECT_FALSE(next->holding->mustWait());
  EXPECT_TRUE(less->told.soFar().empty() || less->told.soFar().front() == "read on");
}

TEST_F(HoldingsTest, WhatAConnectionHeldIsGivenBackWithIt) {
  for (int round = 0; round < 10; ++round) Owner::make()->holding->setBytes(Place::calls, kMany);
  const auto next = Owner::make();
  next->holding->setBytes(Place::calls, kMany);
  EXPECT_FALSE(next->holding->mustWait());
}

TEST_F(HoldingsTest, ChangesThatAreNotWorthALockAreNotLostInTheSum) {
  std::vector<std::shared_ptr<Owner>> owners;
  // A third of a worthwhile change at a time, until it must have been stated.
  const std::size_t step = (std::size_t{64} << 10) / 3;
  const auto owner = Owner::make();
  for (std::size_t bytes = 0; bytes <= kMany + 4 * step; bytes += step) owner->holding->setBytes(Place::input, bytes);
  EXPECT_TRUE(owner->holding->mustWait());
}

// Takes as long as the patience is: the time is the kernel's.
TEST_F(HoldingsTest, WhoHoldsTheMostAndNeverLetsGoIsEndedForThoseThatWait) {
  const auto hoarder = Owner::make();
  const auto honest = Owner::make();
  hoarder->holding->setBytes(Place::output, kMany);
  honest->holding->setBytes(Place::input, 2 * kLittle);
  EXPECT_TRUE(honest->holding->mustWait());
  EXPECT_NE(hoarder->told.waitFor(1).front().find("it holds the most"), std::string::npos);
  EXPECT_EQ(honest->told.waitFor(1).front(), "read on");
}

TEST_F(HoldingsTest, DescriptorsAreBoundedByThoseThatTheProcessMayOpen) {
  struct Hundred final : system::SystemCalls {
    std::size_t descriptorLimit() override { return 800; }
  };
  static auto& calls = *new Hundred;
  system::replaceSystemCalls(&calls);
  const auto small = Owner::make();
  const auto big = Owner::make();
  small->holding->setDescriptors(Place::input, static_cast<std::size_t>(limits::kLittleHeldDescriptors));
  big->holding->setDescriptors(Place::calls, 84);
  EXPECT_FALSE(big->holding->mustWait());
  big->holding->setDescriptors(Place::calls, 85);
  EXPECT_TRUE(big->holding->mustWait());
  EXPECT_FALSE(small->holding->mustWait());
  big->holding->setDescriptors(Place::calls, 185);
  EXPECT_NE(big->told.waitFor(1).front().find("descriptors held for all peers: 201, maximum 200"), std::string::npos);
  EXPECT_TRUE(small->told.soFar().empty());
  system::replaceSystemCalls(nullptr);
}

}  // namespace
}  // namespace velto::transport
