#include "platform/foundation/RandomBytes.h"

#include <array>
#include <set>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

namespace velto {
namespace {

TEST(RandomBytes, DiffersFromDrawToDraw) {
  std::set<std::array<unsigned char, 16>> seen;
  for (int draw = 0; draw < 1000; ++draw) {
    std::array<unsigned char, 16> bytes{};
    fillWithRandomBytes(bytes.data(), bytes.size());
    EXPECT_TRUE(seen.insert(bytes).second);
  }
}

TEST(RandomBytes, WritesNoMoreThanItWasAskedFor) {
  std::array<unsigned char, 8> bytes{};
  for (int draw = 0; draw < 100; ++draw) fillWithRandomBytes(bytes.data(), 4);
  EXPECT_EQ(bytes[4] | bytes[5] | bytes[6] | bytes[7], 0);
  fillWithRandomBytes(bytes.data() + 4, 0);
  EXPECT_EQ(bytes[4], 0);
}

TEST(RandomBytes, FillsUpToAnyLength) {
  std::array<unsigned char, 256> sums{};
  for (int draw = 0; draw < 64; ++draw) {
    std::array<unsigned char, 256> bytes{};
    fillWithRandomBytes(bytes.data(), bytes.size());
    for (std::size_t index = 0; index < bytes.size(); ++index) sums[index] |= bytes[index];
  }
  for (const unsigned char sum : sums) EXPECT_NE(sum, 0);
}

TEST(RandomBytes, TheChildOfAForkDrawsOthers) {
  using Bytes = std::array<unsigned char, 16>;
  std::array<int, 2> ends{};
  ASSERT_EQ(pipe(ends.data()), 0);
  const auto draw = [] {
    Bytes bytes{};
    fillWithRandomBytes(bytes.data(), bytes.size());
    return bytes;
  };
  draw();
  const pid_t child = fork();
  if (child == 0) {
    const Bytes drawn = draw();
    _exit(write(ends[1], drawn.data(), drawn.size()) == static_cast<ssize_t>(drawn.size()) ? 0 : 1);
  }
  Bytes theirs{};
  EXPECT_EQ(read(ends[0], theirs.data(), theirs.size()), static_cast<ssize_t>(theirs.size()));
  EXPECT_NE(draw(), theirs);
  int status = -1;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  close(ends[0]);
  close(ends[1]);
}

TEST(RandomBytes, ThreadsDrawNothingTwice) {
  constexpr int kThreads = 4, kDraws = 2000;
  std::array<std::vector<std::array<unsigned char, 16>>, kThreads> drawn;
  {
    std::vector<std::jthread> threads;
    for (auto& each : drawn) {
      threads.emplace_back([&each] {
        each.resize(kDraws);
        for (auto& bytes : each) fillWithRandomBytes(bytes.data(), bytes.size());
      });
    }
  }
  std::set<std::array<unsigned char, 16>> seen;
  for (const auto& each : drawn) seen.insert(each.begin(), each.end());
  EXPECT_EQ(seen.size(), std::size_t{kThreads} * kDraws);
}

}  // namespace
}  // namespace velto
