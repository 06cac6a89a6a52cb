#include "platform/xpc/transport/HangUpWatch.h"

#include <set>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

#include "platform/xpc/testing/Support.h"

namespace velto::transport {
namespace {

using velto::testing::Inbox;

struct Pipe {
  Pipe() {
    int ends[2] = {-1, -1};
    EXPECT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    reading = system::Descriptor(ends[0]);
    writing = system::Descriptor(ends[1]);
  }

  system::Descriptor reading;
  system::Descriptor writing;
};

TEST(HangUpWatch, EachOfAThousandWatchesOfOnePipeHearsOfItsEndOnce) {
  constexpr int kWatches = 1000;
  Pipe pipe;
  Inbox<int> heard;
  const std::size_t before = testing::openDescriptors();
  std::vector<std::shared_ptr<HangUpWatch>> watches;
  for (int number = 0; number < kWatches; ++number) {
    watches.push_back(HangUpWatch::make(pipe.reading.get(), [&heard, number] { heard.put(number); }));
    ASSERT_TRUE(watches.back()) << number;
  }
  // What the reactor needs, and one for the pipe.
  EXPECT_LE(testing::openDescriptors(), before + 10);
  pipe.writing.reset();
  const auto all = heard.waitFor(kWatches);
  EXPECT_EQ(std::set<int>(all.begin(), all.end()).size(), static_cast<std::size_t>(kWatches));
  EXPECT_EQ(heard.soFar().size(), static_cast<std::size_t>(kWatches));
}

TEST(HangUpWatch, OfAPipeThatHasHungUpIsToldAtOnceBesidesOthersToo) {
  Pipe pipe;
  Inbox<int> heard;
  const auto first = HangUpWatch::make(pipe.reading.get(), [&] { heard.put(1); });
  pipe.writing.reset();
  heard.waitFor(1);
  const auto second = HangUpWatch::make(pipe.reading.get(), [&] { heard.put(2); });
  EXPECT_EQ(heard.waitFor(2), (std::vector<int>{1, 2}));
}

TEST(HangUpWatch, HearsNothingOnceItIsLetGoOfAndOthersStillDo) {
  Pipe pipe;
  Pipe other;
  Inbox<int> heard;
  auto first = HangUpWatch::make(pipe.reading.get(), [&] { heard.put(1); });
  const auto second = HangUpWatch::make(pipe.reading.get(), [&] { heard.put(2); });
  const auto apart = HangUpWatch::make(other.reading.get(), [&] { heard.put(3); });
  first.reset();
  pipe.writing.reset();
  heard.waitFor(1);
  other.writing.reset();
  EXPECT_EQ(heard.waitFor(2), (std::vector<int>{2, 3}));
}

}  // namespace
}  // namespace velto::transport
