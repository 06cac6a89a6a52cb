// The broker's links. Each link exports an object of its own, because what one client may register is counted per link;
// and a registration outlives the link that made it, because a listener may close its link and listen on.
#include "daemon/Broker.h"

#include <utility>

#include "platform/logging/VeltoLogging.h"

namespace velto {
namespace {

// What one client calls.
class Link final : public VeltoIPCDaemonProtocol {
 public:
  explicit Link(std::shared_ptr<Registry> registry)
      : registry_(std::move(registry)), registrant_(Registry::makeRegistrant()) {}

  void sendListenerConnection(NSXPCListenerEndpoint endpoint, NSString withName) override {
    registry_->add(withName, endpoint, registrant_);
    VKTLoggingLog(VKTLogGetAnchor(), 2, "Registered %@", withName);
  }

  void findListenerEndpointForName(NSString name, std::function<void(NSXPCListenerEndpoint)> handle) override {
    const NSXPCListenerEndpoint endpoint = registry_->find(name);
    VKTLoggingLog(VKTLogGetAnchor(), 2, "Looked up %@: %s", name, endpoint ? "found" : "not registered");
    if (handle) handle(endpoint);
  }

  void killListenerConnection(NSString name) override {
    if (registry_->drop(name)) VKTLoggingLog(VKTLogGetAnchor(), 2, "Dropped %@ as asked", name);
  }

 private:
  const std::shared_ptr<Registry> registry_;
  const std::shared_ptr<Registrant> registrant_;
};

}  // namespace

Broker::Broker(const BrokerLimits& limits)
    : limits_(limits),
      registry_(Registry::make(limits)),
      interface_(NSXPCInterface::interfaceWithProtocol<VeltoIPCDaemonProtocol>()) {}

std::shared_ptr<Broker> Broker::make(const BrokerLimits& limits) {
  return std::shared_ptr<Broker>(new Broker(limits));
}

bool Broker::listener(const std::shared_ptr<NSXPCListener>&,
                      const std::shared_ptr<NSXPCConnection>& shouldAcceptNewConnection) {
  const std::uint64_t number = keep(shouldAcceptNewConnection);
  if (number == 0) {
    VKTLoggingLog(VKTLogGetAnchor(), 0, "A link was refused: links would be %u; the maximum is %u", limits_.links + 1,
                  limits_.links);
    return false;
  }
  shouldAcceptNewConnection->setExportedInterface(interface_);
  shouldAcceptNewConnection->setExportedObject<VeltoIPCDaemonProtocol>(std::make_shared<Link>(registry_));
  shouldAcceptNewConnection->setInvalidationHandler([weakSelf = weak_from_this(), number] {
    if (const auto self = weakSelf.lock()) self->forget(number);
  });
  shouldAcceptNewConnection->resume();
  return true;
}

std::uint64_t Broker::keep(const std::shared_ptr<NSXPCConnection>& link) {
  MutexLock lock(mutex_);
  if (links_.size() >= limits_.links) return 0;
  links_.emplace(++lastNumber_, link);
  return lastNumber_;
}

void Broker::forget(std::uint64_t number) {
  // Let go of after the lock.
  std::shared_ptr<NSXPCConnection> link;
  MutexLock lock(mutex_);
  const auto found = links_.find(number);
  if (found == links_.end()) return;
  link = std::move(found->second);
  links_.erase(found);
}

std::size_t Broker::linkCount() const {
  MutexLock lock(mutex_);
  return links_.size();
}

}  // namespace velto
