// The link to the broker. Its handlers know the delegate and nothing else: they report, and leave the object that owns
// the link as it is.
#include "broker/DaemonConnection.h"

#include <functional>

#include "message/DelegateCalls.h"
#include "message/Errors.h"
#include "platform/logging/VeltoLogging.h"

namespace {

std::function<void()> reportingTo(const std::weak_ptr<VeltoIPCDelegate>& weakDelegate, const char* text) {
  return [weakDelegate, text] {
    VKTLoggingLog(VKTLogGetAnchor(), 0, "%s", text);
    const NSError error = velto::makeError(VeltoIPCConnectionError, text);
    velto::tellError(weakDelegate.lock(), nil, error);
  };
}

}  // namespace

std::shared_ptr<NSXPCConnection> setupDaemonConnection(const std::shared_ptr<VeltoIPCDelegate>& delegate) {
  const auto interface = NSXPCInterface::interfaceWithProtocol<VeltoIPCDaemonProtocol>();
  auto connection = NSXPCConnection::initWithServiceName(VeltoIPCDaemonServiceName);
  connection->setRemoteObjectInterface(interface);
  const std::weak_ptr<VeltoIPCDelegate> weakDelegate = delegate;
  connection->setInterruptionHandler(reportingTo(weakDelegate, "Daemon connection interrupted"));
  connection->setInvalidationHandler(reportingTo(weakDelegate, "Daemon connection invalidated"));
  connection->resume();
  VKTLoggingLog(VKTLogGetAnchor(), 2, "DaemonConnection Created");
  return connection;
}
