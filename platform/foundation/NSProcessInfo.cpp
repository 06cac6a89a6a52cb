// What a process can tell about itself. A unique string is drawn anew at every call, with the process and a counter for
// those who read logs; nothing of it is remembered, so a fork cannot repeat it.
#include "platform/foundation/NSProcessInfo.h"

#include <atomic>

#include <unistd.h>

#include "platform/foundation/NSUUID.h"

const NSProcessInfo& NSProcessInfo::processInfo() {
  static const NSProcessInfo made;
  return made;
}

std::int32_t NSProcessInfo::processIdentifier() const noexcept {
  return getpid();
}

NSString NSProcessInfo::globallyUniqueString() const {
  static std::atomic<std::uint64_t> counter{0};
  return NSUUID::UUID().UUIDString().string() + "-" + std::to_string(getpid()) + "-" +
         std::to_string(counter.fetch_add(1, std::memory_order_relaxed));
}
