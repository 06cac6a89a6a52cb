#include "broker/VeltoIPCRecallProtocol.h"

#include "platform/foundation/Foundation.h"

VeltoIPCRecallProtocol::~VeltoIPCRecallProtocol() = default;

void VeltoIPCRecallProtocol::describeListeners(std::function<void(NSDictionary)>) {
  throw NSXPCUnrecognizedSelector("describeListeners:");
}

template <>
const velto::xpc::Protocol& velto::xpc::protocolOf<VeltoIPCRecallProtocol>() {
  static const Protocol& table =
      *new Protocol("VeltoIPCRecallProtocol",
                    {method<&VeltoIPCRecallProtocol::registerAgain>("registerAgain:", Requirement::required),
                     method<&VeltoIPCRecallProtocol::describeListeners>("describeListeners:", Requirement::optional)});
  return table;
}
