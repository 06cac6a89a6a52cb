// Stands in the place of the platform's own source of random bytes and remembers what it gave. The bytes are the
// kernel's.

#include "tests/conformance/double/RandomDouble.h"

#include <algorithm>
#include <cstdlib>

#include <sys/random.h>

#include "platform/foundation/RandomBytes.h"
#include "platform/foundation/ThreadAnnotations.h"

namespace velto::testing {
namespace {

struct LastDraw {
  Mutex mutex;
  NSUUID::Bytes bytes VELTO_GUARDED_BY(mutex){};
};

// Never destroyed: whoever draws last may do so at exit.
LastDraw& lastDraw() {
  static LastDraw& draw = *new LastDraw;
  return draw;
}

void remember(const void* drawn) {
  MutexLock lock(lastDraw().mutex);
  std::copy_n(static_cast<const std::uint8_t*>(drawn), sizeof(NSUUID::Bytes), lastDraw().bytes.begin());
}

}  // namespace

NSUUID lastUUIDMade() {
  NSUUID::Bytes bytes;
  {
    MutexLock lock(lastDraw().mutex);
    bytes = lastDraw().bytes;
  }
  // Version 4, and the variant that goes with it.
  bytes[6] = static_cast<std::uint8_t>((bytes[6] & 0x0F) | 0x40);
  bytes[8] = static_cast<std::uint8_t>((bytes[8] & 0x3F) | 0x80);
  return NSUUID::UUIDWithBytes(bytes);
}

}  // namespace velto::testing

void velto::fillWithRandomBytes(void* buffer, std::size_t length) noexcept {
  if (getrandom(buffer, length, 0) != static_cast<ssize_t>(length)) std::abort();
  if (length == sizeof(NSUUID::Bytes)) testing::remember(buffer);
}
