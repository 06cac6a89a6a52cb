// The link to the broker. Its handlers know the delegate and nothing else: they report, and leave the object that owns
// the link as it is.
#include "broker/DaemonConnection.h"

#include <functional>

#include "broker/BrokerConnection.h"
#include "message/DelegateCalls.h"
#include "message/Errors.h"
#include "platform/logging/OrderlyEnd.h"

namespace {

using Callbacks = std::shared_ptr<const velto::CallbackDelivery>;

std::function<void()> reportingTo(const std::weak_ptr<VeltoIPCDelegate>& weakDelegate, const Callbacks& callbacks,
                                  const char* text) {
  return [weakDelegate, callbacks, text] {
    velto::logEnd(VKTLogGetAnchor(), 0, "%s", text);
    const NSError error = velto::makeError(VeltoIPCConnectionError, text);
    if (!callbacks) return velto::tellError(weakDelegate.lock(), nil, error);
    callbacks->run([weakDelegate, error] { velto::tellError(weakDelegate.lock(), nil, error); });
  };
}

}  // namespace

std::shared_ptr<NSXPCConnection> setupDaemonConnection(const std::shared_ptr<VeltoIPCDelegate>& delegate,
                                                       const Callbacks& callbacks) {
  const auto interface = NSXPCInterface::interfaceWithProtocol<VeltoIPCDaemonProtocol>();
  auto connection = velto::connectionToBroker();
  connection->setRemoteObjectInterface(interface);
  const std::weak_ptr<VeltoIPCDelegate> weakDelegate = delegate;
  connection->setInterruptionHandler(reportingTo(weakDelegate, callbacks, "Daemon connection interrupted"));
  connection->setInvalidationHandler(reportingTo(weakDelegate, callbacks, "Daemon connection invalidated"));
  connection->resume();
  VKTLoggingLog(VKTLogGetAnchor(), 2, "DaemonConnection Created");
  return connection;
}
