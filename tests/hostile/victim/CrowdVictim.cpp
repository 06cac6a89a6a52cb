// Clients by the hundred, to see what it costs a process that they all wait.

#include "tests/hostile/victim/CrowdVictim.h"

namespace velto::hostile {

CrowdVictim::CrowdVictim(const std::string& name, std::size_t count) {
  while (connections_.size() < count) connections_.push_back(VeltoConnection::initWithServiceName(name, delegate_));
}

std::string CrowdVictim::figures() {
  std::size_t found = 0;
  for (const auto& connection : connections_) found += connection->listenerConnection() ? 1 : 0;
  return "found=" + std::to_string(found);
}

}  // namespace velto::hostile
