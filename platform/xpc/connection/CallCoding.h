#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <span>
#include <string>
#include <vector>

#include "platform/foundation/NSError.h"
#include "platform/xpc/interface/NSXPCInterface.h"
#include "platform/xpc/interface/Protocol.h"
#include "platform/xpc/wire/Frame.h"
#include "platform/xpc/wire/Messages.h"

namespace velto::xpc {

// Calls and replies as frames, and back. Pure: what is wrong is returned. For `passesRegionsOn` see ValueEncoder.

struct EncodedCall {
  wire::Frame frame;
  // Why there is no frame; nil when there is.
  NSError failure;
};
EncodedCall encodeCall(std::uint64_t identifier, const Method& method, std::span<const NSObject> arguments,
                       bool wantsReply, bool passesRegionsOn = false);
inline EncodedCall encodeCall(std::uint64_t identifier, const Method& method, std::initializer_list<NSObject> arguments,
                              bool wantsReply) {
  return encodeCall(identifier, method, std::span(arguments.begin(), arguments.size()), wantsReply);
}

struct EncodedReply {
  wire::Frame frame;
  // Why there is no frame, and the number for it; "" when there is.
  std::string reason;
  std::uint64_t code = 0;
};
EncodedReply encodeReply(std::uint64_t identifier, const NSObject& value, bool passesRegionsOn = false,
                         std::size_t roomForRegions = limits::kMaximumRegionBytes);

// What has become of a frame that came: it can be used, or is refused, or its bytes break the protocol.
enum class Reading { ready, refused, broken };

struct DecodedCall {
  Reading reading = Reading::ready;
  wire::CallHeader header;
  // Set when it is ready.
  const Method* method = nullptr;
  std::vector<NSObject> arguments;
  // Why it is not, and the number for a refusal.
  std::string reason;
  std::uint64_t code = 0;
};
// With no interface there is no object that could be called.
DecodedCall decodeCall(const wire::Frame& frame, const NSXPCInterface* interface);

struct DecodedReply {
  Reading reading = Reading::ready;
  NSObject value;
  std::string reason;
};
DecodedReply decodeReply(const wire::Frame& frame, const NSXPCInterface& interface, const Method& method);

}  // namespace velto::xpc
