#pragma once

#include <chrono>
#include <cstdint>
#include <stdexcept>

#include "benchmarks/transport/Peer.h"

namespace velto::transport {

// What measures share.
using Clock = std::chrono::steady_clock;

inline double secondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

template <class Work>
double microseconds(const Work& work) {
  const Clock::time_point start = Clock::now();
  work();
  return secondsSince(start) * 1e6;
}

inline void checkedRoundTrip(Link& link, std::int64_t number) {
  const double result = link.roundTrip({.number = number});
  if (result != benchmarks::kFactor * static_cast<double>(number) + benchmarks::kOffset) {
    throw std::runtime_error("the reply holds a wrong result");
  }
}

inline void warmUp(Link& link) {
  constexpr std::int64_t kRoundTrips = 200;
  for (std::int64_t number = 1; number <= kRoundTrips; ++number) checkedRoundTrip(link, number);
}

}  // namespace velto::transport
