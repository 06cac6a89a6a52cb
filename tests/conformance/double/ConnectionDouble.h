#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "platform/foundation/ThreadAnnotations.h"
#include "platform/xpc/NSXPCConnection.h"
#include "tests/conformance/double/Journal.h"
#include "tests/conformance/double/RecordedCall.h"

namespace velto::xpc {

// What stands behind an NSXPCConnection of the double. It writes every call of the library into the journal and does
// nothing by itself: the test plays the platform with it. `number` counts the connections from 1. Thread-safe.
//
//   connection#N initWithServiceName NAME | initWithListenerEndpoint | accepted
//   connection#N setRemoteObjectInterface interface#M | setExportedInterface interface#M | setExportedObject
//   connection#N setInterruptionHandler | setInvalidationHandler | resume | invalidate
//   connection#N remoteObjectProxyWithErrorHandler proxy#M
//   proxy#M SELECTOR
class ConnectionCore final {
 public:
  ConnectionCore(std::size_t number, std::shared_ptr<testing::Journal> journal);

  // Makes the handle that the library holds.
  static std::shared_ptr<NSXPCConnection> wrap(std::shared_ptr<ConnectionCore> core);

  std::size_t number() const { return number_; }
  // What it was made with, nil otherwise.
  NSString serviceName() const;
  NSXPCListenerEndpoint endpoint() const;
  std::shared_ptr<NSXPCInterface> remoteInterface() const;
  std::shared_ptr<NSXPCInterface> exportedInterface() const;
  // The object, seen as its protocol's class. Held until the connection is invalidated.
  const void* exportedObject() const;
  bool isInvalidated() const;
  // Whether the library has let go of the last reference.
  bool isLetGo() const;

  // What the library called at this connection's proxies, in order.
  std::vector<std::shared_ptr<testing::RecordedCall>> calls() const;
  // The last call of a selector; an empty one, and a failure of the test, when there is none.
  std::shared_ptr<testing::RecordedCall> lastCall(const std::string& selector) const;

  // The other end or the platform acts. The handlers run on this thread; after the invalidation handler, handlers and
  // exported object are let go of, and later events do nothing.
  void playInterruption();
  void playInvalidation();
  // Keeps everything but the exported object, whose owner may then be gone while the handlers are not.
  void letGoOfExportedObject();
  // The error handler of the connection's last proxy. A proxy of which nothing is left has none: the test fails.
  void playProxyError(const NSError& error);
  // A call of the other end at the exported object, through its protocol's table:
  //   connection.deliver<&VeltoCommunicationMessageProtocol::connectionUUID>(identifier);
  template <auto Member, class... Arguments>
  void deliver(Arguments&&... arguments) {
    using Type = detail::MemberType<decltype(Member)>;
    ReplyBlock reply;
    const auto packed = Type::pack(reply, std::forward<Arguments>(arguments)...);
    deliverPacked(&detail::memberKey<Member>, packed, std::move(reply));
  }

  // For the double itself.
  void made(const std::string& how);
  void madeWithName(const NSString& name);
  void madeWithEndpoint(const NSXPCListenerEndpoint& endpoint);
  void setRemoteInterface(std::shared_ptr<NSXPCInterface> interface);
  void setExportedInterface(std::shared_ptr<NSXPCInterface> interface);
  void setExportedObject(const Protocol& protocol, std::shared_ptr<void> object);
  void setInterruptionHandler(std::function<void()> handler);
  void setInvalidationHandler(std::function<void()> handler);
  void resume();
  void invalidate();
  void letGo();
  void proxyMade(std::size_t number, const testing::RecordedCall::ErrorHandler& errorHandler);
  void called(const Method& method, std::vector<NSObject> arguments, ReplyBlock reply,
              const testing::RecordedCall::ErrorHandler& errorHandler);
  // Lets go of everything that is the library's.
  void clear();

 private:
  struct Proxy {
    std::size_t number;
    std::weak_ptr<const std::function<void(NSError)>> errorHandler;
  };

  void note(const std::string& what) const;
  void deliverPacked(const void* member, std::span<const NSObject> arguments, ReplyBlock reply);

  const std::size_t number_;
  const std::shared_ptr<testing::Journal> journal_;
  mutable Mutex mutex_;
  NSString serviceName_ VELTO_GUARDED_BY(mutex_);
  NSXPCListenerEndpoint endpoint_ VELTO_GUARDED_BY(mutex_);
  std::shared_ptr<NSXPCInterface> remoteInterface_ VELTO_GUARDED_BY(mutex_);
  std::shared_ptr<NSXPCInterface> exportedInterface_ VELTO_GUARDED_BY(mutex_);
  const Protocol* exportedProtocol_ VELTO_GUARDED_BY(mutex_) = nullptr;
  std::shared_ptr<void> exportedObject_ VELTO_GUARDED_BY(mutex_);
  std::function<void()> interruptionHandler_ VELTO_GUARDED_BY(mutex_);
  std::function<void()> invalidationHandler_ VELTO_GUARDED_BY(mutex_);
  bool isInvalidated_ VELTO_GUARDED_BY(mutex_) = false;
  bool isLetGo_ VELTO_GUARDED_BY(mutex_) = false;
  std::vector<Proxy> proxies_ VELTO_GUARDED_BY(mutex_);
  std::vector<std::shared_ptr<testing::RecordedCall>> calls_ VELTO_GUARDED_BY(mutex_);
};

}  // namespace velto::xpc

namespace velto::testing {

using ConnectionDouble = xpc::ConnectionCore;

}  // namespace velto::testing
