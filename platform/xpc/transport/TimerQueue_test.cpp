#include "platform/xpc/transport/TimerQueue.h"

#include <gtest/gtest.h>
#include <poll.h>

#include "platform/xpc/testing/Support.h"
#include "platform/xpc/transport/Reactor.h"

namespace velto::transport {
namespace {

using std::chrono::hours;
using std::chrono::milliseconds;

bool isReadable(int descriptor, int patience) {
  pollfd entry{descriptor, POLLIN, 0};
  return ::poll(&entry, 1, patience) == 1;
}

TEST(TimerQueue, IsNotArmedWhileNothingIsToBeDone) {
  TimerQueue timers;
  EXPECT_FALSE(isReadable(timers.descriptor(), 0));
  const auto identifier = timers.add(milliseconds(0), [] {});
  timers.cancel(identifier);
  EXPECT_FALSE(isReadable(timers.descriptor(), 20));
}

TEST(TimerQueue, GivesWhatIsDueInOrderAndNothingElse) {
  TimerQueue timers;
  std::string order;
  // Far enough apart for a thread that is held up between the two.
  timers.add(milliseconds(200), [&] { order += "b"; });
  timers.add(milliseconds(1), [&] { order += "a"; });
  timers.add(hours(1), [&] { order += "never"; });
  ASSERT_TRUE(isReadable(timers.descriptor(), 30'000));
  ASSERT_TRUE(velto::testing::eventually([&] {
    for (const auto& action : timers.takeDue()) action();
    return order.size() == 2;
  }));
  EXPECT_EQ(order, "ab");
}

TEST(TimerQueue, CancellingTheFirstLetsTheSecondCome) {
  TimerQueue timers;
  const auto first = timers.add(milliseconds(1), [] {});
  bool ran = false;
  timers.add(milliseconds(2), [&] { ran = true; });
  timers.cancel(first);
  timers.cancel(first);
  ASSERT_TRUE(isReadable(timers.descriptor(), 30'000));
  for (const auto& action : timers.takeDue()) action();
  EXPECT_TRUE(ran);
}

TEST(Reactor, RunsTimersOnItsThreads) {
  velto::testing::Inbox<int> ran;
  Reactor::shared().timers().add(milliseconds(1), [&] { ran.put(1); });
  Reactor::shared().makeQueue()->add([] {});  // there is a thread
  EXPECT_EQ(ran.waitFor(1).size(), 1U);
}

}  // namespace
}  // namespace velto::transport
