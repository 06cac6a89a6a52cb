// Zeroes are a good beginning for everything in it.

#include "tests/soak/SharedState.h"

#include <sys/mman.h>
#include <unistd.h>

#include "tests/support/Waiting.h"

namespace velto::soak {

int makeSharedState() {
  const int descriptor = ::memfd_create("velto-soak", 0);
  if (descriptor < 0 || ::ftruncate(descriptor, sizeof(SharedState)) != 0) testing::giveUp("no shared memory");
  return descriptor;
}

SharedState& mapSharedState(int descriptor) {
  void* const memory = ::mmap(nullptr, sizeof(SharedState), PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, 0);
  if (memory == MAP_FAILED) testing::giveUp("the shared memory cannot be mapped");
  return *static_cast<SharedState*>(memory);
}

}  // namespace velto::soak
