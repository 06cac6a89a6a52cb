#pragma once

#include "platform/foundation/NSError.h"

// The domain of the errors that proxy error handlers get.
VELTO_EXPORT extern const NSString& NSXPCErrorDomain;

enum NSXPCErrorCode : std::int64_t {
  // The connection was invalidated here, or was never made, or its name or endpoint cannot be reached.
  NSXPCConnectionInvalid = 1,
  // The other end went away without a goodbye, or broke the protocol.
  NSXPCConnectionInterrupted = 2,
  // The other end did not deliver the call: it lacks the method, or an argument was refused there.
  NSXPCCallRefused = 3,
  // The reply came, but holds what its class set does not allow; or it holds what cannot travel.
  NSXPCReplyRefused = 4,
  // The call or its reply is over a limit, or nothing more can be kept for an end that does not read.
  NSXPCLimitExceeded = 5,
  // The other end speaks another version of the protocol.
  NSXPCVersionMismatch = 6,
};
