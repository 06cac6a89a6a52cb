#include "platform/foundation/NSSynchronized.h"

#include <atomic>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "platform/foundation/Foundation.h"

namespace {

TEST(NSSynchronized, KeepsOtherThreadsOut) {
  NSMutableArray shared = NSMutableArray::array();
  std::vector<std::thread> threads;
  for (int each = 0; each < 4; ++each) {
    threads.emplace_back([handle = shared]() mutable {
      for (int round = 0; round < 1000; ++round) {
        const NSSynchronized lock(handle);
        handle.addObject(round);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(shared.count(), 4000u);
}

// Objects of every kind that has a monitor of its own: in a body of the platform's, in the handle, in an own class's.
const std::vector<NSObject>& kinds() {
  static const std::vector<NSObject> all{NSArray{1}, "object", 42, NSCondition::condition()};
  return all;
}

TEST(NSSynchronized, IsRecursiveAndKeepsOthersOutUntilTheOuterEnds) {
  for (const NSObject& object : kinds()) {
    std::atomic<bool> begins{false};
    std::atomic<bool> ended{false};
    bool cameAfterTheEnd = false;
    std::thread other;
    {
      const NSSynchronized outer(object);
      { const NSSynchronized inner(object); }
      other = std::thread([&] {
        begins = true;
        const NSSynchronized lock(object);
        cameAfterTheEnd = ended;
      });
      while (!begins) std::this_thread::yield();
      ended = true;
    }
    other.join();
    EXPECT_TRUE(cameAfterTheEnd) << object.description().string();
  }
}

TEST(NSSynchronized, CanBeTried) {
  for (const NSObject& object : kinds()) {
    const auto isFree = [&] {
      bool free = false;
      std::thread([&] { free = NSSynchronized(object, std::try_to_lock).holdsMonitor(); }).join();
      return free;
    };
    EXPECT_TRUE(isFree());
    const NSSynchronized lock(object);
    EXPECT_TRUE(lock.holdsMonitor());
    EXPECT_TRUE(NSSynchronized(object, std::try_to_lock).holdsMonitor());
    EXPECT_FALSE(isFree());
  }
  EXPECT_FALSE(NSSynchronized(nil, std::try_to_lock).holdsMonitor());
}

TEST(NSSynchronized, LetsGoAtTheEnd) {
  for (const NSObject& object : kinds()) {
    { const NSSynchronized lock(object); }
    std::thread([&] { const NSSynchronized lock(object); }).join();
  }
}

TEST(NSSynchronized, KeepsTheObjectAlive) {
  bool deleted = false;
  NSData data = NSData::dataWithBytesNoCopy("x", 1, [&] { deleted = true; });
  {
    const NSSynchronized lock(data);
    data = nil;
    EXPECT_FALSE(deleted);
  }
  EXPECT_TRUE(deleted);
}

TEST(NSSynchronized, TheMonitorOfNilDoesNothing) {
  const NSSynchronized first(NSObject{});
  std::thread([] { const NSSynchronized second(nil); }).join();
}

TEST(NSSynchronized, TheMonitorBelongsToTheObjectNotToItsValue) {
  const NSObject one = NSArray{1};
  const NSObject equal = NSArray{1};
  const NSSynchronized lock(one);
  std::thread([&] { const NSSynchronized other(equal); }).join();
}

}  // namespace
