#pragma once

#include <memory>
#include <string>
#include <vector>

#include "VeltoIPC/VeltoListener.h"
#include "broker/VeltoIPCDaemonProtocol.h"
#include "platform/foundation/ThreadAnnotations.h"
#include "platform/xpc/NSXPCConnection.h"
#include "platform/xpc/NSXPCListener.h"
#include "platform/xpc/contract/NSXPCListenerDelegate.h"

namespace velto::testing {

// Waits until the broker has taken what was sent over the link before.
void settle(const std::shared_ptr<NSXPCConnection>& link);

// A link to the broker of the test's own, to register and look up what it likes.
class TestLink {
 public:
  TestLink();
  ~TestLink();

  // Registered when it returns.
  void registerEndpoint(const NSXPCListenerEndpoint& endpoint, const std::string& name);
  // Dropped when it returns.
  void kill(const std::string& name);
  NSXPCListenerEndpoint find(const std::string& name);

 private:
  std::shared_ptr<NSXPCConnection> connection_;
  std::shared_ptr<NSXPCProxy<VeltoIPCDaemonProtocol>> proxy_;
};

// A broker that answers what the test tells it to, and writes down what it is asked.
class ScriptedBroker final : public NSXPCListenerDelegate,
                             public VeltoIPCDaemonProtocol,
                             public std::enable_shared_from_this<ScriptedBroker> {
 public:
  static std::shared_ptr<ScriptedBroker> start();
  ~ScriptedBroker() override;

  // "register NAME", "find NAME", "kill NAME", "link ended", in the order of arrival.
  std::vector<std::string> calls() const;
  // What was registered last; nil before.
  NSXPCListenerEndpoint registered() const;
  // What lookups get; without it they are never answered.
  void answerWith(const NSXPCListenerEndpoint& endpoint);
  // Ends every link.
  void dropLinks();
  // Ends the service and every link. Call it at the end of the test: the links hold their broker, which would otherwise
  // be destroyed on a thread of the platform while the next test makes its runtime directory.
  void stop();

  void sendListenerConnection(NSXPCListenerEndpoint endpoint, NSString withName) override;
  void findListenerEndpointForName(NSString name, std::function<void(NSXPCListenerEndpoint)> handle) override;
  void killListenerConnection(NSString name) override;
  bool listener(const std::shared_ptr<NSXPCListener>& listener,
                const std::shared_ptr<NSXPCConnection>& shouldAcceptNewConnection) override;

 private:
  void record(const std::string& call);

  std::shared_ptr<NSXPCListener> listener_;
  mutable Mutex mutex_;
  std::vector<std::string> calls_ VELTO_GUARDED_BY(mutex_);
  std::vector<std::function<void(NSXPCListenerEndpoint)>> unanswered_ VELTO_GUARDED_BY(mutex_);
  NSXPCListenerEndpoint registered_ VELTO_GUARDED_BY(mutex_);
  NSXPCListenerEndpoint answer_ VELTO_GUARDED_BY(mutex_);
  bool answers_ VELTO_GUARDED_BY(mutex_) = false;
  std::vector<std::shared_ptr<NSXPCConnection>> links_ VELTO_GUARDED_BY(mutex_);
};

}  // namespace velto::testing
