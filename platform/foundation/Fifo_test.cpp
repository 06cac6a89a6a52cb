#include "platform/foundation/Fifo.h"

#include <memory>

#include <gtest/gtest.h>

namespace {

using Pointer = std::shared_ptr<int>;

TEST(Fifo, GivesBackInTheOrderInWhichItWasGiven) {
  velto::Fifo<int> queue;
  int given = 0;
  int taken = 0;
  // In and out at different speeds: the room is used again, and grows.
  for (int round = 1; round < 100; ++round) {
    for (int count = 0; count < round; ++count) queue.push_back(given++);
    for (int count = 0; count < round - 1; ++count) {
      ASSERT_EQ(queue.front(), taken++);
      queue.pop_front();
    }
    ASSERT_EQ(queue.size(), static_cast<std::size_t>(given - taken));
    ASSERT_EQ(queue.back(), given - 1);
  }
  for (const int item : queue) ASSERT_EQ(item, taken++);
}

TEST(Fifo, LetsGoOfWhatIsTakenOutAtOnce) {
  velto::Fifo<Pointer> queue;
  const Pointer first = std::make_shared<int>(1);
  const Pointer second = std::make_shared<int>(2);
  queue.push_back(first);
  queue.push_back(first);
  queue.push_back(second);
  queue.pop_front(2);
  EXPECT_EQ(first.use_count(), 1);
  EXPECT_EQ(queue.front(), second);
  queue.pop_front();
  EXPECT_EQ(second.use_count(), 1);
  EXPECT_TRUE(queue.empty());
}

TEST(Fifo, CanBeAddedToWhileItIsCleared) {
  struct Adds {
    velto::Fifo<std::shared_ptr<Adds>>* queue = nullptr;
    ~Adds() {
      if (queue != nullptr) queue->push_back(nullptr);
    }
  };
  velto::Fifo<std::shared_ptr<Adds>> queue;
  queue.push_back(std::make_shared<Adds>(Adds{}));
  queue.front()->queue = &queue;
  queue.clear();
  EXPECT_EQ(queue.size(), 1u);
}

TEST(Fifo, MovesWithWhatIsInIt) {
  velto::Fifo<int> queue;
  for (const int item : {1, 2, 3}) queue.push_back(item);
  queue.pop_front();
  velto::Fifo<int> other = std::move(queue);
  EXPECT_TRUE(queue.empty());  // NOLINT(bugprone-use-after-move)
  EXPECT_EQ(other.size(), 2u);
  EXPECT_EQ(other.front(), 2);
}

}  // namespace
