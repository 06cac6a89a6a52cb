// Random bytes for identifiers and for the seed of the hash. They come from the kernel at every request, not from a
// generator of our own, so that a process and its fork never draw the same.
#include "platform/foundation/RandomBytes.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>

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

}  // namespace

void fillWithRandomBytes(void* buffer, std::size_t length) noexcept {
  ssize_t got = 0;
  do {
    got = getrandom(buffer, length, 0);
  } while (got < 0 && errno == EINTR);
  // Up to 256 bytes arrive whole or not at all.
  if (got != static_cast<ssize_t>(length)) fillFromClock(buffer, length);
}

}  // namespace velto
