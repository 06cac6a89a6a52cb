// Memory is counted by the sanitizer's hooks on every allocation, time by the processor clock of the thread. Both are
// per input, so an input that is small and dear shows even where it would never reach the fuzzer's own limits.

#include "fuzz/support/Budget.h"

#include <algorithm>
#include <cstdint>
#include <string>

#include <sanitizer/allocator_interface.h>
#include <time.h>

#include "fuzz/support/Require.h"

namespace velto::fuzzing {
namespace {

using std::chrono::nanoseconds;

bool counting = false;
std::size_t allocated = 0;
std::int64_t held = 0;
std::int64_t mostHeld = 0;

void allocationMade(const volatile void*, std::size_t bytes) {
  if (!counting) return;
  allocated += bytes;
  held += static_cast<std::int64_t>(bytes);
  mostHeld = std::max(mostHeld, held);
}

void allocationFreed(const volatile void* block) {
  if (counting && block != nullptr) {
    held -= static_cast<std::int64_t>(__sanitizer_get_allocated_size(const_cast<const void*>(block)));
  }
}

void countAllocations() {
  static const bool isInstalled = __sanitizer_install_malloc_and_free_hooks(allocationMade, allocationFreed) != 0;
  require(isInstalled, "the sanitizer takes the hooks");
}

nanoseconds threadTime() {
  timespec now{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return std::chrono::seconds(now.tv_sec) + nanoseconds(now.tv_nsec);
}

nanoseconds measured(const std::function<void()>& run) {
  const nanoseconds before = threadTime();
  run();
  return threadTime() - before;
}

void requireAtMost(const char* what, std::uint64_t value, std::uint64_t maximum, std::size_t inputBytes) {
  if (value <= maximum) return;
  reportFinding(std::string("over budget: ") + what + ": " + std::to_string(value) + ", maximum " +
                std::to_string(maximum) + " for an input of " + std::to_string(inputBytes) + " bytes");
}

}  // namespace

void runWithin(const Budget& budget, std::size_t inputBytes, const std::function<void()>& run) {
  countAllocations();
  allocated = 0;
  held = mostHeld = 0;
  counting = true;
  nanoseconds taken = measured(run);
  counting = false;
  requireAtMost("bytes held", static_cast<std::uint64_t>(mostHeld),
                budget.heldBytes + inputBytes * budget.heldBytesPerByte, inputBytes);
  requireAtMost("bytes allocated", allocated, budget.allocatedBytes + inputBytes * budget.allocatedBytesPerByte,
                inputBytes);
  const nanoseconds allowed = budget.time + budget.timePerByte * static_cast<std::int64_t>(inputBytes);
  for (int repetition = 0; repetition < 2 && taken > allowed; ++repetition) taken = std::min(taken, measured(run));
  requireAtMost("nanoseconds", static_cast<std::uint64_t>(taken.count()), static_cast<std::uint64_t>(allowed.count()),
                inputBytes);
}

}  // namespace velto::fuzzing
