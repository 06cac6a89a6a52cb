#pragma once

#include <array>
#include <cstdint>

namespace velto::benchmarks {

// What a request holds: what differs from one to the next, and the data that all carry.
struct Request {
  std::int64_t number = 0;
  std::array<std::uint8_t, 64> data{};
};

// The work: a request of nine keys is built, encoded, decoded, and read by two keys; a reply of three keys is built,
// encoded, decoded, and read by one. Answers what the reply holds: twice the number and a half.
double exchangeValues(const Request& request);
// The same with msgpack-cxx: packed from plain variables, unpacked into a zone.
double exchangeMessagePack(const Request& request);

}  // namespace velto::benchmarks
