#pragma once

#include <functional>
#include <memory>
#include <span>
#include <utility>

#include "platform/foundation/Foundation.h"
#include "platform/xpc/Delivery.h"
#include "platform/xpc/NSXPCError.h"
#include "platform/xpc/NSXPCInterface.h"
#include "platform/xpc/NSXPCListenerEndpoint.h"
#include "platform/xpc/NSXPCPeer.h"
#include "platform/xpc/Protocol.h"
#include "platform/xpc/contract/ServingProgram.h"

class NSXPCListener;

namespace velto::xpc {

class ConnectionCore;

// The sending side of one proxy, without its protocol's types.
class VELTO_EXPORT RemoteObject {
 public:
  RemoteObject(std::shared_ptr<ConnectionCore> core, std::function<void(NSError)> errorHandler);

  void send(const void* member, std::span<const NSObject> arguments, ReplyBlock reply) const;

  static velto::Class boxClass();

 private:
  std::shared_ptr<ConnectionCore> core_;
  std::shared_ptr<const std::function<void(NSError)>> errorHandler_;
};

}  // namespace velto::xpc

// Stands for the object that the other end exports, whose protocol is P:
//
//   proxy->call<&Greeter::greet>("Ada", [](NSString answer) { … });
//
// A call is handed to the connection and never waits. It reaches the other end at most once, in the order of the calls;
// if it cannot, or its reply cannot, the proxy's error handler is called, once, on the connection's queue. Thread-safe.
template <class P>
class NSXPCProxy {
 public:
  explicit NSXPCProxy(velto::xpc::RemoteObject remote) : remote_(std::move(remote)) {}

  template <auto Member, class... Arguments>
  void call(Arguments&&... arguments) const {
    using Type = velto::xpc::detail::MemberType<decltype(Member)>;
    static_assert(std::is_same_v<typename Type::ProtocolClass, P>, "the method is not one of this protocol");
    velto::xpc::ReplyBlock reply;
    const auto packed = Type::pack(reply, std::forward<Arguments>(arguments)...);
    remote_.send(&velto::xpc::detail::memberKey<Member>, packed, std::move(reply));
  }

  // For boxes: the class that a proxy in a container answers.
  static velto::Class boxClass() { return velto::xpc::RemoteObject::boxClass(); }

 private:
  velto::xpc::RemoteObject remote_;
};

// A connection to one other end, over which both can call methods of an object that the other exports.
//
// Set interfaces, object and handlers, then resume() once. From then on the connection delivers: incoming calls,
// replies and handlers run one at a time, in the order in which they came, on threads of the platform and never on a
// thread that calls in here. (Two things do not wait for their turn: a reply block marked NonBlockingReply; and, once
// the connection has ended, everything behind a callback that is itself asleep in an NSCondition.)
//
// How it ends:
// - invalidate() here, or letting go of the last reference: what was sent before still goes out in the background, then
// the
//   other end is told. The invalidation handler runs here too.
// - The other end says goodbye: the invalidation handler.
// - The other end vanishes, or breaks the protocol: the interruption handler, then the invalidation handler.
// - The service or the endpoint cannot be reached: the invalidation handler.
// Each handler runs once at most; before it every call that waits for a reply, or was not sent, runs its proxy's error
// handler. After the invalidation handler the exported object and the handlers are let go of.
//
// Thread-safe. Every function may be called from inside any callback.
class VELTO_EXPORT NSXPCConnection final {
 public:
  // To the named service of this user. A name that could not be a file's (nil, empty, over 255 bytes, with "/" or NUL,
  // "." or "..") makes a connection that is invalid from the start; errors say why.
  static std::shared_ptr<NSXPCConnection> initWithServiceName(const NSString& serviceName);
  // The same. But when nobody serves the name, this program is started to do so, once, however many processes ask at the
  // same time; calls wait for it. What is needed of the environment is read here and now.
  static std::shared_ptr<NSXPCConnection> initWithServiceName(const NSString& serviceName,
                                                              const velto::xpc::ServingProgram& startedIfNeeded);
  // To the listener of an endpoint. A nil endpoint makes a connection that is invalid from the start.
  static std::shared_ptr<NSXPCConnection> initWithListenerEndpoint(const NSXPCListenerEndpoint& endpoint);
  // Two ends of one connection, both in this process, without a listener. Nulls, and errno, when the kernel refuses.
  static std::pair<std::shared_ptr<NSXPCConnection>, std::shared_ptr<NSXPCConnection>> pair();
  ~NSXPCConnection();
  NSXPCConnection(const NSXPCConnection&) = delete;
  NSXPCConnection& operator=(const NSXPCConnection&) = delete;

  // What this end calls, and what it lets the other call. One interface may serve both. Before resume().
  void setRemoteObjectInterface(std::shared_ptr<NSXPCInterface> interface);
  void setExportedInterface(std::shared_ptr<NSXPCInterface> interface);
  // Held until the connection is invalidated. P is the protocol of the exported interface.
  template <class P>
  void setExportedObject(std::shared_ptr<P> object) {
    setExported(velto::xpc::protocolOf<P>(), std::static_pointer_cast<void>(std::move(object)));
  }
  void setInterruptionHandler(std::function<void()> handler);
  void setInvalidationHandler(std::function<void()> handler);

  // Where everything of the user's runs, in place of the platform's threads. Before resume(); a connection that comes
  // in may be given one when it is accepted.
  void deliverOn(const velto::Delivery& delivery);
  // Runs a task as a callback of this connection, behind those that wait.
  void perform(std::function<void()> task);

  // Whether a call that is made now goes out at once, as far as this end knows: false while calls wait for the other
  // end to take them, or much waits for room in the socket. Then the handler is called once it would again, or never
  // will: on the thread that learns of it, so it must not block.
  [[nodiscard]] bool isWritable() const;
  void setWritableHandler(std::function<void()> handler);
  // Called once when the connection ends, this end's invalidate() included, on the thread that learns of it and ahead
  // of all that is delivered about it: it must not block.
  void setEndHandler(std::function<void()> handler);

  // Starts; further calls do nothing.
  void resume();
  // Ends; further calls do nothing. Never blocks.
  void invalidate();
  // Ends the same way, but what has not been sent by now is dropped and the socket closed before this returns.
  void invalidateAtOnce();

  // The process at the other end. nil until the connection is made; it stays when it has ended.
  NSXPCPeer peer() const;

  // A proxy whose failures call `errorHandler`. P is the protocol of the remote object interface; another raises an
  // NSException.
  template <class P>
  std::shared_ptr<NSXPCProxy<P>> remoteObjectProxyWithErrorHandler(std::function<void(NSError)> errorHandler) {
    return std::make_shared<NSXPCProxy<P>>(makeRemoteObject(velto::xpc::protocolOf<P>(), std::move(errorHandler)));
  }

  // For boxes: the class that a connection in a container answers.
  static velto::Class boxClass();

 private:
  friend class NSXPCListener;
  friend class velto::xpc::ConnectionCore;
  explicit NSXPCConnection(std::shared_ptr<velto::xpc::ConnectionCore> core);
  template <class Connect>
  static std::shared_ptr<NSXPCConnection> toService(const NSString& serviceName, Connect connect);
  void setExported(const velto::xpc::Protocol& protocol, std::shared_ptr<void> object);
  velto::xpc::RemoteObject makeRemoteObject(const velto::xpc::Protocol& protocol,
                                            std::function<void(NSError)> errorHandler);

  const std::shared_ptr<velto::xpc::ConnectionCore> core_;
};
