#include "broker/BrokerConnection.h"

#include "broker/VeltoIPCDaemonProtocol.h"

namespace velto {

// One that was started so serves whoever needs it, and goes when nobody has needed it for a while.
std::shared_ptr<NSXPCConnection> connectionToBroker() {
  return NSXPCConnection::initWithServiceName(VeltoIPCDaemonServiceName, brokerProgram());
}

xpc::ServingProgram brokerProgram() {
  return {"VeltoIPCDaemon", VELTO_INSTALLED_DAEMON, "VELTO_IPC_DAEMON", {"--leave-when-idle=10"}};
}

}  // namespace velto
