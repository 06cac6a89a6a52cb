#pragma once

#include <atomic>
#include <memory>
#include <utility>

#include "VeltoIPC/NSXPCListenerDelegate.h"
#include "VeltoIPC/VeltoCommunicationMessageProtocol.h"
#include "VeltoIPC/VeltoIPCDelegate.h"
#include "platform/foundation/AtomicProperty.h"
#include "platform/foundation/Foundation.h"
#include "platform/xpc/contract/Delivery.h"

namespace velto {
class CallbackDelivery;
}
class NSOperationQueue;
class NSXPCConnection;
class NSXPCListener;
template <class P>
class NSXPCProxy;

// The server end: makes a process reachable under a service name and talks to every client that connects.
//
// Thread-safe: any function may be called from any thread, and from inside a delegate's callback. A listener with live
// connections keeps itself alive: call close() before letting it go. One without connections that is let go of is gone,
// and its name with it; the delegate hears "Daemon connection invalidated", as after close().
//
// A connection is named by its identifier, which the delegate hears in connectionReady(). Errors are as for
// VeltoConnection.
class VELTO_EXPORT VeltoListener final : public NSObject,
                                         public NSXPCListenerDelegate,
                                         public VeltoCommunicationMessageProtocol,
                                         public std::enable_shared_from_this<VeltoListener> {
 public:
  // Registers the name with the broker and listens, in the background. A refusal (a name that cannot be served, no
  // broker) comes to the delegate's connectionError() with a nil identifier. The delegate is held weakly and may be
  // null.
  [[nodiscard]] static std::shared_ptr<VeltoListener> initWithServiceName(
      const NSString& serviceName, const std::shared_ptr<VeltoIPCDelegate>& withDelegate);
  // The same, but everything of the user's runs in a loop of his, or by an executor, as with VeltoConnection. A client
  // may be ready before the delegate has heard of it.
  [[nodiscard]] static std::shared_ptr<VeltoListener> initWithServiceName(
      const NSString& serviceName, const std::shared_ptr<VeltoIPCDelegate>& withDelegate,
      const velto::Delivery& delivery);
  // A listener that is registered nowhere and accepts nothing.
  [[nodiscard]] static std::shared_ptr<VeltoListener> init();
  ~VeltoListener() override;

  static velto::Class classObject();

  // Sends a message to one client and returns; true when it was handed to the connection. False: code 2 "Connection is
  // not available" when the identifier names no connection that can be sent to (unknown, closed, or still inside its
  // connectionReady()); code 3 "SendMessage failed message type check". Otherwise as VeltoConnection::sendMessage().
  bool sendMessage(const NSDictionary& message, const NSString& toConnection, NSError* error = nullptr,
                   VeltoReplyHandler handler = {});
  bool sendMessage(velto::EmptyBraces, const NSString& toConnection, NSError* error = nullptr,
                   VeltoReplyHandler handler = {}) {
    return sendMessage(NSDictionary::dictionary(), toConnection, error, std::move(handler));
  }
  // Sends and waits for the reply, as VeltoConnection::sendMessageSync().
  NSDictionary sendMessageSync(const NSDictionary& message, const NSString& toConnection, double timeout,
                               NSError* error = nullptr);
  NSDictionary sendMessageSync(velto::EmptyBraces, const NSString& toConnection, double timeout,
                               NSError* error = nullptr) {
    return sendMessageSync(NSDictionary::dictionary(), toConnection, timeout, error);
  }
  // Whether messages are held to the plain types: true at first. Counts at once for what this end sends, and for
  // clients that connect from now on; clients already connected keep what they were told.
  void setStrictMessageTypes(bool flag);

  // Ends one connection and wakes the synchronous sends that wait on it, which fail with code 6 "Timed out waiting".
  // The delegate then hears "Connection invalidated" (code 2). An unknown identifier does nothing. Never blocks.
  void close(const NSString& connectionID);
  // Ends every connection and the link to the broker. The delegate hears "Connection invalidated" for each connection
  // and "Daemon connection invalidated". The name stays registered while this object lives. Never blocks.
  void close();

  // The delegate as of now; null when there is none. Events of the broker link go to the first delegate for ever.
  std::shared_ptr<VeltoIPCDelegate> delegate() const;
  void setDelegate(const std::shared_ptr<VeltoIPCDelegate>& delegate);

  // The book-keeping: under each identifier its connection, its conditions (one per synchronous send that waits) and
  // its proxy. The connectionConditions dictionary is the lock of all three (NSSynchronized). For tests and diagnosis.
  std::shared_ptr<NSXPCConnection> daemonConnection() const;
  void setDaemonConnection(std::shared_ptr<NSXPCConnection> connection);
  NSMutableDictionary receivedConnections() const;
  void setReceivedConnections(const NSMutableDictionary& connections);
  NSMutableDictionary connectionConditions() const;
  void setConnectionConditions(const NSMutableDictionary& conditions);
  NSMutableDictionary receivedProxyObjects() const;
  void setReceivedProxyObjects(const NSMutableDictionary& proxies);
  // Whether the identifier has an entry in connectionConditions.
  bool isConnectionActive_internal(const NSString& connectionID) const;

  // Called by the platform and by clients, through their connections.
  bool listener(const std::shared_ptr<NSXPCListener>& listener,
                const std::shared_ptr<NSXPCConnection>& shouldAcceptNewConnection) override;
  void connectionID(NSString connectionID, NSDictionary withMessage, VeltoReplyHandler handler) override;
  void connectionError(NSError error) override;
  void ping() override;

 private:
  VeltoListener();

  void start(const NSString& serviceName, const std::shared_ptr<VeltoIPCDelegate>& withDelegate);
  void registerEndpoint(const NSString& serviceName);
  void registrationFailed(const NSError& error);
  void acceptElsewhere(const std::shared_ptr<NSXPCConnection>& connection, const NSString& identifier);
  void record(const std::shared_ptr<NSXPCConnection>& connection, const NSString& identifier);
  void introduce(NSXPCConnection& connection, const NSString& identifier);
  void installHandlers(NSXPCConnection& connection, const NSString& identifier);
  std::shared_ptr<NSXPCProxy<VeltoCommunicationMessageProtocol>> makeClientProxy(NSXPCConnection& connection,
                                                                                 const NSString& identifier);
  void report(const NSString& identifier, const NSError& error) const;
  std::shared_ptr<NSXPCProxy<VeltoCommunicationMessageProtocol>> proxyOf(const NSString& connectionID) const;
  // With the tables' monitor held.
  NSMutableArray waitersOf(const NSString& connectionID) const;
  std::shared_ptr<NSXPCConnection> connectionOf(const NSString& connectionID) const;
  void takeOut(const NSString& connectionID);

  // In this order they are destroyed, last first.
  std::shared_ptr<NSXPCListener> _listener;
  NSString storedServiceName;
  // Null where the platform's threads run them.
  std::shared_ptr<const velto::CallbackDelivery> _callbacks;
  // Never made: the platform's own queues serve.
  std::shared_ptr<NSOperationQueue> listenerQueue;
  std::atomic<bool> strictMessageTypeSet;
  velto::AtomicProperty<std::weak_ptr<VeltoIPCDelegate>> _delegate;
  velto::AtomicProperty<std::shared_ptr<NSXPCConnection>> _daemonConnection;
  velto::AtomicProperty<NSMutableDictionary> _receivedConnections;
  velto::AtomicProperty<NSMutableDictionary> _connectionConditions;
  velto::AtomicProperty<NSMutableDictionary> _receivedProxyObjects;
  // While it lives, a broker that has restarted is told of the name.
  std::shared_ptr<void> _registration;
};
