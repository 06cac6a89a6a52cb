#pragma once

#include "VeltoIPC/VeltoConnection.h"

namespace velto::testing {

// What a client keeps to itself, for tests that hold its locks: the registry of its synchronous sends, whose own
// monitor guards it (nil once the client is closed), and the condition of its readiness.
NSMutableDictionary registryOf(const VeltoConnection& client);
NSCondition readinessOf(const VeltoConnection& client);

}  // namespace velto::testing
