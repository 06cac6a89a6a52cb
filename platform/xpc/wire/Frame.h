#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "platform/foundation/NSObject.h"
#include "platform/xpc/contract/Limits.h"
#include "platform/xpc/system/Descriptor.h"
#include "platform/xpc/wire/ByteBuffer.h"

namespace velto::wire {

// Frames of the protocol. Values are the wire's own and never reused.
enum class FrameType : std::uint8_t {
  hello = 1,         // the first of each end: version and limits
  call = 2,          // a method call
  reply = 3,         // the answer to a call
  replyDropped = 4,  // a call will never be answered: its reply block was let go
  refusal = 5,       // a call was not delivered, and why
  replyRefusal = 6,  // an answer could not be sent, and why
  credit = 7,        // what the receiver has dealt with
  goodbye = 8,       // the last: the sender has invalidated the connection
};

// Bytes of a frame that are sent from where they are, in a value that does not change.
struct Enclosure {
  // How many bytes of the frame's buffer are ahead of it.
  std::size_t position = 0;
  std::span<const std::uint8_t> bytes;
  NSObject owner;
};

// A unit of the stream: a CBOR sequence and the descriptors that it names. Owns the descriptors until they are sent.
// One that has come has all its bytes in `body`; one that is to be sent may enclose some.
struct Frame {
  FrameType type = FrameType::goodbye;
  ByteBuffer body;
  std::vector<Enclosure> enclosures;
  std::vector<system::SharedDescriptor> descriptors;
  // Data lies in regions, which are among the descriptors and have at most 2 to this power bytes together; 0 when none
  // does.
  std::uint8_t regions = 0;

  // What the regions count for where bytes are bounded.
  std::size_t regionWeight() const noexcept {
    return regions == 0 ? 0 : (std::size_t{1} << regions) / limits::kRegionBytesPerByte;
  }
  // What all of it counts for.
  std::size_t weight() const noexcept { return size() + regionWeight(); }
  // What a call takes of its sender's credit.
  std::size_t credit() const noexcept { return regions == 0 ? size() : std::min(weight(), limits::kMaximumFrameBytes); }

  // Bytes of the CBOR sequence.
  std::size_t size() const noexcept {
    std::size_t size = body.size();
    for (const Enclosure& each : enclosures) size += each.bytes.size();
    return size;
  }
};

// The fixed header: length of the body (32 bits), type (8), regions (8), descriptor count (16), little-endian.
struct FrameHeader {
  static constexpr std::size_t kBytes = 8;

  std::uint32_t bodyLength = 0;
  FrameType type = FrameType::goodbye;
  std::uint16_t descriptorCount = 0;
  // See Frame.
  std::uint8_t regions = 0;

  std::array<std::uint8_t, kBytes> encode() const;
  // Of a header that encode() has made.
  static std::uint32_t bodyLengthIn(const std::uint8_t* bytes) noexcept {
    return std::uint32_t{bytes[0]} | std::uint32_t{bytes[1]} << 8 | std::uint32_t{bytes[2]} << 16 |
           std::uint32_t{bytes[3]} << 24;
  }
  // Nothing, and the reason, when the header is not one of this protocol or breaks a limit.
  static std::optional<FrameHeader> decode(const std::uint8_t* bytes, std::string& reason);
};

}  // namespace velto::wire
