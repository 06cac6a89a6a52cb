#pragma once

#include <functional>

#include "platform/foundation/NSDictionary.h"
#include "platform/foundation/NSNumber.h"
#include "platform/xpc/Protocol.h"

// What the names of the services begin with at which processes with listeners can be asked.
inline constexpr char VeltoIPCListenerServicePrefix[] = "listener-";

// What a broker asks a process that has listeners when it has just started, and knows of none of them.
class VeltoIPCRecallProtocol {
 public:
  virtual ~VeltoIPCRecallProtocol();

  // Registers again what is registered. Answers once, with how many there are, when the broker has dealt with all of
  // them, or cannot be reached.
  virtual void registerAgain(std::function<void(NSNumber)> answer) = 0;
  // What tools ask: answers once, with the process and its listeners, each with its name and traffic:
  // {"process": 4711, "listeners": [{"name": …, "connections": 1, "accepted": 2, "messagesIn": 3, "messagesOut": 4,
  // "bytesIn": 5, "bytesOut": 6, "undeliveredBytes": 7, "unsentBytes": 8}]}
  virtual void describeListeners(std::function<void(NSDictionary)> answer);
};

template <>
const velto::xpc::Protocol& velto::xpc::protocolOf<VeltoIPCRecallProtocol>();
