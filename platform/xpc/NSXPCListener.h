#pragma once

#include <functional>
#include <memory>

#include "platform/foundation/NSArray.h"
#include "platform/foundation/NSError.h"
#include "platform/foundation/NSString.h"
#include "platform/xpc/NSXPCListenerEndpoint.h"
#include "platform/xpc/contract/ListenerTraffic.h"
#include "platform/xpc/contract/NSXPCListenerDelegate.h"

class NSXPCConnection;

namespace velto::transport {
struct NamedSocket;
}
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
  // At a socket that this process was started with, which listens already; taken over. Under the name that it has in
  // the runtime directory, or nameless: then whoever made it takes care of its name. Null and `*error` when it is no
  // such socket.
  static std::shared_ptr<NSXPCListener> listenerWithPassedSocket(int takenSocket, const NSString& serviceName,
                                                                 NSError* error = nullptr);
  // Under a name that begins so and that no other ever has.
  static std::shared_ptr<NSXPCListener> listenerWithFreshServiceName(const NSString& prefix, NSError* error = nullptr);
  // The names of this user's services that begin so; of some nobody may listen any more.
  static NSArray serviceNamesWithPrefix(const NSString& prefix);
  // Takes those of the names away that nobody serves any more.
  static void forgetServiceNames(const NSArray& names);
  ~NSXPCListener();
  NSXPCListener(const NSXPCListener&) = delete;
  NSXPCListener& operator=(const NSXPCListener&) = delete;

  // What others connect by. nil for a named listener.
  NSXPCListenerEndpoint endpoint() const;
  // Where a named listener is reached; nil for an anonymous one.
  NSString path() const;
  // What has gone over its connections so far, and what they hold.
  velto::xpc::ListenerTraffic traffic() const;
  // Held weakly.
  void setDelegate(std::weak_ptr<NSXPCListenerDelegate> delegate);
  // Starts; further calls do nothing.
  void resume();
  // Accepts nothing more; connections already accepted go on.
  void invalidate();
  // Ends like invalidate(), unless somebody has connected meanwhile, or `mayLeave` (which must not block) says no: who
  // asks for the name at the same time either is served here or finds nobody, and nothing is lost. False, and all is as
  // it was, when it stays. Only for a named listener.
  bool leave(const std::function<bool()>& mayLeave);

 private:
  friend class velto::xpc::ListenerCore;
  explicit NSXPCListener(std::shared_ptr<velto::xpc::ListenerCore> core);
  static std::shared_ptr<NSXPCListener> serving(velto::transport::NamedSocket made, NSError* error);
  static std::shared_ptr<NSXPCListener> make(std::shared_ptr<velto::xpc::ListenerCore> core);
  static std::shared_ptr<NSXPCConnection> wrap(std::shared_ptr<velto::xpc::ConnectionCore> core);

  const std::shared_ptr<velto::xpc::ListenerCore> core_;
};
