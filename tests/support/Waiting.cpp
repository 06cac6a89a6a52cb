// Waiting with a bound.

#include "tests/support/Waiting.h"

#include <cstdio>
#include <cstdlib>
#include <thread>

namespace velto::testing {

bool eventually(const std::function<bool()>& predicate, std::chrono::milliseconds bound) {
  const auto end = std::chrono::steady_clock::now() + bound;
  while (!predicate()) {
    if (std::chrono::steady_clock::now() >= end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

void giveUp(const char* what) {
  std::fprintf(stderr, "FAILED: %s\n", what);
  std::fflush(stderr);
  std::abort();
}

}  // namespace velto::testing
