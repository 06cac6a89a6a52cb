#include "platform/logging/VeltoLogging.h"

#include <cerrno>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/foundation/Foundation.h"

namespace {

struct Line {
  VKTLogAnchor anchor;
  int level;
  std::string text;
};

// Collects lines for the time of a test, and puts everything back as it was.
class VeltoLogging : public testing::Test {
 protected:
  VeltoLogging() {
    VKTLogSetSink([this](const VKTLogAnchor& anchor, int level, const NSString& text) {
      lines.push_back({anchor, level, text.string()});
    });
  }
  ~VeltoLogging() override {
    VKTLogSetSink(nullptr);
    VKTLogSetLevel(VKTLogLevelFailure);
  }

  std::vector<Line> lines;
};

class CountingBody final : public velto::ObjectBody {
 public:
  explicit CountingBody(int& described) : described_(described) {}
  const velto::ClassBody& classBody() const override { return velto::classBodyOf<NSObject>(); }
  void describe(std::string& out, velto::WalkBound&) const override {
    ++described_;
    out += "counted";
  }

 private:
  int& described_;
};
class Counting : public NSObject {
 public:
  explicit Counting(int& described) : NSObject(new CountingBody(described)) {}
};

TEST_F(VeltoLogging, HandsTheSinkTheAnchorTheLevelAndTheText) {
  VKTLoggingLog(VKTLogGetAnchor(), VKTLogLevelFailure, "%@ failed %d times", NSString("call"), 3);
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].text, "call failed 3 times");
  EXPECT_EQ(lines[0].level, VKTLogLevelFailure);
  EXPECT_EQ(lines[0].anchor.function().string(), "TestBody");
}

TEST_F(VeltoLogging, DropsLinesAboveTheLevelUnformatted) {
  int described = 0;
  const Counting counting(described);
  VKTLoggingLog(VKTLogGetAnchor(), VKTLogLevelProgress, "%@", counting);
  VKTLoggingLog(VKTLogGetAnchor(), VKTLogLevelFailure + 1, "%@", counting);
  EXPECT_TRUE(lines.empty());
  EXPECT_EQ(described, 0);
  VKTLogSetLevel(VKTLogLevelProgress);
  VKTLoggingLog(VKTLogGetAnchor(), VKTLogLevelProgress, "%@", counting);
  VKTLoggingLog(VKTLogGetAnchor(), VKTLogLevelProgress + 1, "%@", counting);
  EXPECT_EQ(lines.size(), 1u);
  EXPECT_EQ(described, 1);
  VKTLogSetLevel(VKTLogLevelFailure - 1);
  VKTLoggingLog(VKTLogGetAnchor(), VKTLogLevelFailure, "%@", counting);
  EXPECT_EQ(lines.size(), 1u);
}

TEST_F(VeltoLogging, TakesNilAnchorsAndFormats) {
  VKTLoggingLog(nil, VKTLogLevelFailure, nullptr);
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_TRUE(lines[0].anchor.isNil());
  EXPECT_EQ(lines[0].text, "");
}

TEST_F(VeltoLogging, ASinkThatRaisesLosesItsLineAndNothingElse) {
  VKTLogSetSink([](const VKTLogAnchor&, int, const NSString&) { throw std::runtime_error("no"); });
  VKTLoggingLog(VKTLogGetAnchor(), VKTLogLevelFailure, "lost");
  VKTLogSetSink([](const VKTLogAnchor&, int, const NSString&) { throw 7; });
  VKTLoggingLog(VKTLogGetAnchor(), VKTLogLevelFailure, "lost");
  VKTLogSetSink([this](const VKTLogAnchor& anchor, int level, const NSString& text) {
    lines.push_back({anchor, level, text.string()});
  });
  VKTLoggingLog(VKTLogGetAnchor(), VKTLogLevelFailure, "found");
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].text, "found");
}

TEST_F(VeltoLogging, LeavesTheErrorNumberAlone) {
  VKTLogSetSink([](const VKTLogAnchor&, int, const NSString&) { errno = EIO; });
  errno = EAGAIN;
  VKTLoggingLog(VKTLogGetAnchor(), VKTLogLevelFailure, "line");
  EXPECT_EQ(errno, EAGAIN);
}

}  // namespace
