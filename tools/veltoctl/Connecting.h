#pragma once

#include <chrono>
#include <string>

#include "VeltoIPC/Client.h"

namespace velto::ctl {

std::chrono::nanoseconds secondsOf(double seconds);
// Ends with ExitCode::notFound at once when nobody serves the name, and nothing can be started that would.
Client connected(const std::string& name, double patience);

}  // namespace velto::ctl
