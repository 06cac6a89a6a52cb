// Descriptors that survive a fork only in the parent. Every open one is written down; the child closes them all before
// its first instruction runs, and the objects that the child inherited know by their generation that the numbers are no
// longer theirs.

#include "platform/xpc/system/Descriptor.h"

#include <atomic>
#include <unordered_set>

#include <pthread.h>

#include "platform/foundation/ThreadAnnotations.h"
#include "platform/xpc/system/SystemCalls.h"

namespace velto::system {

namespace {

class OpenDescriptors {
 public:
  static OpenDescriptors& shared() {
    static OpenDescriptors& made = *new OpenDescriptors;
    return made;
  }

  void add(int descriptor) {
    MutexLock lock(mutex_);
    open_.insert(descriptor);
  }
  // Forgets before it closes: once closed, the number can be given out again at any moment.
  void close(int descriptor) {
    {
      MutexLock lock(mutex_);
      open_.erase(descriptor);
    }
    systemCalls().close(descriptor);
  }
  unsigned generation() const noexcept { return generation_.load(std::memory_order_relaxed); }

 private:
  OpenDescriptors() { pthread_atfork(beforeFork, afterForkInParent, afterForkInChild); }

  // The lock is taken before the fork, so that the child finds the set whole.
  static void beforeFork() VELTO_NO_THREAD_SAFETY_ANALYSIS { shared().mutex_.lock(); }
  static void afterForkInParent() VELTO_NO_THREAD_SAFETY_ANALYSIS { shared().mutex_.unlock(); }
  static void afterForkInChild() VELTO_NO_THREAD_SAFETY_ANALYSIS {
    OpenDescriptors& all = shared();
    for (const int descriptor : all.open_) systemCalls().close(descriptor);
    all.open_.clear();
    all.generation_.fetch_add(1, std::memory_order_relaxed);
    all.mutex_.unlock();
  }

  Mutex mutex_;
  std::unordered_set<int> open_ VELTO_GUARDED_BY(mutex_);
  std::atomic<unsigned> generation_{0};
};

}  // namespace

unsigned forkGeneration() noexcept {
  return OpenDescriptors::shared().generation();
}

Descriptor::Descriptor(int taken) noexcept : descriptor_(taken) {
  if (descriptor_ < 0) return;
  generation_ = forkGeneration();
  OpenDescriptors::shared().add(descriptor_);
}

Descriptor::Descriptor(Descriptor&& other) noexcept
    : descriptor_(std::exchange(other.descriptor_, -1)), generation_(other.generation_) {}

Descriptor& Descriptor::operator=(Descriptor&& other) noexcept {
  if (this != &other) {
    reset();
    descriptor_ = std::exchange(other.descriptor_, -1);
    generation_ = other.generation_;
  }
  return *this;
}

int Descriptor::get() const noexcept {
  return generation_ == forkGeneration() ? descriptor_ : -1;
}

void Descriptor::reset() noexcept {
  const int descriptor = std::exchange(descriptor_, -1);
  if (descriptor >= 0 && generation_ == forkGeneration()) OpenDescriptors::shared().close(descriptor);
}

}  // namespace velto::system
