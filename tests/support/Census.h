#pragma once

#include <cstddef>

namespace velto::testing {

// What this process holds right now.
std::size_t openDescriptors();
std::size_t runningThreads();

}  // namespace velto::testing
