#pragma once

#include <optional>
#include <string_view>

#include "benchmarks/MessagePackMessages.h"
#include "benchmarks/transport/Peer.h"

namespace velto::transport {

// The messages in msgpack-cxx, for transports that carry bytes and no values.

// Texts and data stay where they came.
inline msgpack::object unpacked(msgpack::zone& zone, std::string_view bytes) {
  std::size_t offset = 0;
  return msgpack::unpack(zone, bytes.data(), bytes.size(), offset,
                         [](msgpack::type::object_type, std::size_t, void*) { return true; });
}

inline msgpack::sbuffer packedRequest(const Request& request) {
  msgpack::sbuffer bytes(request.data.size() + 256);
  benchmarks::Packer packer(bytes);
  benchmarks::packRequest(packer, request);
  return bytes;
}

inline std::optional<msgpack::sbuffer> replyTo(std::string_view request, Work& work) {
  msgpack::zone zone;
  const msgpack::object received = unpacked(zone, request);
  const auto result = work.answer(benchmarks::find(received, "factor")->as<double>(),
                                  benchmarks::find(received, "identifier")->as<std::int64_t>(),
                                  [&] { return benchmarks::find(received, "payload")->via.bin.size; });
  if (!result) return std::nullopt;
  msgpack::sbuffer bytes(64);
  benchmarks::Packer packer(bytes);
  benchmarks::packReply(packer, *result);
  return bytes;
}

inline double resultOf(std::string_view reply) {
  msgpack::zone zone;
  return benchmarks::find(unpacked(zone, reply), "result")->as<double>();
}

}  // namespace velto::transport
