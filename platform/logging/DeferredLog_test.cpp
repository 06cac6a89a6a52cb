#include "platform/logging/DeferredLog.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <future>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "platform/foundation/Foundation.h"
#include "platform/logging/DeferredLines.h"

namespace {

using velto::DeferredLines;
using velto::LogDeferral;
using Lines = std::vector<std::string>;

std::atomic<int> timesAsked{0};

void askForDraining() {
  ++timesAsked;
}

void log(const NSObject& object) {
  VKTLoggingLog(VKTLogGetAnchor(), VKTLogLevelFailure, "%@", object);
}

class DeferredLog : public testing::Test {
 protected:
  DeferredLog() {
    timesAsked = 0;
    VKTLogSetSink([this](const VKTLogAnchor&, int, const NSString& text) { lines_.push_back(text.string()); });
  }
  ~DeferredLog() override {
    velto::setLogDrainer(nullptr);
    velto::drainDeferredLog();
    VKTLogSetSink(nullptr);
  }

  Lines lines_;
};

TEST_F(DeferredLog, ALineWaitsUntilItIsDrained) {
  velto::setLogDrainer(askForDraining);
  {
    const LogDeferral deferral;
    log("a");
    log("b");
  }
  EXPECT_EQ(lines_, Lines());
  velto::drainDeferredLog();
  EXPECT_EQ(lines_, (Lines{"a", "b"}));
  log("c");
  EXPECT_EQ(lines_, (Lines{"a", "b", "c"}));
}

TEST_F(DeferredLog, TheDrainerIsToldOnceAndWhenTheOutermostScopeEnds) {
  velto::setLogDrainer(askForDraining);
  {
    const LogDeferral outer;
    {
      const LogDeferral inner;
      log("a");
    }
    EXPECT_TRUE(velto::isLogDeferred());
    velto::logLater(VKTLogGetAnchor(), VKTLogLevelFailure, "b");
    EXPECT_EQ(timesAsked, 0);
  }
  EXPECT_FALSE(velto::isLogDeferred());
  EXPECT_EQ(timesAsked, 1);
  { const LogDeferral nothingLogged; }
  velto::logLater(VKTLogGetAnchor(), VKTLogLevelFailure, "c");
  EXPECT_EQ(timesAsked, 1);
  velto::drainDeferredLog();
  EXPECT_EQ(lines_, (Lines{"a", "b", "c"}));
  velto::logLater(VKTLogGetAnchor(), VKTLogLevelFailure, "d");
  EXPECT_EQ(timesAsked, 2);
}

TEST_F(DeferredLog, ADrainerThatIsInstalledIsToldOfWhatWaits) {
  velto::setLogDrainer([] {});
  velto::logLater(VKTLogGetAnchor(), VKTLogLevelFailure, "a");
  velto::setLogDrainer(askForDraining);
  EXPECT_EQ(timesAsked, 1);
  velto::drainDeferredLog();
  velto::setLogDrainer(askForDraining);
  EXPECT_EQ(timesAsked, 1);
  EXPECT_EQ(lines_, Lines{"a"});
}

TEST_F(DeferredLog, WithoutADrainerTheLinesAreWrittenWhenTheScopeEnds) {
  {
    const LogDeferral deferral;
    log("a");
    EXPECT_EQ(lines_, Lines());
  }
  EXPECT_EQ(lines_, Lines{"a"});
  velto::logLater(VKTLogGetAnchor(), VKTLogLevelFailure, "%s", "b");
  EXPECT_EQ(lines_, (Lines{"a", "b"}));
}

TEST_F(DeferredLog, ALineIsFormattedWhereItIsLogged) {
  NSMutableString text = NSMutableString::string();
  text.appendString("before");
  {
    const LogDeferral deferral;
    log(text);
    text.appendString(" and after");
  }
  EXPECT_EQ(lines_, Lines{"before"});
}

TEST_F(DeferredLog, LinesAboveTheLevelAreDropped) {
  velto::logLater(VKTLogGetAnchor(), VKTLogLevelProgress, "a");
  EXPECT_EQ(lines_, Lines());
}

TEST_F(DeferredLog, WhatFindsNoRoomIsCounted) {
  velto::setLogDrainer(askForDraining);
  {
    const LogDeferral deferral;
    for (std::size_t each = 0; each < DeferredLines::kMaximumLines + 3; ++each) log(NSNumber(each));
  }
  velto::drainDeferredLog();
  ASSERT_EQ(lines_.size(), DeferredLines::kMaximumLines + 1);
  EXPECT_EQ(lines_[DeferredLines::kMaximumLines - 1], std::to_string(DeferredLines::kMaximumLines - 1));
  EXPECT_EQ(lines_.back(), "3 lines were lost");
  velto::logLater(VKTLogGetAnchor(), VKTLogLevelFailure, "again");
  velto::drainDeferredLog();
  EXPECT_EQ(lines_.back(), "again");
}

TEST_F(DeferredLog, LongLinesAreCutAndHaveABoundInAll) {
  constexpr std::size_t kLongest = std::size_t{16} * 1024;
  constexpr std::size_t kFitting = DeferredLines::kMaximumTextBytes / kLongest;
  velto::setLogDrainer(askForDraining);
  {
    const LogDeferral deferral;
    for (std::size_t each = 0; each <= kFitting; ++each) log(std::string(100'000, 'x'));
  }
  velto::drainDeferredLog();
  ASSERT_EQ(lines_.size(), kFitting + 1);
  EXPECT_EQ(lines_[0], std::string(kLongest, 'x'));
  EXPECT_EQ(lines_.back(), "1 line was lost");
}

// Its description cannot be made.
class HopelessBody final : public velto::ObjectBody {
 public:
  const velto::ClassBody& classBody() const override { return velto::classBodyOf<NSObject>(); }
  void describe(std::string&, velto::WalkBound&) const override { throw 7; }
};
class Hopeless : public NSObject {
 public:
  Hopeless() : NSObject(new HopelessBody) {}
};

TEST_F(DeferredLog, ALineThatCannotBeMadeIsCounted) {
  const Hopeless hopeless;
  {
    const LogDeferral deferral;
    log(hopeless);
    log("a");
    log(hopeless);
  }
  EXPECT_EQ(lines_, (Lines{"a", "2 lines were lost"}));
}

// Its description logs.
class TalkativeBody final : public velto::ObjectBody {
 public:
  const velto::ClassBody& classBody() const override { return velto::classBodyOf<NSObject>(); }
  void describe(std::string& out, velto::WalkBound&) const override {
    log("from inside");
    out += "talkative";
  }
};
class Talkative : public NSObject {
 public:
  Talkative() : NSObject(new TalkativeBody) {}
};

TEST_F(DeferredLog, WhatADescriptionLogsIsDropped) {
  {
    const LogDeferral deferral;
    log(Talkative());
  }
  EXPECT_EQ(lines_, Lines{"talkative"});
}

TEST_F(DeferredLog, ASinkThatRaisesLosesItsLineAndNothingElse) {
  VKTLogSetSink([this](const VKTLogAnchor&, int, const NSString& text) {
    if (text.string() == "b") throw std::runtime_error("no");
    lines_.push_back(text.string());
  });
  errno = EAGAIN;
  {
    const LogDeferral deferral;
    for (const char* text : {"a", "b", "c"}) log(text);
  }
  EXPECT_EQ(errno, EAGAIN);
  EXPECT_EQ(lines_, (Lines{"a", "c"}));
}

TEST_F(DeferredLog, ASinkMayDrainAndDeferAndIsNotEnteredAgain) {
  int inside = 0;
  VKTLogSetSink([&](const VKTLogAnchor&, int, const NSString& text) {
    EXPECT_EQ(++inside, 1);
    lines_.push_back(text.string());
    velto::logLater(VKTLogGetAnchor(), VKTLogLevelFailure, "dropped");
    velto::drainDeferredLog();
    --inside;
  });
  {
    const LogDeferral deferral;
    log("a");
    log("b");
  }
  log("c");
  EXPECT_EQ(lines_, (Lines{"a", "b", "c"}));
}

TEST_F(DeferredLog, ASinkThatDrainsLeavesWhatWaitsWhereItIs) {
  velto::setLogDrainer(askForDraining);
  velto::logLater(VKTLogGetAnchor(), VKTLogLevelFailure, "a");
  VKTLogSetSink([&](const VKTLogAnchor&, int, const NSString& text) {
    lines_.push_back(text.string());
    velto::drainDeferredLog();
  });
  log("b");
  EXPECT_EQ(lines_, Lines{"b"});
  velto::drainDeferredLog();
  EXPECT_EQ(lines_, (Lines{"b", "a"}));
}

TEST_F(DeferredLog, ASinkThatBlocksHoldsOnlyTheDrainer) {
  std::promise<void> entered;
  std::promise<void> mayGo;
  VKTLogSetSink([&](const VKTLogAnchor&, int, const NSString& text) {
    lines_.push_back(text.string());
    if (text.string() != "a") return;
    entered.set_value();
    mayGo.get_future().wait();
  });
  velto::setLogDrainer(askForDraining);
  velto::logLater(VKTLogGetAnchor(), VKTLogLevelFailure, "a");
  std::thread drainer(velto::drainDeferredLog);
  entered.get_future().wait();
  std::mutex held;
  for (int each = 0; each < 100; ++each) {
    const LogDeferral deferral;
    const std::lock_guard<std::mutex> lock(held);
    log("b");
  }
  velto::drainDeferredLog();  // somebody is at it
  EXPECT_EQ(timesAsked, 1);
  mayGo.set_value();
  drainer.join();
  EXPECT_EQ(lines_, Lines{"a"});
  // What came meanwhile is another turn's.
  EXPECT_EQ(timesAsked, 2);
  velto::drainDeferredLog();
  EXPECT_EQ(lines_.size(), 101u);
}

TEST_F(DeferredLog, WithoutADrainerWhoeverWritesTakesWhatOthersDeferMeanwhile) {
  std::promise<void> entered;
  std::promise<void> mayGo;
  VKTLogSetSink([&](const VKTLogAnchor&, int, const NSString& text) {
    lines_.push_back(text.string());
    if (text.string() != "a") return;
    entered.set_value();
    mayGo.get_future().wait();
  });
  std::thread writer([] { velto::logLater(VKTLogGetAnchor(), VKTLogLevelFailure, "a"); });
  entered.get_future().wait();
  velto::logLater(VKTLogGetAnchor(), VKTLogLevelFailure, "b");
  mayGo.set_value();
  writer.join();
  EXPECT_EQ(lines_, (Lines{"a", "b"}));
}

TEST_F(DeferredLog, ManyThreadsDeferAndEachOnesLinesStayInOrder) {
  constexpr int kThreads = 4;
  constexpr int kRounds = 250;  // all of them have room
  std::vector<std::vector<int>> seen(kThreads);
  VKTLogSetSink([&](const VKTLogAnchor&, int level, const NSString& text) {
    seen[static_cast<std::size_t>(-level)].push_back(std::stoi(text.string()));
  });
  std::vector<std::thread> threads;
  for (int each = 0; each < kThreads; ++each) {
    threads.emplace_back([each] {
      for (int round = 0; round < kRounds; ++round) velto::logLater(VKTLogGetAnchor(), -each, "%d", round);
    });
  }
  for (std::thread& thread : threads) thread.join();
  velto::drainDeferredLog();
  std::size_t total = 0;
  for (const std::vector<int>& lines : seen) {
    EXPECT_TRUE(std::is_sorted(lines.begin(), lines.end()));
    total += lines.size();
  }
  EXPECT_EQ(total, std::size_t{kThreads * kRounds});
}

TEST(DeferredLines, WhoDoesNotComeIsAskedAgain) {
  using namespace std::chrono_literals;
  const auto made = std::make_unique<DeferredLines>();
  DeferredLines& lines = *made;
  DeferredLines::Time now{1000s};
  EXPECT_FALSE(lines.mustAsk(now));
  lines.countLost(1);
  EXPECT_TRUE(lines.mustAsk(now));
  EXPECT_FALSE(lines.mustAsk(now + 999ms));
  EXPECT_TRUE(lines.mustAsk(now + 1s));
  ASSERT_TRUE(lines.begin());
  EXPECT_FALSE(lines.begin());
  EXPECT_FALSE(lines.mustAsk(now + 10s));
  lines.finish();
  EXPECT_TRUE(lines.mustAsk(now + 1s));
}

}  // namespace
