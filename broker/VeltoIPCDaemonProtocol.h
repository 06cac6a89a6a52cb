#pragma once

#include <functional>

#include "platform/foundation/NSString.h"
#include "platform/xpc/NSXPCListenerEndpoint.h"
#include "platform/xpc/Protocol.h"

// The service that the broker offers.
inline constexpr char VeltoIPCDaemonServiceName[] = "org.velto.VeltoIPCDaemon";

// What the broker is asked. A name is any text of 1 to 255 bytes.
class VeltoIPCDaemonProtocol {
 public:
  virtual ~VeltoIPCDaemonProtocol();

  // Keeps a listener's endpoint under a name. The last one of a name wins.
  virtual void sendListenerConnection(NSXPCListenerEndpoint endpoint, NSString withName) = 0;
  // Answers once: with the endpoint that is kept under the name, or with nil.
  virtual void findListenerEndpointForName(NSString name, std::function<void(NSXPCListenerEndpoint)> handle) = 0;
  // Forgets what is kept under a name.
  virtual void killListenerConnection(NSString name) = 0;
};

template <>
const velto::xpc::Protocol& velto::xpc::protocolOf<VeltoIPCDaemonProtocol>();
