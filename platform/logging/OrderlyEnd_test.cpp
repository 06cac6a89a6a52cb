#include "platform/logging/OrderlyEnd.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/foundation/Foundation.h"
#include "platform/logging/DeferredLog.h"
#include "platform/logging/StandardErrorTest.h"

namespace {

using velto::OrderlyEnd;

class TellingOfAnEnd : public testing::Test {
 protected:
  TellingOfAnEnd() { VKTLogSetLevel(VKTLogLevelFailure); }
  ~TellingOfAnEnd() override {
    VKTLogSetSink(nullptr);
    VKTLogSetLevel(VKTLogLevelFailure);
  }

  static void tell(const char* text) { velto::logEnd(VKTLogGetAnchor(), VKTLogLevelFailure, "%s", text); }

  velto::testing::StandardErrorPipe pipe_;
};

TEST_F(TellingOfAnEnd, TheDefaultSinkLeavesOutOneInGoodOrder) {
  tell("before");
  {
    const OrderlyEnd told(true);
    tell("during");
    VKTLoggingLog(VKTLogGetAnchor(), VKTLogLevelFailure, "something else");
  }
  tell("after");
  EXPECT_EQ(pipe_.readSome(), "VeltoIPC: before\nVeltoIPC: something else\nVeltoIPC: after\n");
}

TEST_F(TellingOfAnEnd, TheInnermostScopeCounts) {
  const OrderlyEnd outer(true);
  {
    const OrderlyEnd inner(false);
    EXPECT_FALSE(OrderlyEnd::isToldNow());
    tell("inside");
  }
  EXPECT_TRUE(OrderlyEnd::isToldNow());
  tell("outside");
  EXPECT_EQ(pipe_.readSome(), "VeltoIPC: inside\n");
}

TEST_F(TellingOfAnEnd, WithProgressTheDefaultSinkShowsItAll) {
  VKTLogSetLevel(VKTLogLevelProgress);
  const OrderlyEnd told(true);
  tell("in good order");
  EXPECT_EQ(pipe_.readSome(), "VeltoIPC: in good order\n");
}

TEST_F(TellingOfAnEnd, ASinkOfTheProgramGetsItAll) {
  std::vector<std::string> lines;
  VKTLogSetSink([&](const VKTLogAnchor&, int, const NSString& text) { lines.push_back(text.string()); });
  {
    const OrderlyEnd told(true);
    tell("at once");
    const velto::LogDeferral deferral;
    tell("later");
  }
  EXPECT_EQ(lines, (std::vector<std::string>{"at once", "later"}));
  VKTLogSetSink(nullptr);
  const OrderlyEnd told(true);
  tell("left out again");
  EXPECT_EQ(pipe_.readSome(), "");
}

TEST_F(TellingOfAnEnd, ALineThatComesLaterIsWhatItWas) {
  {
    const velto::LogDeferral deferral;
    tell("shown");
    const OrderlyEnd told(true);
    tell("left out");
  }
  EXPECT_EQ(pipe_.readSome(), "VeltoIPC: shown\n");
}

TEST_F(TellingOfAnEnd, NothingIsWrittenBelowItsLevel) {
  VKTLogSetLevel(VKTLogLevelOff);
  tell("unseen");
  EXPECT_EQ(pipe_.readSome(), "");
}

}  // namespace
