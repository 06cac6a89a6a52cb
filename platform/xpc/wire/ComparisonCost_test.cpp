#include "platform/xpc/wire/ComparisonCost.h"

#include <gtest/gtest.h>

#include "platform/foundation/Walk.h"

namespace velto::wire {
namespace {

constexpr std::uint64_t kEverything = UINT64_MAX;

std::uint64_t costOf(const ContainerCost& container) {
  return container.toCompare().work;
}

TEST(ComparisonCost, AContainersHashIsAsPoorAsWhatItDoesNotRegard) {
  EXPECT_FALSE(ContainerCost().toCompare().hasPoorHash);
  EXPECT_TRUE(ContainerCost(0, 100, true).toCompare().hasPoorHash);
  ContainerCost ofPoor;
  ofPoor.addValue({1, true});
  EXPECT_TRUE(ofPoor.toCompare().hasPoorHash);
  ComparisonCost tower;
  for (std::size_t level = 0; level < kHashedLevels; ++level) {
    ContainerCost container;
    container.addValue(tower);
    tower = container.toCompare();
    EXPECT_FALSE(tower.hasPoorHash);
  }
  ContainerCost tooHigh;
  tooHigh.addKey(tower);
  EXPECT_TRUE(tooHigh.toCompare().hasPoorHash);
}

TEST(ComparisonCost, KeysWithGoodHashesCostNothingToMake) {
  ContainerCost set;
  for (int count = 0; count < 1000; ++count) set.addKey({7, false});
  EXPECT_EQ(set.toMake(), 0u);
}

TEST(ComparisonCost, KeysWithPoorHashesAreComparedWithEachOther) {
  ContainerCost set;
  set.addKey({2, true});
  EXPECT_EQ(set.toMake(), 0u);
  for (int count = 0; count < 2; ++count) set.addKey({2, true});
  EXPECT_EQ(set.toMake(), 2u * 6u);
}

TEST(ComparisonCost, AContainerCostsWhatItHoldsAndMore) {
  const std::uint64_t empty = costOf(ContainerCost());
  EXPECT_GT(empty, 0u);
  EXPECT_EQ(costOf(ContainerCost(10)), empty + 10);
  ContainerCost array;
  array.addValue({5, false});
  array.addValue({7, true});
  EXPECT_EQ(costOf(array), empty + 12);
}

TEST(ComparisonCost, AKeyCostsMoreThanAValueAndMoreYetAmongMany) {
  const auto withKey = [](std::uint64_t items) {
    ContainerCost container(0, items);
    container.addKey({2, false});
    return costOf(container);
  };
  ContainerCost array;
  array.addValue({2, false});
  EXPECT_GT(withKey(1), costOf(array));
  EXPECT_LT(withKey(16), withKey(17));
  EXPECT_LT(withKey(1024), withKey(1025));
}

TEST(ComparisonCost, EachKeyWithAPoorHashIsHeldAgainstAllOfTheOther) {
  const auto withKeys = [](int count) {
    ContainerCost container;
    for (int key = 0; key < count; ++key) container.addKey({100, true});
    return costOf(container);
  };
  EXPECT_LT(withKeys(1), 200u);
  EXPECT_GE(withKeys(10), 100u * 100u);
}

TEST(ComparisonCost, ATowerCostsItsHeight) {
  ComparisonCost tower;
  for (int level = 0; level < 100; ++level) {
    ContainerCost container;
    container.addKey(tower);
    tower = container.toCompare();
  }
  EXPECT_GE(tower.work, 100u);
  EXPECT_LT(tower.work, 2000u);
}

TEST(ComparisonCost, NothingWraps) {
  ContainerCost values(kEverything);
  values.addValue({kEverything, true});
  EXPECT_EQ(costOf(values), kEverything);

  ContainerCost good;
  good.addKey({kEverything / 2, false});
  EXPECT_EQ(costOf(good), kEverything);

  ContainerCost poor;
  for (int count = 0; count < 3; ++count) poor.addKey({kEverything / 2, true});
  EXPECT_EQ(poor.toMake(), kEverything);
  EXPECT_EQ(costOf(poor), kEverything);

  // A level of three multiplies by nine at least: 64 of them are far beyond what fits.
  ComparisonCost nested;
  for (int level = 0; level < 64; ++level) {
    ContainerCost container;
    for (int key = 0; key < 3; ++key) container.addKey(nested);
    nested = container.toCompare();
  }
  EXPECT_EQ(nested.work, kEverything);
}

}  // namespace
}  // namespace velto::wire
