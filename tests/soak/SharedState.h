#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

namespace velto::soak {

inline constexpr std::size_t kMaximumListeners = 8;
inline constexpr std::size_t kMaximumClients = 16;
inline constexpr std::size_t kWorkersOfOneClient = 2;

enum class Phase : std::uint32_t { work, rest, stop };

// What is counted over all processes. The errors from `daemonInterrupted` on are those that delegates and sends report.
enum class Counter : std::size_t {
  connections,
  messages,
  repliesChecked,
  wrongReplies,
  unexplained,
  daemonInterrupted,
  daemonInvalidated,
  listenerInterrupted,
  listenerInvalidated,
  listenerNotAvailable,
  connectionInterrupted,
  connectionInvalidated,
  connectionNotAvailable,
  timedOut,
  platformError,
  otherError,
};
inline constexpr std::size_t kCounters = static_cast<std::size_t>(Counter::otherError) + 1;

// What one working thread shows of itself.
struct WorkerSlot {
  // Changes while it works.
  std::atomic<std::uint64_t> progress;
  // The round for which it has come to rest.
  std::atomic<std::uint64_t> restsFor;
};

struct ListenerSlot {
  WorkerSlot worker;
  // No longer from before it is killed until it is gone.
  std::atomic<bool> runs;
  // Counted before the kill.
  std::atomic<std::uint64_t> kills;
  // Connections that the listener closes of its own accord; counted before the close.
  std::atomic<std::uint64_t> closes;
  // The broker that knows it: 1 and the number of brokers killed before; 0 for none.
  std::atomic<std::uint64_t> registeredWith;
};

// In memory that all processes of a soak share: counts outlive whoever is killed, and what is about to be killed is
// known before anyone can hear of it.
struct SharedState {
  std::atomic<Phase> phase;
  std::atomic<std::uint64_t> round;
  std::atomic<std::uint64_t> brokerKills;
  // No longer from before it is killed until the next one listens.
  std::atomic<bool> brokerRuns;
  std::atomic<std::uint64_t> clientKills;
  std::array<ListenerSlot, kMaximumListeners> listeners;
  std::array<std::array<WorkerSlot, kWorkersOfOneClient>, kMaximumClients> clients;
  std::array<std::atomic<std::uint64_t>, kCounters> counters;
  std::atomic<std::uint32_t> listenerCount;

  void count(Counter counter) { counters[static_cast<std::size_t>(counter)].fetch_add(1); }
  std::uint64_t counted(Counter counter) const { return counters[static_cast<std::size_t>(counter)].load(); }
  std::uint64_t currentBroker() const { return brokerKills.load() + 1; }
};
static_assert(std::atomic<std::uint64_t>::is_always_lock_free && std::atomic<Phase>::is_always_lock_free);

// Makes the memory; children inherit the descriptor. Both end the program when they fail.
int makeSharedState();
SharedState& mapSharedState(int descriptor);

}  // namespace velto::soak
