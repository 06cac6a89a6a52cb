// Descriptors that survive a fork only in the parent. Every open one is written down; the child closes them all before
// its first instruction runs, and the objects that the child inherited know by their generation that the numbers are no
// longer theirs.
//
// One bit stands for each descriptor that the kernel gives out unless it is told to give more. So a descriptor that a
// peer has sent is owned whether there is memory or not.

#include "platform/xpc/system/Descriptor.h"

#include <algorithm>
#include <atomic>
#include <bitset>

#include <pthread.h>

#include "platform/foundation/ThreadAnnotations.h"
#include "platform/xpc/system/SystemCalls.h"

namespace velto::system {

namespace {

// The kernel's own bound, as it comes. Descriptors beyond it are not closed in the child of a fork.
constexpr std::size_t kWrittenDown = std::size_t{1} << 20;

class OpenDescriptors {
 public:
  static OpenDescriptors& shared() {
    static OpenDescriptors& made = *new OpenDescriptors;
    return made;
  }

  void add(int descriptor) {
    const auto number = static_cast<std::size_t>(descriptor);
    if (number >= kWrittenDown) return;
    MutexLock lock(mutex_);
    open_.set(number);
    end_ = std::max(end_, number + 1);
  }
  // Forgets before it closes: once closed, the number can be given out again at any moment.
  void close(int descriptor) {
    {
      MutexLock lock(mutex_);
      if (static_cast<std::size_t>(descriptor) < kWrittenDown) open_.reset(static_cast<std::size_t>(descriptor));
    }
    systemCalls().close(descriptor);
  }
  unsigned generation() const noexcept { return generation_.load(std::memory_order_relaxed); }

 private:
  OpenDescriptors() { pthread_atfork(beforeFork, afterForkInParent, afterForkInChild); }

  // The lock is taken before the fork, so that the child finds the set whole.
  static void beforeFork() VELTO_NO_THREAD_SAFETY_ANALYSIS { mutex_.lock(); }
  static void afterForkInParent() VELTO_NO_THREAD_SAFETY_ANALYSIS { mutex_.unlock(); }
  static void afterForkInChild() VELTO_NO_THREAD_SAFETY_ANALYSIS {
    OpenDescriptors& all = shared();
    for (std::size_t number = 0; number < all.end_; ++number) {
      if (open_.test(number)) systemCalls().close(static_cast<int>(number));
      open_.reset(number);
    }
    all.end_ = 0;
    all.generation_.fetch_add(1, std::memory_order_relaxed);
    mutex_.unlock();
  }

  static inline Mutex mutex_;
  // In the program's zeroed memory, of which only what is written to is ever used.
  static inline std::bitset<kWrittenDown> open_ VELTO_GUARDED_BY(mutex_);
  // After the greatest of them.
  std::size_t end_ VELTO_GUARDED_BY(mutex_) = 0;
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
