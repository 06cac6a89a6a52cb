#pragma once

#include <cstdint>

namespace velto::wire {

// Tags of values. All but one are registered with IANA; docs/wire.md says what stands under each.
inline constexpr std::uint64_t kDateTag = 1;
inline constexpr std::uint64_t kObjectTag = 27;
inline constexpr std::uint64_t kURLTag = 32;
inline constexpr std::uint64_t kUUIDTag = 37;
inline constexpr std::uint64_t kSetTag = 258;
// Our own: an unsigned number that a signed one could hold too. The kind of a number survives the journey.
inline constexpr std::uint64_t kUnsignedTag = 60117;

// Our own: data that lies in a region, a descriptor of the frame.
inline constexpr std::uint64_t kRegionTag = 60118;

// The class name under which an error travels.
inline constexpr const char* kErrorName = "NSError";

}  // namespace velto::wire
