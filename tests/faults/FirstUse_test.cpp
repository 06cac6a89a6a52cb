// The threads, their epoll descriptor, their timer are made at the first use of a process. Each case is a process of
// its own, forked before this one has used anything of the platform.

#include <cerrno>
#include <cstdlib>

#include "tests/faults/Exchange.h"
#include "tests/faults/FaultPlan.h"
#include "tests/support/LibraryTest.h"

namespace velto::testing {
namespace {

using FirstUse = QuietTest;

void expectRecovery() {
  FaultPlan::shared().end();
  const Transcript after = runExchange();
  if (after.isWhole()) std::_Exit(0);
  std::fprintf(stderr, "afterwards:%s\n", after.description().c_str());
  std::_Exit(2);
}

void expectNothingBroken(const Transcript& transcript) {
  if (transcript.broken.empty()) return;
  std::fprintf(stderr, "under the fault:%s\n", transcript.description().c_str());
  std::_Exit(1);
}

// Never returns: 0 when every call had its end and the process recovered.
[[noreturn]] void useFirstWith(SystemCall call, std::size_t occurrence, int error) {
  FaultPlan::shared().plan(call, occurrence, error);
  expectNothingBroken(runExchange());
  if (!FaultPlan::shared().hasStruck()) std::_Exit(3);
  expectRecovery();
  std::abort();
}

// Never returns; the call fails for as long as the first exchange lasts.
[[noreturn]] void useFirstWithout(SystemCall call, int error) {
  FaultPlan::shared().alsoFail(call, error);
  const Transcript transcript = runExchange();
  expectNothingBroken(transcript);
  if (transcript.isWhole()) std::_Exit(4);
  expectRecovery();
  std::abort();
}

const std::vector<SystemCall> kMadeOnce{SystemCall::epollCreate, SystemCall::eventCounter, SystemCall::timer};

TEST_F(FirstUse, SurvivesThatEachOfItsObjectsCannotBeMadeOnce) {
  for (const SystemCall call : kMadeOnce) {
    const std::size_t objects = call == SystemCall::timer ? 1 : 2;
    for (std::size_t occurrence = 1; occurrence <= objects; ++occurrence) {
      for (const int error : {EMFILE, ENFILE, ENOMEM, ENODEV}) {
        EXPECT_EXIT(useFirstWith(call, occurrence, error), ::testing::ExitedWithCode(0), "")
            << nameOf(call) << " " << occurrence << " " << error;
      }
    }
  }
}

TEST_F(FirstUse, SurvivesThatItsObjectsCannotBeWatchedOnce) {
  for (std::size_t occurrence = 1; occurrence <= 4; ++occurrence) {
    for (const int error : {ENOMEM, ENOSPC}) {
      EXPECT_EXIT(useFirstWith(SystemCall::epollControl, occurrence, error), ::testing::ExitedWithCode(0), "");
    }
  }
}

TEST_F(FirstUse, TellsEverybodyWhileItsObjectsCannotBeMadeAndRecoversWhenTheyCan) {
  for (const SystemCall call : kMadeOnce) {
    EXPECT_EXIT(useFirstWithout(call, EMFILE), ::testing::ExitedWithCode(0), "") << nameOf(call);
  }
}

TEST_F(FirstUse, TellsEverybodyWhileNothingCanBeWatchedAndRecoversWhenItCan) {
  EXPECT_EXIT(useFirstWithout(SystemCall::epollControl, ENOMEM), ::testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace velto::testing
