#pragma once

#include <memory>

class NSXPCConnection;
class NSXPCListener;

// Decides about the connections that reach a listener.
class NSXPCListenerDelegate {
 public:
  virtual ~NSXPCListenerDelegate() = default;

  // A connection has come. Set it up and resume it, then return true; false turns it away. Called on a thread of the
  // platform, for several connections possibly at the same time.
  virtual bool listener(const std::shared_ptr<NSXPCListener>& listener,
                        const std::shared_ptr<NSXPCConnection>& shouldAcceptNewConnection) = 0;
};
