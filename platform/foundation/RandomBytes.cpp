// Random bytes for identifiers and for the seed of the hash. They come from the kernel, not from a generator of our
// own, a pool of them at a time: a system call for each identifier costs more than the identifier. The kernel wipes the
// pool in the child of a fork, whoever made it and however, so that the two never draw the same.
#include "platform/foundation/RandomBytes.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>

#include <sys/mman.h>
#include <sys/random.h>
#include <unistd.h>

#include "platform/foundation/SipHash.h"

namespace velto {
namespace {

// For a kernel that refuses us (a sandbox may): distinct values, though guessable ones.
void fillFromClock(void* buffer, std::size_t length) noexcept {
  static std::atomic<std::uint64_t> counter{0};
  auto* out = static_cast<unsigned char*>(buffer);
  for (std::size_t filled = 0; filled < length;) {
    const auto now = static_cast<std::uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count());
    const std::uint64_t drawn[] = {counter.fetch_add(1), now, static_cast<std::uint64_t>(getpid())};
    const std::uint64_t word = sipHash13({0, 0}, drawn, sizeof drawn);
    const std::size_t step = std::min(sizeof word, length - filled);
    std::memcpy(out + filled, &word, step);
    filled += step;
  }
}

bool fillFromKernel(void* buffer, std::size_t length) noexcept {
  ssize_t got = 0;
  do {
    got = getrandom(buffer, length, 0);
  } while (got < 0 && errno == EINTR);
  return got == static_cast<ssize_t>(length);
}

// One page, that of the process. All zero is one that is empty and that nobody uses: what the child of a fork finds.
class Pool {
 public:
  // Null when the kernel would not wipe it.
  static Pool* shared() noexcept {
    static constinit std::atomic<Pool*> current{nullptr};
    Pool* found = current.load(std::memory_order_acquire);
    if (found != nullptr) return found;
    Pool* const made = make();
    if (current.compare_exchange_strong(found, made, std::memory_order_acq_rel)) return made;
    if (made != nullptr) munmap(made, kPage);
    return found;
  }

  // False when there are none, or another thread is at it: nobody waits for a page.
  bool draw(void* buffer, std::size_t length) noexcept {
    if (isInUse_.exchange(true, std::memory_order_acquire)) return false;
    const bool drawn = take(buffer, length);
    isInUse_.store(false, std::memory_order_release);
    return drawn;
  }

 private:
  static constexpr std::size_t kPage = 4096;
  // What the kernel gives whole or not at all.
  static constexpr std::size_t kPortion = 256;

  static Pool* make() noexcept {
    void* const page = mmap(nullptr, kPage, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (page == MAP_FAILED) return nullptr;
    if (madvise(page, kPage, MADV_WIPEONFORK) == 0) return static_cast<Pool*>(page);
    munmap(page, kPage);
    return nullptr;
  }

  bool take(void* buffer, std::size_t length) noexcept {
    if (left_ < length && !fill()) return false;
    left_ -= length;
    std::memcpy(buffer, bytes_ + left_, length);
    // Nobody finds here what others have drawn.
    std::memset(bytes_ + left_, 0, length);
    return true;
  }
  bool fill() noexcept {
    left_ = 0;
    for (; left_ < sizeof bytes_; left_ += kPortion) {
      if (!fillFromKernel(bytes_ + left_, kPortion)) break;
    }
    return left_ > 0;
  }

  std::atomic<bool> isInUse_;
  std::size_t left_;
  unsigned char bytes_[kPage - kPortion];
};

}  // namespace

void fillWithRandomBytes(void* buffer, std::size_t length) noexcept {
  if (Pool* const pool = Pool::shared(); pool != nullptr && pool->draw(buffer, length)) return;
  if (!fillFromKernel(buffer, length)) fillFromClock(buffer, length);
}

}  // namespace velto
