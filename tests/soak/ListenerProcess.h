#pragma once

#include <cstddef>
#include <cstdint>

#include "tests/soak/SharedState.h"

namespace velto::soak {

// Serves until it is told to stop, or killed. The exit code of its process.
int runListener(SharedState& shared, std::size_t number, std::uint64_t seed);

}  // namespace velto::soak
