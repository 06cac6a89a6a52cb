#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "platform/xpc/system/Descriptor.h"
#include "platform/xpc/wire/Frame.h"

namespace velto::wire {

// Regions: data that travels beside its frame, in memory that nobody can change, shrink or grow any more.

// A new one with these bytes; none, and the reason, when the kernel has none to give.
system::SharedDescriptor makeRegion(std::span<const std::uint8_t> bytes, std::string& reason);
// One more descriptor of the same memory; none without a descriptor, or when the kernel has none to give.
system::SharedDescriptor shareMemory(int borrowedDescriptor);

// Whether it is of memory that can be sealed, as nothing else that travels is.
bool isRegion(const system::SharedDescriptor& descriptor);

// What a frame says of so many bytes in regions: the power of two that they do not exceed.
std::uint8_t sizeOfRegions(std::size_t bytes);

// What is wrong with the regions of a frame that has come: memory that is not sealed, more bytes or more regions than
// there may be, fewer bytes than make one worth it, bytes without memory; "" when nothing is. Descriptors of anything
// else, and places that are empty, are no concern of this; `others` says how many there are.
std::string problemOfRegions(const Frame& frame, std::size_t& others);

}  // namespace velto::wire
