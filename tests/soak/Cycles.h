#pragma once

#include <cstddef>

namespace velto::soak {

// A client here, a listener in a process of its own and the broker's program: connects, sends, checks the reply and
// closes, so many times. False when anything was left open or has grown.
bool runCycles(std::size_t count);
// The listener's process.
int serveCycles();

}  // namespace velto::soak
