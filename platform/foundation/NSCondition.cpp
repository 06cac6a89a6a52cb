// Conditions. A counter of signals stands beside the caller's lock: whoever locks remembers the counter, and a wait
// ends as soon as it has moved on since. So a signal that comes while a thread tests is not lost, although it takes no
// more than a small lock of the condition's own, which is never held while anyone waits for anything. A thread that has
// work for the time of its sleep does that first, and is told of a signal like one that sleeps.
#include "platform/foundation/NSCondition.h"

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <optional>
#include <utility>

#include "platform/foundation/BuiltInClass.h"
#include "platform/foundation/Class.h"
#include "platform/foundation/ThreadAnnotations.h"

namespace velto {
namespace {

using SteadyTime = std::chrono::steady_clock::time_point;

thread_local WaitObserver* threadObserver = nullptr;
thread_local WaitingWork* threadWork = nullptr;

// Tells this thread's observer of a sleep, from construction to destruction.
class ObservedSleep {
 public:
  ObservedSleep() : observer_(threadObserver) {
    if (observer_ != nullptr) observer_->threadWillWait();
  }
  ~ObservedSleep() {
    if (observer_ != nullptr) observer_->threadDidWait();
  }
  ObservedSleep(const ObservedSleep&) = delete;
  ObservedSleep& operator=(const ObservedSleep&) = delete;

 private:
  WaitObserver* const observer_;
};

class ConditionBody final : public ObjectBody {
 public:
  void lock() VELTO_ACQUIRE(callersLock_) {
    callersLock_.lock();
    signalsSeen_ = signals_.load(std::memory_order_acquire);
  }
  void unlock() VELTO_RELEASE(callersLock_) { callersLock_.unlock(); }

  // Whether a signal ended the wait; without a deadline nothing else does.
  bool wait(const std::optional<SteadyTime>& deadline) VELTO_REQUIRES(callersLock_) {
    const std::uint64_t seen = signalsSeen_;
    callersLock_.unlock();
    const bool signalled = sleep(seen, deadline);
    lock();
    return signalled;
  }

  void signal() {
    countSignal();
    changed_.notify_one();
  }
  void broadcast() {
    countSignal();
    changed_.notify_all();
  }

  const ClassBody& classBody() const override { return classBodyOf<NSCondition>(); }

 private:
  bool hasMovedOn(std::uint64_t seen) const noexcept { return signals_.load(std::memory_order_acquire) != seen; }

  void countSignal() {
    // Under the lock, or the signal could fall between a sleeper's last look at the counter and its sleep.
    MutexLock lock(sleepersLock_);
    signals_.fetch_add(1);
    for (const Worker* worker = workers_; worker != nullptr; worker = worker->next) worker->work.interrupt();
  }

  bool sleep(std::uint64_t seen, const std::optional<SteadyTime>& deadline) {
    if (hasMovedOn(seen)) return true;
    if (deadline && std::chrono::steady_clock::now() >= *deadline) return false;
    const ObservedSleep observed;
    if (threadWork != nullptr) workInstead(*threadWork, {signals_, seen, deadline});
    MutexLock lock(sleepersLock_);
    while (!hasMovedOn(seen)) {
      if (!deadline) {
        lock.wait(changed_);
      } else if (lock.waitUntil(changed_, *deadline) == std::cv_status::timeout) {
        return hasMovedOn(seen);
      }
    }
    return true;
  }

  // A signal finds who works instead of sleeping in this list.
  struct Worker {
    WaitingWork& work;
    Worker* next;
  };

  void workInstead(WaitingWork& work, const ConditionSleep& sleep) {
    Worker worker{work, nullptr};
    {
      MutexLock lock(sleepersLock_);
      worker.next = std::exchange(workers_, &worker);
    }
    work.work(sleep);
    MutexLock lock(sleepersLock_);
    Worker** place = &workers_;
    while (*place != &worker) place = &(*place)->next;
    *place = worker.next;
  }

  Mutex callersLock_;  // held by callers across calls
  std::uint64_t signalsSeen_ VELTO_GUARDED_BY(callersLock_) = 0;
  Mutex sleepersLock_;
  std::condition_variable changed_;
  Worker* workers_ VELTO_GUARDED_BY(sleepersLock_) = nullptr;
  std::atomic<std::uint64_t> signals_{0};  // changes only under sleepersLock_
};

ConditionBody& bodyOf(const NSCondition& condition) {
  return static_cast<ConditionBody&>(*condition.body());
}

}  // namespace

WaitObserver* WaitObserver::install(WaitObserver* observer) noexcept {
  return std::exchange(threadObserver, observer);
}

WaitingWork* WaitingWork::install(WaitingWork* work) noexcept {
  return std::exchange(threadWork, work);
}

}  // namespace velto

using velto::bodyOf;

Class NSCondition::classObject() {
  static const Class& made = *new Class(velto::defineBuiltIn("NSCondition", NSObject::classObject()));
  return made;
}

NSCondition NSCondition::condition() {
  return NSCondition(new velto::ConditionBody);
}

// What these take and let go of lies in the body, where the analysis cannot follow.
void NSCondition::lock() const VELTO_NO_THREAD_SAFETY_ANALYSIS {
  if (!isNil()) bodyOf(*this).lock();
}

void NSCondition::unlock() const VELTO_NO_THREAD_SAFETY_ANALYSIS {
  if (!isNil()) bodyOf(*this).unlock();
}

void NSCondition::wait() const VELTO_NO_THREAD_SAFETY_ANALYSIS {
  if (!isNil()) bodyOf(*this).wait(std::nullopt);
}

bool NSCondition::waitUntilDate(const NSDate& date) const VELTO_NO_THREAD_SAFETY_ANALYSIS {
  return !isNil() && bodyOf(*this).wait(date.steadyTime());
}

void NSCondition::signal() const {
  if (!isNil()) bodyOf(*this).signal();
}

void NSCondition::broadcast() const {
  if (!isNil()) bodyOf(*this).broadcast();
}
