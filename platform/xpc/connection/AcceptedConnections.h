#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <unordered_map>
#include <unordered_set>

#include "platform/foundation/ThreadAnnotations.h"
#include "platform/xpc/transport/Channel.h"

namespace velto::xpc {

class ConnectionCore;

// The connections that this process has accepted, by the process at their other end. Each takes a descriptor, of which
// there are only so many: when they are used up, whose process has the most gives way to one that has fewer, so that no
// process can keep the others out. Thread-safe.
class AcceptedConnections {
 public:
  using Clock = std::chrono::steady_clock;

  // One connection's place, for as long as it has a descriptor.
  class Place final : public transport::ChannelPlace {
   public:
    ~Place() override;
    Place(const Place&) = delete;
    Place& operator=(const Place&) = delete;
    void heard() noexcept override {
      lastHeard_.store(Clock::now().time_since_epoch().count(), std::memory_order_relaxed);
    }

   private:
    friend class AcceptedConnections;
    Place(AcceptedConnections& all, std::uint64_t peer) : all_(all), peer_(peer) { heard(); }

    AcceptedConnections& all_;
    const std::uint64_t peer_;
    std::atomic<Clock::rep> lastHeard_{0};
    std::weak_ptr<ConnectionCore> connection_;  // guarded by the lock of all
  };

  static AcceptedConnections& shared();

  // Takes a place for a connection of the process with this number. None when all are taken and no process has more
  // than this one; otherwise `gaveWay` is the connection that is to be ended for it, if there must be one.
  std::shared_ptr<Place> enter(std::uint64_t peer, std::shared_ptr<ConnectionCore>& gaveWay);
  void belongsTo(Place& place, const std::shared_ptr<ConnectionCore>& connection);
  // When the kernel has no descriptor left for another: the connection that is to give way; none when those that were
  // accepted are not what has used them up, or no process has more than one.
  std::shared_ptr<ConnectionCore> oneTooMany();
  std::size_t count();

 private:
  using Group = std::unordered_set<Place*>;

  void leave(Place& place);
  Group* greatest() VELTO_REQUIRES(mutex_);
  static std::shared_ptr<ConnectionCore> idlest(const Group& group);

  Mutex mutex_;
  std::size_t count_ VELTO_GUARDED_BY(mutex_) = 0;
  std::unordered_map<std::uint64_t, Group> groups_ VELTO_GUARDED_BY(mutex_);
};

}  // namespace velto::xpc
