#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace velto::wire {

// A name that came from a peer, fit to stand in a reason: cut, and without control characters.
std::string peerName(std::string_view name);

// "bytes of a frame: 17, maximum 16": how every broken limit is reported. `orMore` when the whole was not counted.
std::string overLimit(std::string_view limit, std::uint64_t value, std::uint64_t maximum, bool orMore = false);

}  // namespace velto::wire
