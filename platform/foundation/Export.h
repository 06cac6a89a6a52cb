#pragma once

// Marks what the shared libraries offer. Everything else is compiled with hidden visibility.
#define VELTO_EXPORT __attribute__((visibility("default")))

// Marks what lies in the object that is asked for it: clang warns when it outlives that object.
#if defined(__clang__)
#define VELTO_LIFETIME_BOUND [[clang::lifetimebound]]
#else
#define VELTO_LIFETIME_BOUND
#endif
