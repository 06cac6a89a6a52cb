#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <unordered_map>
#include <vector>

#include "platform/foundation/NSString.h"
#include "platform/foundation/ThreadAnnotations.h"
#include "platform/xpc/NSXPCListener.h"
#include "platform/xpc/NSXPCListenerEndpoint.h"
#include "platform/xpc/connection/AcceptedConnections.h"
#include "platform/xpc/transport/PeerProcess.h"
#include "platform/xpc/transport/Reactor.h"
#include "platform/xpc/transport/Sockets.h"
#include "platform/xpc/transport/Traffic.h"

namespace velto::xpc {

class ConnectionCore;

// The listener behind an NSXPCListener: its socket, and the connections that have not called yet. Thread-safe.
class ListenerCore final : public transport::EventSource, public std::enable_shared_from_this<ListenerCore> {
 public:
  explicit ListenerCore(system::Descriptor socket);

  // Set up before anybody else knows the listener.
  void setEndpoint(NSXPCListenerEndpoint endpoint, system::Descriptor hangUpWrite);
  void setServed(transport::NamedSocket served);
  void setListener(const std::shared_ptr<NSXPCListener>& listener);

  NSXPCListenerEndpoint endpoint();
  ListenerTraffic traffic() const { return traffic_->sum(); }
  NSString path();
  void setDelegate(std::weak_ptr<NSXPCListenerDelegate> delegate);
  void resume();
  void invalidate();
  bool leave(const std::function<bool()>& mayLeave);

  void eventsArrived(std::uint32_t events) override;

 private:
  using Clock = std::chrono::steady_clock;
  struct Silent {
    std::weak_ptr<ConnectionCore> connection;
    Clock::time_point since;
    std::uint64_t peer;
  };
  using SilentConnections = std::map<std::uint64_t, Silent>;

  // Nobody can connect any more; `last` are those who have, and have not been accepted. False, and nothing happens,
  // when somebody is being accepted, or has been and has not called yet.
  bool closeDoor(std::vector<system::Descriptor>& last);
  void endAt(const transport::NameLock& names);
  // Accepts, as from the beginning, at another socket.
  void continueAt(transport::NamedSocket served);
  // One connection; false when there is none to accept.
  bool acceptOne();
  // What to do about an accept that has failed: whether to try again at once.
  bool mendAccept(int error);
  void acceptLater(const char* reason);
  void acceptSoon();
  void admit(system::Descriptor socket);
  void watchOver(system::Descriptor socket, std::shared_ptr<transport::PeerProcess> peer,
                 std::shared_ptr<AcceptedConnections::Place> place);
  // The oldest connection of the process that has the most.
  SilentConnections::iterator nextToGo() VELTO_REQUIRES(mutex_);
  Silent takeOut(SilentConnections::iterator silent) VELTO_REQUIRES(mutex_);
  void endCrowding();
  void handOver(const std::shared_ptr<ConnectionCore>& connection);
  void forget(std::uint64_t number);
  void endLongSilences();
  void armSilenceTimer() VELTO_REQUIRES(mutex_);

  const unsigned generation_ = system::forkGeneration();
  const std::shared_ptr<transport::Traffic> traffic_ = std::make_shared<transport::Traffic>();
  // Somebody has given way since the last connection was accepted.
  std::atomic<bool> madeRoom_{false};
  Mutex mutex_;
  system::SharedDescriptor socket_ VELTO_GUARDED_BY(mutex_);
  transport::Reactor::Identifier identifier_ VELTO_GUARDED_BY(mutex_) = 0;
  bool accepting_ VELTO_GUARDED_BY(mutex_) = false;
  // Until the next time that nobody can be accepted; 0 when somebody was.
  std::chrono::milliseconds acceptPause_ VELTO_GUARDED_BY(mutex_){0};
  NSXPCListenerEndpoint endpoint_ VELTO_GUARDED_BY(mutex_);
  system::Descriptor hangUpWrite_ VELTO_GUARDED_BY(mutex_);
  transport::NamedSocket served_ VELTO_GUARDED_BY(mutex_);
  std::weak_ptr<NSXPCListener> listener_ VELTO_GUARDED_BY(mutex_);
  std::weak_ptr<NSXPCListenerDelegate> delegate_ VELTO_GUARDED_BY(mutex_);
  SilentConnections silent_ VELTO_GUARDED_BY(mutex_);
  // How many of them each process has.
  std::unordered_map<std::uint64_t, std::size_t> silentOf_ VELTO_GUARDED_BY(mutex_);
  std::uint64_t lastNumber_ VELTO_GUARDED_BY(mutex_) = 0;
  transport::TimerQueue::Identifier silenceTimer_ VELTO_GUARDED_BY(mutex_) = 0;
};

}  // namespace velto::xpc
