#include "platform/foundation/OrderedEntries.h"

#include <map>
#include <random>
#include <string>

#include <gtest/gtest.h>

#include "platform/foundation/Foundation.h"

namespace velto {
namespace {

std::string textOf(const OrderedEntries& entries) {
  std::string text;
  for (const OrderedEntries::Slot& slot : entries.slots()) {
    if (!slot.key.isNil()) text += slot.key.description().string() + " ";
  }
  return text;
}

TEST(OrderedEntries, FindsKeysBelowAtAndAboveTheSizeThatIsIndexed) {
  for (const int size : {0, 1, 7, 8, 9, 10, 1000}) {
    OrderedEntries entries;
    for (int each = 0; each < size; ++each) entries.put(each % 2 == 0 ? NSObject(each) : std::to_string(each), each);
    EXPECT_EQ(entries.count(), static_cast<std::size_t>(size));
    for (int each = 0; each < size; ++each) {
      const NSObject key = each % 2 == 0 ? NSObject(each) : std::to_string(each);
      EXPECT_EQ(entries.valueOf(key), each);
      EXPECT_EQ(entries.valueOfText(std::to_string(each)).isNil(), each % 2 == 0);
    }
    EXPECT_EQ(entries.find(size), nullptr);
    EXPECT_EQ(entries.find(nil), nullptr);
    EXPECT_FALSE(entries.remove("missing"));
  }
}

TEST(OrderedEntries, BehavesLikeAMapUnderRandomUse) {
  std::mt19937 random(7);
  OrderedEntries entries;
  std::map<int, int> model;
  for (int step = 0; step < 50'000; ++step) {
    const int key = static_cast<int>(random() % 300);
    if (random() % 2 == 0) {
      entries.put(key, step);
      model[key] = step;
    } else {
      EXPECT_EQ(entries.remove(key), model.erase(key) == 1);
    }
    ASSERT_EQ(entries.count(), model.size());
    const int asked = static_cast<int>(random() % 300);
    const auto found = model.find(asked);
    ASSERT_EQ(entries.valueOf(asked), found != model.end() ? NSObject(found->second) : NSObject());
  }
}

TEST(OrderedEntries, KeepsTheOrderWhenEntriesGoAndTheSlotsAreClosedUp) {
  OrderedEntries entries;
  for (int each = 0; each < 40; ++each) entries.put(each, nil);
  for (int each = 0; each < 40; ++each) {
    if (each % 10 != 3) entries.remove(each);
  }
  entries.put("new", nil);
  EXPECT_EQ(textOf(entries), "3 13 23 33 new ");
  EXPECT_LE(entries.slots().size(), 8u);
}

TEST(OrderedEntries, HoldsNoMoreSlotsThanItNeedsHoweverOftenEntriesComeAndGo) {
  OrderedEntries entries;
  for (int each = 0; each < 100'000; ++each) {
    entries.put(each, nil);
    if (each >= 10) entries.remove(each - 10);
    ASSERT_LE(entries.slots().size(), 64u);
  }
  for (int each = 99'990; each < 100'000; ++each) EXPECT_TRUE(entries.remove(each));
  EXPECT_TRUE(entries.slots().empty());
}

TEST(OrderedEntries, ClearGivesTheFormerSlots) {
  OrderedEntries entries;
  for (int each = 0; each < 20; ++each) entries.put(each, each);
  EXPECT_EQ(entries.clear().size(), 20u);
  EXPECT_EQ(entries.count(), 0u);
  EXPECT_EQ(entries.find(5), nullptr);
  entries.put(5, 6);
  EXPECT_EQ(entries.valueOf(5), 6);
}

TEST(OrderedEntries, ReservingChangesNothingButRoom) {
  OrderedEntries entries;
  entries.put("a", 1);
  entries.reserve(1000);
  EXPECT_EQ(entries.valueOf("a"), 1);
  entries.put("b", 2);
  entries.reserve(2);
  EXPECT_EQ(textOf(entries), "a b ");
}

}  // namespace
}  // namespace velto
