#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include <sys/types.h>
#include <sys/uio.h>

#include "platform/xpc/system/Descriptor.h"

namespace velto::transport {

// What one read of a socket brought.
struct Received {
  std::size_t count = 0;  // 0 with no error: the end of the stream
  std::vector<system::SharedDescriptor> descriptors;
  bool truncated = false;  // descriptors were lost
  int error = 0;
};

// Reads once, into `room`. Every descriptor that comes along is owned by the result, wanted or not.
Received receiveWithDescriptors(int borrowedSocket, std::span<std::uint8_t> room);

// Writes once; returns as sendmsg does. The descriptors go with the first byte.
ssize_t sendWithDescriptors(int borrowedSocket, std::span<iovec> parts,
                            std::span<const system::SharedDescriptor> descriptors);

}  // namespace velto::transport
