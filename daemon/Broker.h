#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>

#include "VeltoIPC/NSXPCListenerDelegate.h"
#include "broker/VeltoIPCDaemonProtocol.h"
#include "daemon/Registry.h"
#include "platform/xpc/NSXPCConnection.h"

namespace velto {

// The broker: accepts links, and keeps the endpoints that listeners send under the names that clients ask for. Make it
// the delegate of a listener, named or anonymous, and hold it: listeners hold their delegates weakly.
//
// Every link has a queue of its own, so no client waits for another; all they share is the registry's short lock.
// Thread-safe.
class Broker final : public NSXPCListenerDelegate, public std::enable_shared_from_this<Broker> {
 public:
  static std::shared_ptr<Broker> make(const BrokerLimits& limits = {});

  bool listener(const std::shared_ptr<NSXPCListener>& listener,
                const std::shared_ptr<NSXPCConnection>& shouldAcceptNewConnection) override;

  std::size_t linkCount() const;
  std::size_t nameCount() const { return registry_->count(); }

 private:
  explicit Broker(const BrokerLimits& limits);
  // 0 when there is no room.
  std::uint64_t keep(const std::shared_ptr<NSXPCConnection>& link);
  void forget(std::uint64_t number);

  const BrokerLimits limits_;
  const std::shared_ptr<Registry> registry_;
  const std::shared_ptr<NSXPCInterface> interface_;
  mutable Mutex mutex_;
  std::uint64_t lastNumber_ VELTO_GUARDED_BY(mutex_) = 0;
  std::map<std::uint64_t, std::shared_ptr<NSXPCConnection>> links_ VELTO_GUARDED_BY(mutex_);
};

}  // namespace velto
