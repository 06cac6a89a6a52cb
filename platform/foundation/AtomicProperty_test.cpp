#include "platform/foundation/AtomicProperty.h"

#include <memory>
#include <string>
#include <thread>

#include <gtest/gtest.h>

namespace velto {
namespace {

TEST(AtomicProperty, GetsWhatWasSet) {
  AtomicProperty<std::string> property("first");
  EXPECT_EQ(property.get(), "first");
  property.set("second");
  EXPECT_EQ(property.get(), "second");
  EXPECT_EQ(property.exchange("third"), "second");
  EXPECT_EQ(property.get(), "third");
  EXPECT_EQ(AtomicProperty<int>().get(), 0);
}

TEST(AtomicProperty, WhatIsReplacedMayUseThePropertyAsItGoes) {
  AtomicProperty<std::shared_ptr<void>> property;
  int ended = 0;
  const auto valueThatLooks = [&] {
    return std::shared_ptr<void>(&ended, [&](void*) {
      ++ended;
      property.get();  // blocks for ever if the lock is still held
    });
  };
  property.set(valueThatLooks());
  property.set(nullptr);
  EXPECT_EQ(ended, 1);
  property.set(valueThatLooks());
  property.exchange(nullptr);
  EXPECT_EQ(ended, 2);
}

TEST(AtomicProperty, GetsAndSetsOfManyThreadsAreWhole) {
  AtomicProperty<std::string> property(std::string(100, 'a'));
  std::thread writer([&] {
    for (int round = 0; round < 5000; ++round) property.set(std::string(100, static_cast<char>('a' + round % 26)));
  });
  for (int round = 0; round < 5000; ++round) {
    const std::string seen = property.get();
    EXPECT_EQ(seen, std::string(100, seen[0]));
  }
  writer.join();
}

}  // namespace
}  // namespace velto
