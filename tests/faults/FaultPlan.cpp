// The script of the seam never changes; what it asks does.

#include "tests/faults/FaultPlan.h"

#include <utility>

namespace velto::testing {

FaultPlan& FaultPlan::shared() {
  static FaultPlan& made = *new FaultPlan;
  return made;
}

FaultPlan::FaultPlan()
    : scripted_(std::make_unique<ScriptedSystemCalls>(
          [this](SystemCall call, int descriptor) { return judge(call, descriptor); })) {}

std::shared_ptr<const ScriptedSystemCalls::Script> FaultPlan::script() {
  MutexLock lock(mutex_);
  return script_;
}

void FaultPlan::setScript(ScriptedSystemCalls::Script script) {
  auto made = script ? std::make_shared<const ScriptedSystemCalls::Script>(std::move(script)) : nullptr;
  MutexLock lock(mutex_);
  std::swap(script_, made);
}

Verdict FaultPlan::judge(SystemCall call, int descriptor) {
  counts_.at(static_cast<std::size_t>(call)).fetch_add(1);
  const auto asked = script();
  return asked ? (*asked)(call, descriptor) : Verdict::pass();
}

void FaultPlan::plan(ScriptedSystemCalls::Script script) {
  struck_ = false;
  for (auto& count : counts_) count = 0;
  setScript(std::move(script));
}

void FaultPlan::plan(SystemCall call, std::size_t occurrence, int error, Selection selection) {
  const auto left = std::make_shared<std::atomic<std::size_t>>(occurrence);
  plan([this, call, error, selection, left](SystemCall made, int descriptor) {
    if (made != call || !selection(descriptor) || left->fetch_sub(1) != 1) return Verdict::pass();
    struck_ = true;
    return Verdict::fail(error);
  });
}

void FaultPlan::alsoFail(SystemCall call, int error) {
  setScript([before = script(), call, error](SystemCall made, int descriptor) {
    if (made == call) return Verdict::fail(error);
    return before ? (*before)(made, descriptor) : Verdict::pass();
  });
}

void FaultPlan::end() {
  setScript({});
}

}  // namespace velto::testing
