#pragma once

#include <VeltoIPC/VeltoIPC.h>

namespace machine {

// What /proc knows, as it is at the moment of the call. A fact that cannot be read is left out of the answer.

// {"1 minute": 0.42, "5 minutes": …, "15 minutes": …}
NSDictionary load();
// {"total": bytes, "available": bytes}
NSDictionary memory();
// {"seconds": 12345.67}
NSDictionary uptime();
// {"model": "…", "count": 2}
NSDictionary processor();
// {"name": "…"}, or {"error": "…"} when no process has that number.
NSDictionary process(std::int64_t number);

}  // namespace machine
