#pragma once

// Marks what the shared libraries offer. Everything else is compiled with hidden visibility.
#define VELTO_EXPORT __attribute__((visibility("default")))
