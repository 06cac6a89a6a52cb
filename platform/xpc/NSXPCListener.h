#pragma once

#include <memory>

#include "platform/foundation/NSError.h"
#include "platform/foundation/NSString.h"
#include "platform/xpc/NSXPCListenerEndpoint.h"
#include "platform/xpc/contract/NSXPCListenerDelegate.h"

class NSXPCConnection;

namespace velto::xpc {
class ConnectionCore;
class ListenerCore;
}  // namespace velto::xpc

// Accepts connections: an anonymous listener those of whoever holds its endpoint, a named one those of this user's
// processes that ask for the name. A new connection is handed to the delegate when its first call arrives; on the new
// connection's own queue, so that several may be handed over at the same time, but each before its own first call is
// delivered.
//
// Thread-safe. Letting go of the last reference ends it like invalidate().
class VELTO_EXPORT NSXPCListener final {
 public:
  // Null, and a line in the log, when the kernel has nothing left for it.
  static std::shared_ptr<NSXPCListener> anonymousListener();
  // Null and `*error` when the name cannot be served: it could not be a file's name, somebody serves it already, or the
  // runtime directory is not to be had.
  static std::shared_ptr<NSXPCListener> listenerWithServiceName(const NSString& serviceName, NSError* error = nullptr);
  ~NSXPCListener();
  NSXPCListener(const NSXPCListener&) = delete;
  NSXPCListener& operator=(const NSXPCListener&) = delete;

  // What others connect by. nil for a named listener.
  NSXPCListenerEndpoint endpoint() const;
  // Where a named listener is reached; nil for an anonymous one.
  NSString path() const;
  // Held weakly.
  void setDelegate(std::weak_ptr<NSXPCListenerDelegate> delegate);
  // Starts; further calls do nothing.
  void resume();
  // Accepts nothing more; connections already accepted go on.
  void invalidate();

 private:
  friend class velto::xpc::ListenerCore;
  explicit NSXPCListener(std::shared_ptr<velto::xpc::ListenerCore> core);
  static std::shared_ptr<NSXPCListener> make(std::shared_ptr<velto::xpc::ListenerCore> core);
  static std::shared_ptr<NSXPCConnection> wrap(std::shared_ptr<velto::xpc::ConnectionCore> core);

  const std::shared_ptr<velto::xpc::ListenerCore> core_;
};
