// What the stress tests share.
#include "tests/stress/StressTest.h"

#include <future>
#include <vector>

#include "tests/support/Census.h"
#include "tests/support/Waiting.h"

namespace velto::testing {

void inThreads(unsigned count, const std::function<void(Dice&)>& run) {
  std::vector<std::future<void>> threads;
  for (unsigned seed = 1; seed <= count; ++seed) {
    threads.push_back(inBackground([&run, seed] {
      Dice dice(seed);
      run(dice);
    }));
  }
  // Together they may take longer than one wait in a test does.
  for (auto& thread : threads) {
    if (thread.wait_for(5 * kBound) != std::future_status::ready) giveUp("a thread of a stress test never ended");
    thread.get();
  }
}

void StressTest::SetUp() {
  // What the platform keeps for the life of the process is made by the first use, and does not count.
  {
    Pair pair;
    pair.server.delegate->echo();
    pair.roundTrip();
  }
  // The ends of those connections may still be on their way.
  eventually(
      [&] {
        descriptors_ = std::min(descriptors_ == 0 ? openDescriptors() : descriptors_, openDescriptors());
        return false;
      },
      std::chrono::milliseconds(300));
}

void StressTest::TearDown() {
  EXPECT_TRUE(eventually([&] { return openDescriptors() <= descriptors_; }))
      << openDescriptors() << " descriptors, at first there were " << descriptors_;
  LibraryTest::TearDown();
}

End checkedEnd(const NSDictionary& asked, const NSDictionary& reply, const NSError& error) {
  if (reply) {
    EXPECT_EQ(reply, asked);
    return End::replied;
  }
  EXPECT_TRUE(error.code() == 6 || error.code() == 2) << error.description().view();
  return End::closed;
}

}  // namespace velto::testing
