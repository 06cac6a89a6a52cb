#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tests/soak/ProcessCensus.h"
#include "tests/soak/SharedState.h"

namespace velto::soak {

// What the supervisor has done and found, besides what is counted in shared memory.
struct Summary {
  std::uint64_t clientKills = 0;
  std::uint64_t listenerKills = 0;
  std::uint64_t brokerKills = 0;
  std::uint64_t halts = 0;
  std::uint64_t restarts = 0;

  // A process that lived all the time, or one life of the broker.
  struct LongLived {
    std::string who;
    ProcessCensus start;
    ProcessCensus end;
  };
  std::vector<LongLived> longLived;
  std::vector<std::string> failures;
};

// Prints it; true when nothing has failed.
bool print(const Summary& summary, const SharedState& shared);

}  // namespace velto::soak
