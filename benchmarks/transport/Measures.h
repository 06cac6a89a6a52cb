#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "benchmarks/transport/Watch.h"

namespace velto::transport {

// What a measure is given.
struct Arrangement {
  std::string address;
  // The processes that work: this one, the server, and brokers.
  std::vector<Watched> processes;
  double seconds = 1;
  // Round trips, outstanding ones, bytes or connections, as the measure takes it.
  std::int64_t amount = 0;
};

// Runs the measure of that name; std::invalid_argument for an unknown one. What the transport does not do is thrown as
// Unsupported, and what fails as any other exception.
Figures measure(const std::string& name, const Arrangement& arrangement);

// Two of them, of many connections and of how costs grow.
Figures clients(const Arrangement& given);
Figures growth(const Arrangement& given);

}  // namespace velto::transport
