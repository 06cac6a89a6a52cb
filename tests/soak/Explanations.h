#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "platform/foundation/NSError.h"
#include "tests/soak/SharedState.h"

namespace velto::soak {

Counter counterOf(const NSError& error);
const char* nameOf(Counter counter);

// Counts a failure of the soak and says what it was.
void reportUnexplained(SharedState& shared, const std::string& who, const std::string& what);
void reportWrongReply(SharedState& shared, const std::string& who, const std::string& what);

// The life of one client's connection, and what can have gone wrong in it: whatever is heard must have a cause that was
// there before, a kill or a close.
class ConnectionCauses {
 public:
  // Made before the connection.
  ConnectionCauses(SharedState& shared, std::size_t listener);

  // To be called before the client closes its connection.
  void willClose() { closes_ = true; }
  // Counts the error, and reports it unless something explains it.
  void heard(const NSError& error);
  bool isOver() const { return closes_ || listenerIsGone() || brokerIsGone(); }

 private:
  bool listenerIsGone() const;
  bool listenerWasKilled() const;
  bool brokerIsGone() const;
  bool explains(Counter counter) const;

  SharedState& shared_;
  const std::size_t listener_;
  const std::uint64_t brokerKills_;
  const std::uint64_t listenerKills_;
  const std::uint64_t listenerCloses_;
  const bool wasAvailable_;
  std::atomic<bool> closes_{false};
};

}  // namespace velto::soak
