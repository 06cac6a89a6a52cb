#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

// Names for clang's thread-safety analysis: which lock guards which member is stated beside the member and checked by
// the compiler. Other compilers see nothing.
#if defined(__clang__)
#define VELTO_THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#define VELTO_THREAD_ATTRIBUTE(x)
#endif

#define VELTO_CAPABILITY(x) VELTO_THREAD_ATTRIBUTE(capability(x))
#define VELTO_SCOPED_CAPABILITY VELTO_THREAD_ATTRIBUTE(scoped_lockable)
#define VELTO_GUARDED_BY(x) VELTO_THREAD_ATTRIBUTE(guarded_by(x))
#define VELTO_REQUIRES(...) VELTO_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define VELTO_EXCLUDES(...) VELTO_THREAD_ATTRIBUTE(locks_excluded(__VA_ARGS__))
#define VELTO_ACQUIRE(...) VELTO_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define VELTO_RELEASE(...) VELTO_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))
#define VELTO_NO_THREAD_SAFETY_ANALYSIS VELTO_THREAD_ATTRIBUTE(no_thread_safety_analysis)

namespace velto {

// A std::mutex that the analysis knows as a capability.
class VELTO_CAPABILITY("mutex") Mutex {
 public:
  void lock() VELTO_ACQUIRE() { mutex_.lock(); }
  void unlock() VELTO_RELEASE() { mutex_.unlock(); }

 private:
  friend class MutexLock;

  std::mutex mutex_;
};

// Holds a Mutex from construction to destruction.
class VELTO_SCOPED_CAPABILITY MutexLock {
 public:
  explicit MutexLock(Mutex& mutex) VELTO_ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
  ~MutexLock() VELTO_RELEASE() { mutex_.unlock(); }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

  // Sleeps until the condition is notified, with the mutex released meanwhile. May also end for no reason.
  void wait(std::condition_variable& condition) {
    std::unique_lock<std::mutex> held(mutex_.mutex_, std::adopt_lock);
    condition.wait(held);
    held.release();
  }
  std::cv_status waitUntil(std::condition_variable& condition, std::chrono::steady_clock::time_point time) {
    std::unique_lock<std::mutex> held(mutex_.mutex_, std::adopt_lock);
    const std::cv_status status = condition.wait_until(held, time);
    held.release();
    return status;
  }

 private:
  Mutex& mutex_;
};

}  // namespace velto
