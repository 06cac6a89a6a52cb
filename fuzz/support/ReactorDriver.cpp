// The reactor's threads are counted, and one is started whenever none stands ready to read. The fuzzer's thread enters
// itself in that count as the one that always does, and as those that stand by for what is urgent, and then does what a
// thread of the reactor does between two waits. Nothing public offers that, rightly; so this file alone is compiled
// without access control.

#include "fuzz/support/ReactorDriver.h"

#include <cstdint>
#include <utility>
#include <vector>

#include "fuzz/support/FakeKernel.h"
#include "fuzz/support/Require.h"
#include "platform/xpc/transport/OwnReading.h"
#include "platform/xpc/transport/Reactor.h"

namespace velto::fuzzing {

using transport::Reactor;
using transport::TimerQueue;

namespace {

// A callback of a fuzzer may deal with events itself.
constexpr std::size_t kThreads = 64;

bool hasTurns(transport::LaterTurns& turns) {
  MutexLock lock(turns.mutex_);
  return turns.first_ != nullptr;
}

}  // namespace

void ReactorDriver::takeOver() {
  FakeKernel::shared();
  Reactor& reactor = Reactor::shared();
  reactor.waiting_.fetch_add(kThreads - 1);
  MutexLock lock(reactor.mutex_);
  reactor.threads_ = kThreads;
  // Nobody has to wait for a processor.
  reactor.passes_ = SIZE_MAX;
  // What stays for good is there before anything is counted.
  transport::OwnReading::prepare();
}

void ReactorDriver::runUntilIdle() {
  Reactor& reactor = Reactor::shared();
  const auto hasEvents = [&reactor] { return FakeKernel::shared().hasEvents() || reactor.hasScheduled(); };
  // Nobody hears the bell of those that wait for another turn.
  for (; hasEvents() || hasTurns(reactor.laterTurns_); reactor.laterTurns_.takeNext()) {
    while (hasEvents()) {
      reactor.waiting_.fetch_add(1);
      reactor.serveOne();
    }
  }
  MutexLock lock(reactor.mutex_);
  require(reactor.threads_ == kThreads, "no thread is started");
}

void ReactorDriver::letTimePass() {
  TimerQueue& timers = Reactor::shared().timers_;
  std::vector<TimerQueue::Action> due;
  {
    MutexLock lock(timers.mutex_);
    for (auto& [time, action] : timers.actions_) due.push_back(std::move(action));
    timers.actions_.clear();
    timers.dueTimes_.clear();
  }
  for (const TimerQueue::Action& action : due) action();
  due.clear();
  runUntilIdle();
}

bool ReactorDriver::hasTimers() {
  TimerQueue& timers = Reactor::shared().timers_;
  MutexLock lock(timers.mutex_);
  return !timers.actions_.empty();
}

}  // namespace velto::fuzzing
