#pragma once

#include "platform/foundation/Export.h"

extern "C" {

// As the time-out of a synchronous send: wait without limit. Writable, -1.0 at first, and read at each call; change it
// before the first send or not at all, since nothing guards it.
VELTO_EXPORT extern double VKT_IPC_TIME_FOREVER;

VELTO_EXPORT extern const double VeltoIPCVersionNumber;
VELTO_EXPORT extern const unsigned char VeltoIPCVersionString[];

}  // extern "C"
