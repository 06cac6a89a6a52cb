// What a channel writes, and when: frames that go at once, and those that are gathered. Whose turn it is to be read.
#include "platform/xpc/transport/Channel.h"

#include <cstdlib>
#include <functional>
#include <random>
#include <set>
#include <vector>

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include "platform/xpc/testing/FewThreads.h"
#include "platform/xpc/testing/Support.h"

namespace velto::transport {
namespace {

using Haste = Channel::Haste;
using testing::eventually;
using testing::Inbox;

// Whose frames have their number as their first bytes.
wire::Frame frameOf(std::uint32_t number, std::size_t bytes) {
  wire::Frame frame;
  frame.type = wire::FrameType::call;
  frame.body.resize(std::max(bytes, sizeof number));
  std::memcpy(frame.body.data(), &number, sizeof number);
  return frame;
}

class Numbers final : public ChannelReceiver {
 public:
  Inbox<std::uint32_t> numbers;
  Inbox<std::string> ends;

  void framesArrived(std::span<wire::Frame> frames) override {
    for (const wire::Frame& frame : frames) {
      std::uint32_t number = 0;
      std::memcpy(&number, frame.body.data(), sizeof number);
      numbers.put(number);
    }
  }
  void channelEnded(const std::string& reason) override { ends.put(reason); }
  void outputDrained() override {}
};

std::shared_ptr<Channel> channelOf(system::Descriptor socket, std::shared_ptr<ChannelReceiver> receiver) {
  return std::make_shared<Channel>(std::move(socket), std::move(receiver),
                                   std::make_shared<Holding>(std::weak_ptr<HoldingOwner>()), nullptr);
}

class Counting final : public ChannelReceiver {
 public:
  explicit Counting(std::function<void(std::size_t)> count) : count_(std::move(count)) {}
  void framesArrived(std::span<wire::Frame> frames) override { count_(frames.size()); }
  void channelEnded(const std::string&) override {}
  void outputDrained() override {}

 private:
  const std::function<void(std::size_t)> count_;
};

class ChannelPair : public ::testing::Test {
 protected:
  ChannelPair() {
    auto [here, there] = testing::socketPair();
    sender = channelOf(std::move(here), std::make_shared<Numbers>());
    receiver = channelOf(std::move(there), received);
  }
  ~ChannelPair() override {
    sender->abort();
    receiver->abort();
  }

  const std::shared_ptr<Numbers> received = std::make_shared<Numbers>();
  std::shared_ptr<Channel> sender;
  std::shared_ptr<Channel> receiver;
};

TEST_F(ChannelPair, WhatIsGatheredGoesWithWhatIsHasty) {
  sender->send(frameOf(0, 10), Haste::afterNext);
  sender->send(frameOf(1, 3000), Haste::afterNext);
  sender->send(frameOf(2, 10), Haste::afterNext);
  EXPECT_EQ(sender->framesWritten(), 0U);
  EXPECT_EQ(sender->waitingBytes(), 3020U + 3 * wire::FrameHeader::kBytes);
  sender->send(frameOf(3, 10));
  EXPECT_EQ(sender->framesWritten(), 4U);
  EXPECT_EQ(sender->waitingBytes(), 0U);
  receiver->start();
  EXPECT_EQ(received->numbers.waitFor(4), (std::vector<std::uint32_t>{0, 1, 2, 3}));
}

TEST_F(ChannelPair, WhatIsGatheredIsWrittenOnceItIsMuch) {
  std::uint64_t sent = 0;
  while (sender->framesWritten() == 0) sent = sender->send(frameOf(0, 1000), Haste::afterNext);
  EXPECT_EQ(sender->framesWritten(), sent);
  EXPECT_LE(sent, 20U);
}

TEST_F(ChannelPair, WhatIsGatheredIsWrittenInTimeIfNobodyFlushes) {
  receiver->start();
  sender->send(frameOf(7, 10), Haste::beforeFlush);
  EXPECT_EQ(received->numbers.waitFor(1).front(), 7U);
}

TEST_F(ChannelPair, WhatFollowsOnesThatWaitForItIsWrittenInTimeToo) {
  receiver->start();
  sender->send(frameOf(1, 10), Haste::afterNext);
  sender->send(frameOf(2, 10), Haste::beforeFlush);
  EXPECT_EQ(received->numbers.waitFor(2).back(), 2U);
  for (std::uint32_t number = 0; number < 20; ++number) sender->send(frameOf(number, 10), Haste::inBurst);
  sender->send(frameOf(20, 10), Haste::afterNext);
  sender->send(frameOf(21, 10), Haste::inBurst);
  EXPECT_EQ(received->numbers.waitFor(24).back(), 21U);
  // The process's timers go on.
  Inbox<int> due;
  Reactor::shared().timers().add(std::chrono::milliseconds(1), [&due] { due.put(1); });
  due.waitFor(1);
}

TEST_F(ChannelPair, ABurstArrivesWholeIfItsSenderStops) {
  receiver->start();
  constexpr std::uint32_t kMany = 100;
  for (std::uint32_t number = 0; number < kMany; ++number) sender->send(frameOf(number, 10), Haste::inBurst);
  EXPECT_EQ(received->numbers.waitFor(kMany).back(), kMany - 1);
}

TEST_F(ChannelPair, TheFirstFramesOfABurstGoAtOnce) {
  for (std::uint32_t number = 0; number < 4; ++number) {
    const std::uint64_t sent = sender->send(frameOf(number, 10), Haste::inBurst);
    EXPECT_EQ(sender->framesWritten(), sent);
  }
}

TEST_F(ChannelPair, WhatIsGatheredIsWrittenBeforeTheEnd) {
  receiver->start();
  sender->send(frameOf(1, 10), Haste::afterNext);
  sender->finish();
  EXPECT_EQ(received->ends.waitFor(1).front(), "");
  EXPECT_EQ(received->numbers.soFar(), std::vector<std::uint32_t>{1});
}

TEST_F(ChannelPair, WhatIsGatheredIsWrittenBeforeAnAbort) {
  receiver->start();
  sender->send(frameOf(1, 10), Haste::afterNext);
  sender->abort();
  EXPECT_EQ(received->ends.waitFor(1).front(), "");
  EXPECT_EQ(received->numbers.soFar(), std::vector<std::uint32_t>{1});
}

// Sizes on both sides of what is copied, through a socket that is full again and again.
TEST_F(ChannelPair, FramesOfAllSizesAndHastesArriveInTheirOrder) {
  constexpr std::uint32_t kMany = 5000;
  constexpr Haste kHastes[] = {Haste::now, Haste::afterNext, Haste::beforeFlush, Haste::inBurst};
  std::mt19937 random(11);
  sender->start();
  std::thread starts([this] { receiver->start(); });
  for (std::uint32_t number = 0; number < kMany; ++number) {
    const std::size_t bytes = random() % 50 == 0 ? random() % 20'000 : random() % 300;
    sender->send(frameOf(number, bytes), kHastes[random() % 4]);
  }
  sender->flush();
  const auto numbers = received->numbers.waitFor(kMany);
  for (std::uint32_t number = 0; number < kMany; ++number) ASSERT_EQ(numbers[number], number);
  starts.join();
  EXPECT_TRUE(eventually([this] { return sender->framesWritten() == kMany && sender->waitingBytes() == 0; }));
}

// Which frames were written whole is counted within what is gathered, too: nobody reads here.
TEST_F(ChannelPair, FramesThatFoundNoRoomAreNotCountedAsWritten) {
  sender->start();
  std::uint64_t sent = 0;
  while (sender->waitingBytes() < 100'000) sent = sender->send(frameOf(0, 100), Haste::afterNext);
  const std::uint64_t written = sender->framesWritten();
  EXPECT_LT(written, sent);
  EXPECT_EQ((sent - written) * 108 / 1000, sender->waitingBytes() / 1000);
}

// Once each of many talkers has been heard, somebody else has a word.
TEST(Channel, WhoHasLittleToSayWaitsForOneTurnOfThoseWhoHaveMuch) {
  // Never destroyed: the reactor goes on using it. With one thread, what is read between two events can be counted.
  [[maybe_unused]] const auto& kernel = *new testing::FewThreads(1);
  constexpr std::size_t kTalkers = 30;
  const auto word = wire::FrameHeader{0, wire::FrameType::call}.encode();
  const std::size_t framesOfATurn = (std::size_t{64} << 10) / word.size();
  std::vector<std::uint8_t> speech;
  for (std::size_t each = 0; each < 2 * framesOfATurn; ++each) speech.insert(speech.end(), word.begin(), word.end());

  // Of the one thread that reads.
  std::size_t frames = 0;
  std::size_t framesBefore = 0;
  std::set<std::size_t> heard;
  Inbox<std::size_t> framesMeanwhile;
  std::vector<std::shared_ptr<Channel>> channels;
  const auto hear = [&](system::Descriptor socket, std::function<void(std::size_t)> count) {
    channels.push_back(channelOf(std::move(socket), std::make_shared<Counting>(std::move(count))));
  };
  auto newcomer = testing::socketPair();
  hear(std::move(newcomer.second), [&](std::size_t) { framesMeanwhile.put(frames - framesBefore); });
  std::vector<system::Descriptor> talkers;
  for (std::size_t talker = 0; talker < kTalkers; ++talker) {
    auto [near, farther] = testing::socketPair();
    ASSERT_EQ(::write(near.get(), speech.data(), speech.size()), static_cast<ssize_t>(speech.size()));
    talkers.push_back(std::move(near));
    hear(std::move(farther), [&, talker](std::size_t count) {
      frames += count;
      if (heard.size() == kTalkers || !heard.insert(talker).second || heard.size() < kTalkers) return;
      framesBefore = frames;
      EXPECT_EQ(::write(newcomer.first.get(), word.data(), word.size()), static_cast<ssize_t>(word.size()));
    });
  }
  for (const auto& channel : channels) channel->start();
  // The rest of the turn in which it spoke, and the next.
  EXPECT_LE(framesMeanwhile.waitFor(1).front(), 2 * framesOfATurn);
  for (const auto& channel : channels) channel->abort();
}

// The child makes everything anew; the timer is not waited for.
TEST(Channel, WhatIsGatheredIsWrittenWhenTheProcessExits) {
  int ends[2] = {-1, -1};
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    const auto channel = channelOf(system::Descriptor(ends[1]), std::make_shared<Numbers>());
    channel->send(frameOf(1, 10), Haste::beforeFlush);
    std::exit(0);
  }
  ::close(ends[1]);
  char bytes[100];
  EXPECT_EQ(::recv(ends[0], bytes, sizeof bytes, MSG_WAITALL), 18);
  ::close(ends[0]);
  int status = -1;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status));
}

}  // namespace
}  // namespace velto::transport
