#include "calls/NameSearch.h"

#include <string>
#include <utility>

#include "broker/VeltoIPCNamesProtocol.h"

namespace velto::calls {

NameSearch::NameSearch(const NSString& name, const std::optional<InProcess>& place, Ends ends)
    : name_(name),
      place_(place),
      ends_(std::move(ends)),
      link_(place ? nullptr : NSXPCConnection::initWithServiceName(VeltoIPCDaemonServiceName)) {}

void NameSearch::start() {
  place_ ? searchHere(*place_->names()) : askBroker();
}

void NameSearch::searchHere(Names& names) {
  const auto [isServed, connection] = names.connect(name_.string());
  if (connection) return ends_.found(connection);
  if (isServed) return ends_.failed({Failure::unavailable, "the kernel has nothing left for a connection"});
  if (!ends_.isAbsent(nobodyServes())) return;
  wait_ = names.wait(name_.string(), 0, [weak = weak_from_this()](const NameState&) {
    if (const auto self = weak.lock()) self->ends_.changed();
  });
}

void NameSearch::askBroker() {
  link_->setRemoteObjectInterface(NSXPCInterface::interfaceWithProtocol<VeltoIPCNamesProtocol>());
  link_->resume();
  const auto broker =
      link_->remoteObjectProxyWithErrorHandler<VeltoIPCNamesProtocol>([weak = weak_from_this()](const NSError& error) {
        if (const auto self = weak.lock()) {
          self->ends_.failed(
              {Failure::unavailable, "the broker cannot be asked: " + error.localizedDescription().string()});
        }
      });
  broker->call<&VeltoIPCNamesProtocol::findListenerEndpointForName>(
      name_, [weak = weak_from_this()](const NSXPCListenerEndpoint& endpoint) {
        const auto self = weak.lock();
        if (!self) return;
        if (endpoint) return self->ends_.found(NSXPCConnection::initWithListenerEndpoint(endpoint));
        if (self->ends_.isAbsent(self->nobodyServes())) self->waitAtBroker();
      });
}

// A broker that lacks the method, or has no room for one more that waits, is to be asked again and again.
void NameSearch::waitAtBroker() {
  const auto failed = [weak = weak_from_this()] {
    if (const auto self = weak.lock()) self->ends_.failed(self->nobodyServes());
  };
  const auto broker =
      link_->remoteObjectProxyWithErrorHandler<VeltoIPCNamesProtocol>([failed](const NSError&) { failed(); });
  broker->call<&VeltoIPCNamesProtocol::waitForName>(
      name_, nil, [weak = weak_from_this(), failed](const NSXPCListenerEndpoint& endpoint) {
        if (!endpoint) return failed();
        if (const auto self = weak.lock()) self->ends_.found(NSXPCConnection::initWithListenerEndpoint(endpoint));
      });
}

CallError NameSearch::nobodyServes() const {
  return {Failure::unavailable, "nobody serves \"" + name_.string() + "\""};
}

}  // namespace velto::calls
