#include "broker/VeltoIPCRecallProtocol.h"

#include "platform/foundation/Foundation.h"

VeltoIPCRecallProtocol::~VeltoIPCRecallProtocol() = default;

template <>
const velto::xpc::Protocol& velto::xpc::protocolOf<VeltoIPCRecallProtocol>() {
  static const Protocol& table =
      *new Protocol("VeltoIPCRecallProtocol",
                    {method<&VeltoIPCRecallProtocol::registerAgain>("registerAgain:", Requirement::required)});
  return table;
}
