// Every system call of an exchange fails once, in each of its occurrences and with each of its errors. Whatever comes
// of it: no call without exactly one end, no handler that is missing, no descriptor lost, nothing left under a name;
// and the next exchange of the same process is whole.

#include <algorithm>
#include <filesystem>
#include <set>

#include "platform/xpc/NSXPCError.h"
#include "tests/faults/FaultTable.h"
#include "tests/faults/FaultTest.h"

namespace velto::testing {
namespace {

class SystemCalls : public FaultTest, public ::testing::WithParamInterface<SystemCall> {
 protected:
  // How often an exchange makes the call.
  std::size_t occurrencesIn(const Fault& fault) {
    std::atomic<std::size_t> seen{0};
    plan.plan([&](SystemCall call, int descriptor) {
      if (call == fault.call && fault.selection(descriptor)) ++seen;
      return Verdict::pass();
    });
    expectWhole("counting");
    expectAtRest("counting");
    plan.end();
    return seen;
  }

  void fail(const Fault& fault, std::size_t occurrence, int error) {
    const std::string when = nameOf(fault.call) + " " + std::to_string(occurrence) + " fails with " + strerror(error);
    log.clear();
    plan.plan(fault.call, occurrence, error, fault.selection);
    const Transcript transcript = runExchange();
    expectAtRest(when);
    plan.end();
    struck_ += plan.hasStruck() ? 1 : 0;
    expectNothingBroken(transcript, when);
    expectEffect(fault, transcript, when);
    expectNothingLeft(fault, when);
    expectWhole("after " + when);
    expectAtRest("after " + when);
  }

  void expectEffect(const Fault& fault, const Transcript& transcript, const std::string& when) {
    const auto failures = transcript.failures();
    if (!plan.hasStruck() || fault.effect == Effect::none) {
      EXPECT_TRUE(transcript.isWhole()) << when << ":" << transcript.description();
    } else if (fault.effect == Effect::reported) {
      EXPECT_FALSE(failures.empty()) << when << ", and nobody was told";
    }
    for (const Step& step : failures) expectReport(fault, step, when);
  }

  // The right one is told, in the right way.
  void expectReport(const Fault& fault, const Step& step, const std::string& when) {
    static const std::set<std::string> reportedByHandlers{"serve", "give", "find"};
    if (step.error) {
      EXPECT_EQ(step.error.domain(), NSXPCErrorDomain) << when << ", " << step.name;
      EXPECT_TRUE(std::ranges::find(fault.codes, step.error.code()) != fault.codes.end())
          << when << ", " << step.name << ": " << step.error.description().view();
      EXPECT_FALSE(step.error.localizedDescription().isNil()) << when << ", " << step.name;
    } else {
      EXPECT_FALSE(reportedByHandlers.contains(step.name)) << when << ", " << step.name << ": " << step.text;
    }
    if (step.name == "offer") {
      EXPECT_FALSE(log.containing(0, "An anonymous listener cannot be made").empty()) << when;
    }
  }

  void expectNothingLeft(const Fault& fault, const std::string& when) {
    // What the kernel does not let go of stays.
    if (fault.call == SystemCall::unlinkAt) return;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(directory.path())) {
      EXPECT_FALSE(entry.path().filename().string().starts_with(".velto")) << when << ": " << entry.path();
    }
  }

  std::size_t struck_ = 0;
};

TEST_P(SystemCalls, FailsOnceInEachOccurrenceAndWithEachError) {
  for (const Fault& fault : allFaults()) {
    if (fault.call != GetParam()) continue;
    const std::size_t occurrences = occurrencesIn(fault);
    ASSERT_GT(occurrences, 0u) << "an exchange never makes the call";
    for (std::size_t occurrence = 1; occurrence <= occurrences; ++occurrence) {
      for (const int error : fault.errors) fail(fault, occurrence, error);
    }
  }
  EXPECT_GT(struck_, 0u);
}

INSTANTIATE_TEST_SUITE_P(Seam, SystemCalls, ::testing::ValuesIn(callsOfTheTable()),
                         [](const auto& information) { return nameOf(information.param); });

TEST(SystemCallsOfTheSeam, AreAllInTheTableOrHaveATestOfTheirOwn) {
  const auto inTable = callsOfTheTable();
  for (std::size_t number = 0; number < kSystemCallCount; ++number) {
    const auto call = static_cast<SystemCall>(number);
    const bool isInTable = std::ranges::find(inTable, call) != inTable.end();
    const bool isApart = std::ranges::find(callsApart(), call) != callsApart().end();
    EXPECT_NE(isInTable, isApart) << nameOf(call);
  }
}

}  // namespace
}  // namespace velto::testing
