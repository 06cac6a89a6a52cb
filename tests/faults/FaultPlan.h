#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <functional>
#include <memory>

#include "platform/foundation/ThreadAnnotations.h"
#include "tests/support/ScriptedSystemCalls.h"

namespace velto::testing {

// Which system call fails, when, and how. While nothing is planned every call goes to the kernel, and is counted.
//
// One for the whole process, made at first use and never destroyed: threads of the platform sleep inside the system
// calls that it judges.
class FaultPlan {
 public:
  static FaultPlan& shared();

  // From now on: the `occurrence`th of these calls (from 1) fails with the error; those on other descriptors do not
  // count.
  using Selection = bool (*)(int descriptor);
  static bool anyDescriptor(int) { return true; }
  void plan(SystemCall call, std::size_t occurrence, int error, Selection selection = anyDescriptor);
  // Besides that, every one of these.
  void alsoFail(SystemCall call, int error);
  // From now on: what the script says.
  void plan(ScriptedSystemCalls::Script script);
  // From now on nothing fails. The counts stay.
  void end();

  // Calls of this kind since the last plan began.
  std::size_t count(SystemCall call) const { return counts_.at(static_cast<std::size_t>(call)); }
  // Whether what was planned has happened.
  bool hasStruck() const { return struck_; }

 private:
  FaultPlan();
  Verdict judge(SystemCall call, int descriptor);
  std::shared_ptr<const ScriptedSystemCalls::Script> script();
  void setScript(ScriptedSystemCalls::Script script);

  std::array<std::atomic<std::size_t>, kSystemCallCount> counts_{};
  std::atomic<bool> struck_{false};
  Mutex mutex_;
  std::shared_ptr<const ScriptedSystemCalls::Script> script_ VELTO_GUARDED_BY(mutex_);
  std::unique_ptr<ScriptedSystemCalls> scripted_;
};

}  // namespace velto::testing
