// Whoever has the most gives way, and of its connections the one that has been silent for the longest. Looking for it
// takes time only when all places are taken.

#include "platform/xpc/connection/AcceptedConnections.h"

#include <algorithm>

#include "platform/xpc/connection/ConnectionCore.h"
#include "platform/xpc/contract/Limits.h"
#include "platform/xpc/system/PerProcess.h"
#include "platform/xpc/system/SystemCalls.h"

namespace velto::xpc {

namespace {

// What the process needs besides, a newcomer's descriptor included.
std::size_t places() {
  const std::size_t all = system::systemCalls().descriptorLimit();
  return all - all / limits::kPartKeptFree;
}

}  // namespace

AcceptedConnections& AcceptedConnections::shared() {
  return system::perProcess<AcceptedConnections>();
}

std::shared_ptr<AcceptedConnections::Place> AcceptedConnections::enter(std::uint64_t peer,
                                                                       std::shared_ptr<ConnectionCore>& gaveWay) {
  std::shared_ptr<Place> place(new Place(*this, peer));
  MutexLock lock(mutex_);
  Group& own = groups_[peer];
  if (count_ >= places()) {
    const Group* most = greatest();
    if (most->size() > own.size() + 1) gaveWay = idlest(*most);
    if (!gaveWay) {
      if (own.empty()) groups_.erase(peer);
      return nullptr;
    }
  }
  own.insert(place.get());
  ++count_;
  return place;
}

void AcceptedConnections::belongsTo(Place& place, const std::shared_ptr<ConnectionCore>& connection) {
  MutexLock lock(mutex_);
  place.connection_ = connection;
}

std::shared_ptr<ConnectionCore> AcceptedConnections::oneTooMany() {
  MutexLock lock(mutex_);
  if (count_ < system::systemCalls().descriptorLimit() / 2) return nullptr;
  const Group* most = greatest();
  return most != nullptr && most->size() > 1 ? idlest(*most) : nullptr;
}

std::size_t AcceptedConnections::count() {
  MutexLock lock(mutex_);
  return count_;
}

AcceptedConnections::Group* AcceptedConnections::greatest() {
  const auto found = std::max_element(groups_.begin(), groups_.end(), [](const auto& one, const auto& other) {
    return one.second.size() < other.second.size();
  });
  return found != groups_.end() ? &found->second : nullptr;
}

std::shared_ptr<ConnectionCore> AcceptedConnections::idlest(const Group& group) {
  const Place* found = nullptr;
  for (const Place* place : group) {
    if (place->connection_.expired()) continue;
    if (found == nullptr || place->lastHeard_.load() < found->lastHeard_.load()) found = place;
  }
  return found != nullptr ? found->connection_.lock() : nullptr;
}

void AcceptedConnections::leave(Place& place) {
  MutexLock lock(mutex_);
  const auto group = groups_.find(place.peer_);
  if (group == groups_.end() || group->second.erase(&place) == 0) return;
  --count_;
  if (group->second.empty()) groups_.erase(group);
}

AcceptedConnections::Place::~Place() {
  if (&all_ == &AcceptedConnections::shared()) all_.leave(*this);
}

}  // namespace velto::xpc
