#pragma once

#include <cstdint>
#include <string>

#include "broker/VeltoIPCObserverProtocol.h"
#include "platform/foundation/NSDictionary.h"

namespace velto::ctl {

// What Linux tells of a process; "" when it does not.
std::string commandOf(std::int32_t process);
// The name of a user, or his number.
std::string userText(std::int64_t user);
// Of a reading of the clock that all processes of the machine share, in nanoseconds: as a time since 1970, in seconds.
double secondsSince1970At(std::uint64_t sharedNanoseconds);
double secondsSince(std::uint64_t sharedNanoseconds);
// "2024-05-06 07:08:09", here.
std::string timeText(double secondsSince1970);

// {"name", "process", "user", "command", "since", "registration", "standIn"}; what is not known is left out.
NSDictionary shown(const NameDescription& name);

}  // namespace velto::ctl
