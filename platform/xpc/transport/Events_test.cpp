#include "platform/xpc/transport/Events.h"

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <future>
#include <set>
#include <thread>
#include <vector>

#include <sys/eventfd.h>
#include <unistd.h>

#include "platform/xpc/system/SystemCalls.h"
#include "platform/xpc/testing/Support.h"

namespace velto::transport {
namespace {

using velto::testing::Inbox;

constexpr std::uint64_t kFirst = 7;

// What can be made readable, each time anew.
class Bell {
 public:
  Bell() : descriptor_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}
  void ring() const {
    const std::uint64_t one = 1;
    ASSERT_EQ(::write(descriptor_.get(), &one, sizeof(one)), static_cast<ssize_t>(sizeof(one)));
  }
  int descriptor() const { return descriptor_.get(); }

 private:
  const system::Descriptor descriptor_;
};

// Knows who sleeps where, and refuses what it is told to.
class WatchedKernel final : public system::SystemCalls {
 public:
  WatchedKernel() { system::replaceSystemCalls(this); }
  ~WatchedKernel() override { system::replaceSystemCalls(nullptr); }

  int epollCreate() override {
    const int made = SystemCalls::epollCreate();
    (events_ < 0 ? events_ : gate_) = made;
    return made;
  }
  int epollWait(int epoll, epoll_event* events, int capacity) override {
    auto& asleep = epoll == gate_ ? standBy : lead;
    ++asleep;
    const int count = SystemCalls::epollWait(epoll, events, capacity);
    --asleep;
    if (epoll == gate_) ++passed;
    return count;
  }
  int epollLook(int epoll, epoll_event* events, int capacity) override {
    if (looksFail) return errno = EINVAL, -1;
    ++looks;
    // As if nothing were there yet.
    if (blindLooks.fetch_sub(1) > 0) return 0;
    return SystemCalls::epollLook(epoll, events, capacity);
  }
  int epollControl(int epoll, int operation, int descriptor, epoll_event& event) override {
    if (operation == EPOLL_CTL_MOD && refuses) return errno = ENOMEM, -1;
    return SystemCalls::epollControl(epoll, operation, descriptor, event);
  }

  // Others have the processor for a while.
  void yield() override {
    const auto end = std::chrono::steady_clock::now() + std::chrono::microseconds(20);
    while (std::chrono::steady_clock::now() < end) {
    }
  }

  // Threads that sleep, and how often one has been let pass.
  std::atomic<int> lead{0};
  std::atomic<int> standBy{0};
  std::atomic<int> passed{0};
  std::atomic<bool> refuses{false};
  std::atomic<bool> looksFail{false};
  std::atomic<int> looks{0};
  std::atomic<int> blindLooks{0};

 private:
  std::atomic<int> events_{-1};
  std::atomic<int> gate_{-1};
};

std::uint64_t numberOfNext(Events& events) {
  epoll_event event{};
  while (events.wait(event) == 0) {
  }
  return event.data.u64;
}

TEST(Events, GiveOneAtATimeAndLoseNone) {
  Events events;
  ASSERT_TRUE(events.setUp());
  const std::vector<Bell> bells(3);
  for (std::size_t number = 0; number < bells.size(); ++number) {
    ASSERT_TRUE(events.add(bells[number].descriptor(), EPOLLIN, kFirst + number));
    bells[number].ring();
  }
  std::set<std::uint64_t> seen;
  for (std::size_t count = 0; count < bells.size(); ++count) seen.insert(numberOfNext(events));
  EXPECT_EQ(seen, (std::set<std::uint64_t>{kFirst, kFirst + 1, kFirst + 2}));
}

TEST(Events, AreGivenToAnotherThreadWhileTheOneThatGotTheLastIsBusy) {
  Events events;
  ASSERT_TRUE(events.setUp());
  const std::vector<Bell> bells(2);
  for (std::size_t number = 0; number < bells.size(); ++number) {
    ASSERT_TRUE(events.add(bells[number].descriptor(), EPOLLIN, kFirst + number));
  }
  Inbox<std::uint64_t> seen;
  std::promise<void> end;
  const auto ended = end.get_future().share();
  std::vector<std::thread> threads;
  for (std::size_t count = 0; count < bells.size(); ++count) {
    // Each stays busy with the one that it gets.
    threads.emplace_back([&] {
      seen.put(numberOfNext(events));
      ended.wait();
    });
  }
  bells[0].ring();
  EXPECT_EQ(seen.waitFor(1), std::vector<std::uint64_t>{kFirst});
  bells[1].ring();
  EXPECT_EQ(seen.waitFor(2).back(), kFirst + 1);
  end.set_value();
  for (std::thread& thread : threads) thread.join();
}

TEST(Events, AreServedByManyThreadsWithoutLoss) {
  constexpr int kThreads = 4;
  constexpr int kRings = 20'000;
  Events events;
  ASSERT_TRUE(events.setUp());
  const std::vector<Bell> bells(8);
  for (std::size_t number = 0; number < bells.size(); ++number) {
    ASSERT_TRUE(events.add(bells[number].descriptor(), EPOLLIN, kFirst + number));
  }
  // Each event rings a bell, so that one that got lost would leave the rest undone.
  std::atomic<std::size_t> rung{0};
  std::atomic<int> threadsLeft{kThreads};
  std::vector<std::thread> threads;
  for (int each = 0; each < kThreads; ++each) {
    threads.emplace_back([&] {
      while (numberOfNext(events) != Events::kWakeUp) {
        const std::size_t number = rung.fetch_add(1);
        if (number < kRings) bells[number % bells.size()].ring();
      }
      --threadsLeft;
    });
  }
  bells.front().ring();
  EXPECT_TRUE(velto::testing::eventually([&] { return rung > kRings; })) << rung;
  EXPECT_TRUE(velto::testing::eventually([&] { return events.wakeOne() && threadsLeft == 0; }));
  for (std::thread& thread : threads) thread.join();
}

TEST(Events, WakeNoneOfThoseWhoStandBy) {
  WatchedKernel kernel;
  Events events;
  ASSERT_TRUE(events.setUp());
  const Bell bell;
  ASSERT_TRUE(events.add(bell.descriptor(), EPOLLIN, kFirst));
  std::vector<std::thread> threads;
  std::atomic<int> served{0};
  for (int each = 0; each < 3; ++each) {
    threads.emplace_back([&] {
      while (numberOfNext(events) != Events::kWakeUp) ++served;
    });
  }
  for (int count = 0; count <= 200; ++count) {
    ASSERT_TRUE(velto::testing::eventually([&] { return served == count && kernel.lead == 1 && kernel.standBy == 2; }));
    if (count < 200) bell.ring();
  }
  EXPECT_EQ(kernel.passed, 0);
  for (int left = 3; left > 0; --left) {
    EXPECT_TRUE(events.wakeOne());
    EXPECT_TRUE(velto::testing::eventually([&] { return kernel.lead + kernel.standBy == left - 1; }));
  }
  for (std::thread& thread : threads) thread.join();
}

TEST(Events, WhereMuchComesOverASharedProcessorTheNextWaitsAreSleptThrough) {
  WatchedKernel kernel;
  Events events;
  ASSERT_TRUE(events.setUp());
  const Bell bell;
  ASSERT_TRUE(events.add(bell.descriptor(), EPOLLIN, kFirst));
  const auto looksOfNext = [&] {
    const int before = kernel.looks;
    bell.ring();
    EXPECT_EQ(numberOfNext(events), kFirst);
    return kernel.looks - before;
  };
  events.foundMuch();
  EXPECT_EQ(looksOfNext(), 1) << "the processor is not known to be shared";
  kernel.blindLooks = 1;
  EXPECT_EQ(looksOfNext(), 2);
  events.foundMuch();
  int sleptThrough = 0;
  while (sleptThrough < 1'000 && looksOfNext() == 0) ++sleptThrough;
  EXPECT_GE(sleptThrough, 8);
  EXPECT_LT(sleptThrough, 1'000);
}

TEST(Events, AFailureToLookIsToldAndTheNextWaitIsWhole) {
  WatchedKernel kernel;
  Events events;
  ASSERT_TRUE(events.setUp());
  const Bell bell;
  ASSERT_TRUE(events.add(bell.descriptor(), EPOLLIN, kFirst));
  bell.ring();
  kernel.looksFail = true;
  epoll_event event{};
  EXPECT_EQ(events.wait(event), -1);
  EXPECT_EQ(errno, EINVAL);
  kernel.looksFail = false;
  EXPECT_EQ(numberOfNext(events), kFirst);
}

TEST(Events, SayWhenThoseWhoStandByWillHearOfNothing) {
  WatchedKernel kernel;
  Events events;
  ASSERT_TRUE(events.setUp());
  const std::vector<Bell> bells(2);
  for (std::size_t number = 0; number < bells.size(); ++number) {
    ASSERT_TRUE(events.add(bells[number].descriptor(), EPOLLIN, kFirst + number));
    bells[number].ring();
  }
  EXPECT_TRUE(events.isOpen());
  kernel.refuses = true;
  numberOfNext(events);
  EXPECT_FALSE(events.isOpen());
  // Who comes leads, gate or no gate.
  EXPECT_NE(numberOfNext(events), Events::kWakeUp);
  kernel.refuses = false;
  EXPECT_TRUE(events.wakeOne());
  EXPECT_EQ(numberOfNext(events), Events::kWakeUp);
  EXPECT_TRUE(events.isOpen());
}

}  // namespace
}  // namespace velto::transport
