#include "daemon/Limits.h"

#include <gtest/gtest.h>

namespace velto {
namespace {

TEST(BrokerLimitsInForce, AreTheFullOnesWithEnoughDescriptors) {
  for (const std::size_t descriptors : {kNeededDescriptors, 2 * kNeededDescriptors}) {
    const BrokerLimits limits = limitsWithin(descriptors);
    EXPECT_EQ(limits.descriptors, limits::kBrokerDescriptors);
    EXPECT_EQ(limits.links, limits::kBrokerLinks);
    EXPECT_EQ(limits.names, limits::kBrokerNames);
    EXPECT_EQ(limits.namesOfOneProcess, limits::kBrokerNamesOfOneProcess);
    EXPECT_EQ(limits.namesOfOneLink, limits::kBrokerNamesOfOneLink);
    EXPECT_EQ(limits.waiters, limits::kBrokerWaiters);
    EXPECT_EQ(limits.waitersOfOneProcess, limits::kBrokerWaitersOfOneProcess);
  }
}

TEST(BrokerLimitsInForce, LeaveTheProgramItsOwnDescriptors) {
  EXPECT_EQ(limitsWithin(kNeededDescriptors - 1).descriptors, limits::kBrokerDescriptors - 1);
  EXPECT_EQ(limitsWithin(20'000).descriptors, 20'000 - kDescriptorsOfTheProgram);
  EXPECT_EQ(limitsWithin(2048).descriptors, 1024U);
  EXPECT_EQ(limitsWithin(1024).descriptors, 512U);
  EXPECT_EQ(limitsWithin(0).descriptors, 0U);
}

TEST(BrokerLimitsInForce, AreWhatTheUnitOfSystemdAllows) {
  // While a name is taken over, both registrations are kept.
  EXPECT_GE(VELTO_STORED_DESCRIPTORS, 3 * (limits::kBrokerNames + 1));
  EXPECT_EQ(VELTO_NEEDED_DESCRIPTORS, kNeededDescriptors);
}

}  // namespace
}  // namespace velto
