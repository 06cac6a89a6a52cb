#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "benchmarks/Exchange.h"
#include <msgpack.hpp>

namespace velto::benchmarks {

// The messages of the exchange in msgpack-cxx: packed from plain variables.
using Packer = msgpack::packer<msgpack::sbuffer>;

inline void packText(Packer& packer, std::string_view text) {
  packer.pack_str(static_cast<std::uint32_t>(text.size()));
  packer.pack_str_body(text.data(), static_cast<std::uint32_t>(text.size()));
}

template <class Value>
void packPair(Packer& packer, std::string_view key, const Value& value) {
  packText(packer, key);
  packer.pack(value);
}

inline void packRequest(Packer& packer, const Request& request) {
  packer.pack_map(9);
  packText(packer, "operation");
  packText(packer, kOperation);
  packPair(packer, "identifier", request.number);
  packText(packer, "sender");
  packText(packer, kSender);
  packPair(packer, "factor", kFactor);
  packPair(packer, "offset", kOffset);
  packPair(packer, "is urgent", true);
  packPair(packer, "deadline", kDeadline);
  packText(packer, "terms");
  packer.pack_array(kTerms.size());
  for (const int term : kTerms) packer.pack(term);
  packText(packer, "payload");
  packer.pack_bin(static_cast<std::uint32_t>(request.data.size()));
  packer.pack_bin_body(reinterpret_cast<const char*>(request.data.data()),
                       static_cast<std::uint32_t>(request.data.size()));
}

inline void packReply(Packer& packer, double result) {
  packer.pack_map(3);
  packPair(packer, "ok", true);
  packPair(packer, "result", result);
  packText(packer, "unit");
  packText(packer, kUnit);
}

inline const msgpack::object* find(const msgpack::object& map, std::string_view key) {
  for (std::uint32_t index = 0; index < map.via.map.size; ++index) {
    const msgpack::object_kv& each = map.via.map.ptr[index];
    if (std::string_view(each.key.via.str.ptr, each.key.via.str.size) == key) return &each.val;
  }
  return nullptr;
}

}  // namespace velto::benchmarks
