// The work in msgpack-cxx.
#include <string_view>

#include "benchmarks/Exchange.h"
#include <msgpack.hpp>

namespace velto::benchmarks {
namespace {

using Packer = msgpack::packer<msgpack::sbuffer>;

void packText(Packer& packer, std::string_view text) {
  packer.pack_str(static_cast<std::uint32_t>(text.size()));
  packer.pack_str_body(text.data(), static_cast<std::uint32_t>(text.size()));
}

template <class Value>
void packPair(Packer& packer, std::string_view key, const Value& value) {
  packText(packer, key);
  packer.pack(value);
}

const msgpack::object* find(const msgpack::object& map, std::string_view key) {
  for (std::uint32_t index = 0; index < map.via.map.size; ++index) {
    const msgpack::object_kv& each = map.via.map.ptr[index];
    if (std::string_view(each.key.via.str.ptr, each.key.via.str.size) == key) return &each.val;
  }
  return nullptr;
}

void packRequest(Packer& packer, const Request& request) {
  packer.pack_map(9);
  packText(packer, "operation");
  packText(packer, "sum of all given terms.");
  packPair(packer, "identifier", request.number);
  packText(packer, "sender");
  packText(packer, "a text of thirty-two bytes, here");
  packPair(packer, "factor", 2.0);
  packPair(packer, "offset", 0.5);
  packPair(packer, "is urgent", true);
  packPair(packer, "deadline", 1'700'000'000);
  packText(packer, "terms");
  packer.pack_array(4);
  for (const int term : {1, 20, 300, 4000}) packer.pack(term);
  packText(packer, "payload");
  packer.pack_bin(static_cast<std::uint32_t>(request.data.size()));
  packer.pack_bin_body(reinterpret_cast<const char*>(request.data.data()),
                       static_cast<std::uint32_t>(request.data.size()));
}

}  // namespace

double exchangeMessagePack(const Request& request) {
  msgpack::sbuffer bytes;
  Packer packer(bytes);
  packRequest(packer, request);
  msgpack::zone zone;
  const msgpack::object received = msgpack::unpack(zone, bytes.data(), bytes.size());
  const double result =
      find(received, "factor")->as<double>() * static_cast<double>(find(received, "identifier")->as<std::int64_t>()) +
      0.5;
  msgpack::sbuffer answer;
  Packer answering(answer);
  answering.pack_map(3);
  packPair(answering, "ok", true);
  packPair(answering, "result", result);
  packText(answering, "unit");
  packText(answering, "metres");
  msgpack::zone answerZone;
  const msgpack::object reply = msgpack::unpack(answerZone, answer.data(), answer.size());
  return find(reply, "result")->as<double>();
}

}  // namespace velto::benchmarks
