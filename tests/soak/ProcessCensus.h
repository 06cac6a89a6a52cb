#pragma once

#include <cstddef>
#include <string>

#include <sys/types.h>

namespace velto::soak {

// What a process holds, as the kernel counts it.
struct ProcessCensus {
  std::size_t descriptors = 0;
  std::size_t threads = 0;
  std::size_t residentBytes = 0;

  static ProcessCensus of(pid_t process);
  // Taken once descriptors and threads have not changed for a while: idle threads of a pool take their time to end.
  static ProcessCensus settled(pid_t process);
  std::string text() const;
};

// How much more memory a process may have at the end than after the warm-up: the allocator keeps what it got for the
// largest messages, in as many pieces as there were threads at one time.
inline constexpr std::size_t kAllowedGrowthBytes = std::size_t{12} << 20;

// Waits until the process is down to the descriptors that it had, and to no more threads than there are at rest. What
// it had more at the end, and memory over the bound, as text; empty when all is well.
std::string growthSince(const ProcessCensus& start, const ProcessCensus& end, std::size_t allowedGrowthBytes);
ProcessCensus censusComparedWith(const ProcessCensus& start, pid_t process);

}  // namespace velto::soak
