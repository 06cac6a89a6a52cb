#include "platform/foundation/NSSynchronized.h"

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

TEST(NSSynchronized, IsRecursive) {
  const NSObject object = "object";
  const NSSynchronized outer(object);
  const NSSynchronized inner(object);
  EXPECT_TRUE(object.body()->monitor().try_lock());
  object.body()->monitor().unlock();
}

TEST(NSSynchronized, LetsGoAtTheEnd) {
  const NSObject object = NSArray{1};
  bool held = true;
  bool free = false;
  {
    const NSSynchronized lock(object);
    std::thread([&] { held = !object.body()->monitor().try_lock(); }).join();
  }
  std::thread([&] {
    free = object.body()->monitor().try_lock();
    if (free) object.body()->monitor().unlock();
  }).join();
  EXPECT_TRUE(held);
  EXPECT_TRUE(free);
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
  EXPECT_NE(&one.body()->monitor(), &equal.body()->monitor());
  EXPECT_EQ(&one.body()->monitor(), &NSObject(one).body()->monitor());
}

}  // namespace
