#include "platform/logging/LogSink.h"

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include "platform/foundation/Foundation.h"
#include "platform/foundation/testing/Sanitizers.h"
#include "platform/logging/DeferredLog.h"

namespace {

void log() {
  VKTLoggingLog(VKTLogGetAnchor(), VKTLogLevelFailure, "line");
}

class LogSink : public testing::Test {
 protected:
  // What no sink of the test sees is nobody's.
  LogSink() {
    VKTLogSetSink([](const VKTLogAnchor&, int, const NSString&) {});
  }
  ~LogSink() override { VKTLogSetSink(nullptr); }
};

TEST_F(LogSink, ALineThatASinkLogsItselfIsDropped) {
  int lines = 0;
  VKTLogSetSink([&](const VKTLogAnchor&, int, const NSString&) {
    ++lines;
    log();
  });
  log();
  log();
  EXPECT_EQ(lines, 2);
}

TEST_F(LogSink, ASinkMayReplaceItself) {
  int first = 0;
  int second = 0;
  const auto captured = std::make_shared<int>(0);
  VKTLogSetSink([&, captured](const VKTLogAnchor&, int, const NSString&) {
    ++first;
    VKTLogSetSink([&](const VKTLogAnchor&, int, const NSString&) { ++second; });
    ++*captured;  // still alive, although replaced
  });
  log();
  EXPECT_EQ(*captured, 1);
  EXPECT_EQ(captured.use_count(), 1);
  log();
  EXPECT_EQ(first, 1);
  EXPECT_EQ(second, 1);
}

TEST_F(LogSink, ASinkMayReplaceItselfTwiceInOneCall) {
  int last = 0;
  VKTLogSetSink([&](const VKTLogAnchor&, int, const NSString&) {
    const auto never = [](const VKTLogAnchor&, int, const NSString&) { ADD_FAILURE(); };
    VKTLogSetSink(never);
    VKTLogSetSink([&](const VKTLogAnchor&, int, const NSString&) { ++last; });
  });
  log();
  log();
  EXPECT_EQ(last, 1);
}

TEST_F(LogSink, WhatASinkCapturedIsLetGoOfBeforeReplacingReturns) {
  const auto captured = std::make_shared<int>(0);
  VKTLogSetSink([captured](const VKTLogAnchor&, int, const NSString&) {});
  log();
  VKTLogSetSink(nullptr);
  EXPECT_EQ(captured.use_count(), 1);
}

TEST_F(LogSink, WhatASinkCapturedMayLogAsItGoes) {
  int lines = 0;
  const auto count = [&](const VKTLogAnchor&, int, const NSString&) { ++lines; };
  {
    const std::shared_ptr<void> logsAtItsEnd(nullptr, [](void*) { log(); });
    VKTLogSetSink([logsAtItsEnd](const VKTLogAnchor&, int, const NSString&) {});
  }
  VKTLogSetSink(count);
  EXPECT_EQ(lines, 1);
}

// Each sink is gone the moment that it has been replaced; a thread still inside it would notice.
TEST_F(LogSink, NoThreadIsInsideTheFormerSinkOnceItIsReplaced) {
  std::atomic<bool> stop{false};
  std::atomic<int> lines{0};
  std::atomic<int> insideADeadOne{0};
  std::vector<std::thread> loggers;
  for (int each = 0; each < 3; ++each) {
    loggers.emplace_back([&] {
      while (!stop) log();
    });
  }
  for (int round = 0; round < 500; ++round) {
    std::atomic<bool> alive{true};
    const int before = lines;
    VKTLogSetSink([&](const VKTLogAnchor&, int, const NSString&) {
      if (!alive) ++insideADeadOne;
      ++lines;
      std::this_thread::yield();
      if (!alive) ++insideADeadOne;
    });
    while (lines == before) std::this_thread::yield();
    VKTLogSetSink([](const VKTLogAnchor&, int, const NSString&) {});
    alive = false;
  }
  stop = true;
  for (std::thread& thread : loggers) thread.join();
  EXPECT_EQ(insideADeadOne, 0);
}

constexpr bool kAllocatorWaitsForForks = !velto::testing::kAddressSanitizer;

// Other threads hold every lock of logging for moments, and are inside the sink; in the child of a fork none of them
// is.
TEST_F(LogSink, TheChildOfAForkLogsAndReplacesWhateverItsParentWasDoing) {
  std::atomic<bool> stop{false};
  std::vector<std::thread> threads;
  for (int each = 0; each < 3; ++each) {
    threads.emplace_back([&] {
      while (!stop) {
        log();
        velto::writeToStandardError(nil, VKTLogLevelFailure, "line");
        velto::logLater(VKTLogGetAnchor(), VKTLogLevelFailure, "line");
      }
    });
  }
  VKTLogSetSink([](const VKTLogAnchor&, int, const NSString&) { std::this_thread::yield(); });
  // The allocator of the address sanitizer is none that a fork waits for: now and then it is held for ever in the
  // child.
  constexpr int kRounds = kAllocatorWaitsForForks ? 500 : 50;
  int good = 0;
  for (int round = 0; round < kRounds; ++round) {
    const pid_t child = fork();
    if (child == 0) {
      alarm(30);
      int lines = 0;
      velto::logLater(VKTLogGetAnchor(), VKTLogLevelFailure, "line");
      velto::writeToStandardError(nil, VKTLogLevelFailure, "line");
      VKTLogSetSink([&](const VKTLogAnchor&, int, const NSString&) { ++lines; });
      log();
      velto::drainDeferredLog();
      velto::logLater(VKTLogGetAnchor(), VKTLogLevelFailure, "line");
      _exit(lines == 2 ? 0 : 1);
    }
    int status = -1;
    waitpid(child, &status, 0);
    if (status == 0) ++good;
  }
  stop = true;
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(good, kRounds);
}

TEST_F(LogSink, ManyThreadsMayReplaceAndLogAtOnce) {
  std::atomic<int> lines{0};
  std::vector<std::thread> threads;
  for (int each = 0; each < 4; ++each) {
    threads.emplace_back([&] {
      for (int round = 0; round < 500; ++round) {
        VKTLogSetSink([&](const VKTLogAnchor&, int, const NSString&) {
          ++lines;
          if (lines % 7 == 0) VKTLogSetSink([&](const VKTLogAnchor&, int, const NSString&) { ++lines; });
        });
        log();
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(lines, 2000);
}

}  // namespace
