#pragma once

#include <cstddef>
#include <cstdint>

namespace velto::xpc {

// What has gone over the connections that one listener has accepted. A message is a call or a reply, those by which the
// two ends make themselves known included. Bytes are those of the frames: data that travels beside them, in shared
// memory, is not in it.
struct ListenerTraffic {
  // Open now; and accepted so far, all together.
  std::size_t connections = 0;
  std::uint64_t accepted = 0;
  std::uint64_t messagesIn = 0;
  std::uint64_t messagesOut = 0;
  std::uint64_t bytesIn = 0;
  std::uint64_t bytesOut = 0;
  // Bytes that have come and wait for their turn, or are being dealt with; and that wait to be sent.
  std::size_t undeliveredBytes = 0;
  std::size_t unsentBytes = 0;
};

}  // namespace velto::xpc
