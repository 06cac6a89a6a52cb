#pragma once

// Included by every public header before anything else. One error is enough: in an older language the rest would be
// hundreds, so the compiler is made to stop.
#if __cplusplus < 202002L
#error "VeltoIPC needs C++20: compile with -std=c++20 or newer."
#include <a newer language: -std=c++20>
#endif
