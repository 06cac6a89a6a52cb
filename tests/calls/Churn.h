#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <string>

namespace velto::testing {

// What became of the calls of clients that reconnect, while their service and the broker were killed in turn.
struct ChurnCensus {
  int serviceKills = 0;
  int brokerKills = 0;
  std::uint64_t calls = 0;
  std::uint64_t ends = 0;
  std::uint64_t replies = 0;
  // Replies that were another call's.
  std::uint64_t wrongReplies = 0;
  // How calls failed, by the name of the failure.
  std::map<std::string, std::uint64_t> failures;
  // Of all clients together.
  std::uint64_t losses = 0;
  std::uint64_t reconnections = 0;
  // Clients that were answered after the last kill.
  int clientsWell = 0;
};

// Lets so many clients call as fast as they can, for so long, each with several calls under way.
ChurnCensus churn(std::chrono::milliseconds duration, int clients);

}  // namespace velto::testing
