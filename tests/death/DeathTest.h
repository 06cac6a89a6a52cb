#pragma once

#include <functional>
#include <string>
#include <vector>

#include "tests/death/DyingProcess.h"
#include "tests/death/Heard.h"
#include "tests/support/Census.h"
#include "tests/support/LibraryTest.h"

namespace velto::testing {

// A test that goes through every step of a process: at each, the process is killed, or stopped and continued; before,
// during and after the step.
class DeathTest : public QuietTest, public ::testing::WithParamInterface<DeathPlan::Way> {
 protected:
  // What came of one life: whether it died or halted as planned, and the steps it had made when it was last asked.
  struct Life {
    bool hasMetItsPlan = false;
    std::vector<std::string> steps;
  };

  DeathPlan::Way way() const { return GetParam(); }
  bool stops() const { return way() == DeathPlan::Way::stop; }

  // Ends a life: no question may be put to the process after this.
  static Life endOf(DyingProcess& process, HaltWatch& watch) {
    Life life;
    life.steps = process.steps();
    life.hasMetItsPlan = watch.finish() || process.isDead();
    return life;
  }

  // `live` goes through one life and compares what the survivor heard with the table. A life without a plan tells which
  // steps there are.
  void goThrough(std::span<const Row> table, const std::vector<std::string_view>& exceptions,
                 const std::function<Life(const DeathPlan&)>& live) {
    // Threads share the work differently each time, and a life may have a step more or less than the one before: a row
    // that is due for one step only may be missed once.
    constexpr int kRounds = 10;
    for (int round = 0; round < kRounds && !HasFailure(); ++round) {
      log.clear();
      const Life whole = live({});
      ASSERT_FALSE(whole.hasMetItsPlan);
      ASSERT_GT(whole.steps.size(), 5u);
      for (const auto moment : {DeathPlan::Moment::before, DeathPlan::Moment::during, DeathPlan::Moment::after}) {
        goThrough(whole.steps, moment, live);
      }
      EXPECT_GT(plansMet_, whole.steps.size());
      if (stops() || seen.missing(table, exceptions).empty()) return;
    }
    EXPECT_EQ(seen.missing(table, exceptions), "") << "no life met these rows";
  }

  RowsSeen seen;

 private:
  void goThrough(const std::vector<std::string>& steps, DeathPlan::Moment moment,
                 const std::function<Life(const DeathPlan&)>& live) {
    for (std::size_t number = 1; number <= steps.size() && !HasFailure(); ++number) {
      const std::string& step = steps[number - 1];
      if (moment == DeathPlan::Moment::during && step != "sendMessage") continue;
      SCOPED_TRACE(nameOf(way()) + " " + nameOf(moment) + " step " + std::to_string(number) + ": " + step);
      log.clear();
      const Life life = live({way(), number, moment});
      EXPECT_TRUE(life.hasMetItsPlan || life.steps.size() < number);
      if (life.hasMetItsPlan) ++plansMet_;
      if (descriptors_ == 0) descriptors_ = openDescriptors();
      EXPECT_TRUE(eventually([&] { return openDescriptors() <= descriptors_; })) << "descriptors are left open";
    }
  }

  std::size_t plansMet_ = 0;
  std::size_t descriptors_ = 0;
};

inline const auto kWays = ::testing::Values(DeathPlan::Way::kill, DeathPlan::Way::stop);
inline std::string printWay(const ::testing::TestParamInfo<DeathPlan::Way>& information) {
  return nameOf(information.param);
}

}  // namespace velto::testing
