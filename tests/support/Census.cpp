// Counts by what the kernel lists under /proc/self.

#include "tests/support/Census.h"

#include <filesystem>
#include <iterator>

namespace velto::testing {

namespace {

std::size_t entriesOf(const char* directory) {
  const std::filesystem::directory_iterator walk(directory);
  return static_cast<std::size_t>(std::distance(begin(walk), end(walk)));
}

}  // namespace

// The walk's own descriptor is one of them.
std::size_t openDescriptors() {
  return entriesOf("/proc/self/fd") - 1;
}

std::size_t runningThreads() {
  return entriesOf("/proc/self/task");
}

}  // namespace velto::testing
