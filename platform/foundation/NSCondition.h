#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <optional>

#include "platform/foundation/NSDate.h"
#include "platform/foundation/NSObject.h"
#include "platform/foundation/ThreadAnnotations.h"

namespace velto {

// Hears when the current thread goes to sleep in an NSCondition and when it wakes. At most one per thread; installed by
// whoever runs callbacks, so that a queue can know that its callback waits.
class VELTO_EXPORT WaitObserver {
 public:
  virtual void threadWillWait() noexcept = 0;
  virtual void threadDidWait() noexcept = 0;
  // Returns the one that was installed before.
  static WaitObserver* install(WaitObserver* observer) noexcept;

 protected:
  ~WaitObserver() = default;
};

// A sleep in an NSCondition, as the thread sees it whose sleep it is.
class VELTO_EXPORT ConditionSleep {
 public:
  using SteadyTime = std::chrono::steady_clock::time_point;

  ConditionSleep(const std::atomic<std::uint64_t>& signals, std::uint64_t seen, std::optional<SteadyTime> deadline)
      : signals_(signals), seen_(seen), deadline_(deadline) {}
  // A signal has ended it.
  bool isOver() const noexcept { return signals_.load() != seen_; }
  // When it ends at the latest; nothing when only a signal ends it.
  const std::optional<SteadyTime>& deadline() const noexcept { return deadline_; }

 private:
  const std::atomic<std::uint64_t>& signals_;
  const std::uint64_t seen_;
  const std::optional<SteadyTime> deadline_;
};

// What a thread can do while it would sleep in an NSCondition: bring about itself what it waits for. At most one per
// thread.
class VELTO_EXPORT WaitingWork {
 public:
  // On the thread whose work it is: works until the sleep is over, or there is nothing left to do; then the thread
  // sleeps.
  virtual void work(const ConditionSleep& sleep) noexcept = 0;
  // From any thread that signals the condition: work() is to look whether the sleep is over. Must not wait.
  virtual void interrupt() noexcept = 0;
  // Of the current thread. Returns the one that was installed before.
  static WaitingWork* install(WaitingWork* work) noexcept;

 protected:
  ~WaitingWork() = default;
};

}  // namespace velto

// A lock and a condition to wait for while holding it. A handle: copies share the condition; equal only to itself.
//
// signal() may be called with or without the lock. A signal that is sent while a thread holds the lock also ends that
// thread's next wait; a caller that locks, tests and then waits can therefore never sleep through a signal sent in
// between, whoever sends it. Waits may also end for no reason: test again.
//
// Thread-safe. Not recursive. Calls on nil do nothing.
class VELTO_CAPABILITY("condition") VELTO_EXPORT NSCondition : public NSObject {
 public:
  NSCondition() noexcept = default;
  NSCondition(std::nullptr_t) noexcept {}
  explicit operator bool() const noexcept { return !isNil(); }

  static velto::Class classObject();
  // A new condition.
  [[nodiscard]] static NSCondition condition();

  void lock() const VELTO_ACQUIRE();
  void unlock() const VELTO_RELEASE();
  // Call with the lock held; returns with it held.
  void wait() const VELTO_REQUIRES(this);
  // The same; returns false when the date came before a signal did.
  bool waitUntilDate(const NSDate& date) const VELTO_REQUIRES(this);
  void signal() const;
  void broadcast() const;

 private:
  explicit NSCondition(velto::ObjectBody* body) noexcept : NSObject(body) {}
};

namespace velto {

// Holds an NSCondition's lock from construction to destruction.
class VELTO_SCOPED_CAPABILITY ConditionLock {
 public:
  explicit ConditionLock(const NSCondition& condition) VELTO_ACQUIRE(condition) : condition_(condition) {
    condition_.lock();
  }
  ~ConditionLock() VELTO_RELEASE() { condition_.unlock(); }
  ConditionLock(const ConditionLock&) = delete;
  ConditionLock& operator=(const ConditionLock&) = delete;

 private:
  const NSCondition condition_;
};

}  // namespace velto
