#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>

#include "platform/foundation/NSDictionary.h"
#include "platform/xpc/contract/ListenerTraffic.h"

namespace velto::ctl {

// By name and process. Of one process that has several listeners of a name, as it may be for a moment, their sum.
using Traffic = std::map<std::pair<std::string, std::int32_t>, xpc::ListenerTraffic>;

// Asks all processes of this user that have listeners, at the same time and for a second at most. Those that do not
// answer, or know less, are missing.
Traffic allTraffic();
std::optional<xpc::ListenerTraffic> trafficOf(const std::string& name, std::int32_t process);
NSDictionary shown(const xpc::ListenerTraffic& traffic);

}  // namespace velto::ctl
