// The broker's protocol as a table.
#include "broker/VeltoIPCDaemonProtocol.h"

VeltoIPCDaemonProtocol::~VeltoIPCDaemonProtocol() = default;

template <>
const velto::xpc::Protocol& velto::xpc::protocolOf<VeltoIPCDaemonProtocol>() {
  using Broker = VeltoIPCDaemonProtocol;
  static const Protocol& table = *new Protocol(
      "VeltoIPCDaemonProtocol",
      {
          method<&Broker::sendListenerConnection>("sendListenerConnection:withName:", Requirement::required),
          method<&Broker::findListenerEndpointForName>("findListenerEndpointForName:handle:", Requirement::required),
          method<&Broker::killListenerConnection>("killListenerConnection:", Requirement::required),
      });
  return table;
}
