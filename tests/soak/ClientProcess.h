#pragma once

#include <cstddef>
#include <cstdint>

#include "tests/soak/SharedState.h"

namespace velto::soak {

// Works until it is told to stop, or killed. The exit code of its process.
int runClient(SharedState& shared, std::size_t number, std::uint64_t seed);

}  // namespace velto::soak
