#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>

#include "platform/foundation/NSString.h"
#include "platform/foundation/ThreadAnnotations.h"
#include "platform/xpc/NSXPCListener.h"
#include "platform/xpc/NSXPCListenerEndpoint.h"
#include "platform/xpc/transport/Reactor.h"
#include "platform/xpc/transport/Sockets.h"

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
  NSString path();
  void setDelegate(std::weak_ptr<NSXPCListenerDelegate> delegate);
  void resume();
  void invalidate();

  void eventsArrived(std::uint32_t events) override;

 private:
  using Clock = std::chrono::steady_clock;
  struct Silent {
    std::weak_ptr<ConnectionCore> connection;
    Clock::time_point since;
  };

  // One connection; false when there is none to accept.
  bool acceptOne();
  // Whether so many say nothing that one more must wait until the oldest has had its time.
  bool isCrowded() const VELTO_REQUIRES(mutex_);
  void acceptLater() VELTO_REQUIRES(mutex_);
  void admit(system::Descriptor socket);
  void handOver(const std::shared_ptr<ConnectionCore>& connection);
  void forget(std::uint64_t number);
  void endLongSilences();
  void armSilenceTimer() VELTO_REQUIRES(mutex_);

  const unsigned generation_ = system::forkGeneration();
  Mutex mutex_;
  system::SharedDescriptor socket_ VELTO_GUARDED_BY(mutex_);
  transport::Reactor::Identifier identifier_ VELTO_GUARDED_BY(mutex_) = 0;
  bool accepting_ VELTO_GUARDED_BY(mutex_) = false;
  NSXPCListenerEndpoint endpoint_ VELTO_GUARDED_BY(mutex_);
  system::Descriptor hangUpWrite_ VELTO_GUARDED_BY(mutex_);
  transport::NamedSocket served_ VELTO_GUARDED_BY(mutex_);
  std::weak_ptr<NSXPCListener> listener_ VELTO_GUARDED_BY(mutex_);
  std::weak_ptr<NSXPCListenerDelegate> delegate_ VELTO_GUARDED_BY(mutex_);
  std::map<std::uint64_t, Silent> silent_ VELTO_GUARDED_BY(mutex_);
  std::uint64_t lastNumber_ VELTO_GUARDED_BY(mutex_) = 0;
  transport::TimerQueue::Identifier silenceTimer_ VELTO_GUARDED_BY(mutex_) = 0;
};

}  // namespace velto::xpc
