// The work in msgpack-cxx.
#include "benchmarks/MessagePackMessages.h"

namespace velto::benchmarks {

double exchangeMessagePack(const Request& request) {
  msgpack::sbuffer bytes;
  Packer packer(bytes);
  packRequest(packer, request);
  msgpack::zone zone;
  const msgpack::object received = msgpack::unpack(zone, bytes.data(), bytes.size());
  const double result =
      find(received, "factor")->as<double>() * static_cast<double>(find(received, "identifier")->as<std::int64_t>()) +
      kOffset;
  msgpack::sbuffer answer;
  Packer answering(answer);
  packReply(answering, result);
  msgpack::zone answerZone;
  const msgpack::object reply = msgpack::unpack(answerZone, answer.data(), answer.size());
  return find(reply, "result")->as<double>();
}

}  // namespace velto::benchmarks
