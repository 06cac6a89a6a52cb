#pragma once

#include <array>
#include <cstdint>
#include <span>

namespace velto::benchmarks {

inline constexpr std::array<std::uint8_t, 64> kUsualData{};

// What differs from one request to the next. The data is borrowed.
struct Request {
  std::int64_t number = 0;
  std::span<const std::uint8_t> data = kUsualData;
};

// The rest of a request, and of a reply.
inline constexpr char kOperation[] = "sum of all given terms.";
inline constexpr char kSender[] = "a text of thirty-two bytes, here";
inline constexpr double kFactor = 2.0;
inline constexpr double kOffset = 0.5;
inline constexpr int kDeadline = 1'700'000'000;
inline constexpr std::array kTerms{1, 20, 300, 4000};
inline constexpr char kUnit[] = "metres";

// The work: a request of nine keys is built, encoded, decoded, and read by two keys; a reply of three keys is built,
// encoded, decoded, and read by one. Answers what the reply holds: twice the number and a half.
double exchangeValues(const Request& request);
// The same with msgpack-cxx: packed from plain variables, unpacked into a zone.
double exchangeMessagePack(const Request& request);

}  // namespace velto::benchmarks
