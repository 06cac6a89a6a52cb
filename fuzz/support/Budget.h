#pragma once

#include <chrono>
#include <cstddef>
#include <functional>

namespace velto::fuzzing {

// What one input may cost: a constant, and so much for each of its bytes. A fuzzer states its own, measured.
struct Budget {
  // Held at the same time, and allocated in all (which is work too).
  std::size_t heldBytes = 0;
  std::size_t heldBytesPerByte = 0;
  std::size_t allocatedBytes = 0;
  std::size_t allocatedBytesPerByte = 0;
  // Of this thread's processor time, under the sanitizers.
  std::chrono::microseconds time{0};
  std::chrono::microseconds timePerByte{0};
};

// Runs one input; over its budget is a finding. A run that took too long is repeated, and the shortest of three counts:
// what the machine does besides must not become a finding.
void runWithin(const Budget& budget, std::size_t inputBytes, const std::function<void()>& run);

}  // namespace velto::fuzzing
