#pragma once

#include "platform/foundation/testing/Sanitizers.h"

namespace velto::testing {

// The address sanitizer keeps what has been freed, and the thread sanitizer a history of all memory: with them, the
// memory of a process tells nothing.
inline constexpr bool kMemoryTells = !kAddressSanitizer && !kThreadSanitizer;

}  // namespace velto::testing
