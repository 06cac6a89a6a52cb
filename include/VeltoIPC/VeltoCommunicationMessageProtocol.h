#pragma once

#include "VeltoIPC/VeltoIPCDelegate.h"
#include "platform/foundation/NSDictionary.h"
#include "platform/foundation/NSError.h"
#include "platform/foundation/NSString.h"

// What the two ends of a connection say to each other. Both classes of the library implement it and are the objects
// that their connections export; nobody else calls it.
class VELTO_EXPORT VeltoCommunicationMessageProtocol {
 public:
  virtual ~VeltoCommunicationMessageProtocol();

  // Both ends: a message, and the handler that takes its reply.
  virtual void connectionID(NSString connectionID, NSDictionary withMessage, VeltoReplyHandler handler) = 0;
  // Both ends: the other end reports an error.
  virtual void connectionError(NSError error) = 0;

  // Client only: whether outgoing messages are held to the plain types.
  virtual void setStrictMessageTypesRemote(bool flag);
  // Client only: the identifier that the listener gave to this connection.
  virtual void connectionUUID(NSString connectionID);
  // Listener only: a client has set up its connection.
  virtual void ping();
};
