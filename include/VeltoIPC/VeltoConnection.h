#pragma once

#include <atomic>
#include <memory>
#include <utility>

#include "VeltoIPC/VeltoCommunicationMessageProtocol.h"
#include "VeltoIPC/VeltoIPCDelegate.h"
#include "platform/foundation/AtomicProperty.h"
#include "platform/foundation/Foundation.h"
#include "platform/foundation/ThreadAnnotations.h"
#include "platform/xpc/contract/Delivery.h"

namespace velto {
class CallbackDelivery;
}
class NSXPCConnection;
class NSXPCListenerEndpoint;
template <class P>
class NSXPCProxy;

// The client end: one connection to the listener of a service name.
//
// Thread-safe: any function may be called from any thread, and from inside a delegate's callback. Nothing retries: an
// object that failed ("Listener not available" included) stays failed, and a new attempt needs a new object. An
// established connection keeps itself alive until it is closed: call close() before letting it go. One that is not
// established, or no longer, and is let go of is gone once its look-up has been answered; unless it was closed before,
// the delegate then hears "Daemon connection invalidated", as after close().
//
// Errors are NSErrors of the domain "org.velto.VeltoIPC" (codes below) or, unchanged, of the platform. They are written
// to an out-pointer only on failure, if one is given; the result alone always tells.
class VELTO_EXPORT VeltoConnection final : public NSObject,
                                           public VeltoCommunicationMessageProtocol,
                                           public std::enable_shared_from_this<VeltoConnection> {
 public:
  // Starts to look the name up and to connect, and returns at once; what becomes of it the delegate hears, and
  // waitUntilReady(). The delegate is held weakly and may be null.
  [[nodiscard]] static std::shared_ptr<VeltoConnection> initWithServiceName(
      const NSString& serviceName, const std::shared_ptr<VeltoIPCDelegate>& withDelegate);
  // The same, but everything of the user's runs in a loop of his, or by an executor: the delegate, handlers, and what
  // they hold is let go of there. The thread that runs the loop may wait, in waitUntilReady() and in synchronous sends:
  // these end as they do elsewhere. Only what itself waits for that loop, such as a reply of the same program's
  // delegate, cannot come before the wait is over: then it takes its whole time-out, and for ever without one. What
  // comes and is not run counts against the credit of whoever sends. An end is told when its turn comes, and until then
  // holds the object (or until the loop is gone); to send is refused at once.
  [[nodiscard]] static std::shared_ptr<VeltoConnection> initWithServiceName(
      const NSString& serviceName, const std::shared_ptr<VeltoIPCDelegate>& withDelegate,
      const velto::Delivery& delivery);
  // An object without a service name, which never becomes ready.
  [[nodiscard]] static std::shared_ptr<VeltoConnection> init();
  ~VeltoConnection() override;

  static velto::Class classObject();

  // Waits up to `timeout` seconds for the listener's identifier. True once it is there. False when an error was
  // recorded (which is then in `*error`) or the time is over (code 6, "Timed out waiting"). 0 and every negative number
  // only look. Whenever it returns for another reason than the time, `*error` receives the last error recorded, or nil.
  bool waitUntilReady(double timeout, NSError* error = nullptr);
  // The identifier of this connection; nil until it is ready.
  NSString getID() const;
  // Ends the connection: wakes the synchronous sends, which fail with code 6 "Timed out waiting", and drops what is
  // held. Never blocks; further calls do nothing. The delegate then hears "Listener connection invalidated" and "Daemon
  // connection invalidated", both code 2.
  void close();

  // Sends a message and returns; true when it was handed to the connection. The handler, if any, gets the reply, on a
  // thread of the platform. False: code 2 "Connection is not available" when not ready or closed; code 3 "SendMessage
  // failed message type check" when strict types are on and a value is not of a plain type. Then the handler is never
  // called. A failure on the way comes to the delegate's connectionError(). Empty braces are an empty message; a nil
  // one is sent as nil.
  bool sendMessage(const NSDictionary& message, NSError* error = nullptr, VeltoReplyHandler handler = {});
  bool sendMessage(velto::EmptyBraces, NSError* error = nullptr, VeltoReplyHandler handler = {}) {
    return sendMessage(NSDictionary::dictionary(), error, std::move(handler));
  }
  // Sends a message and waits for the reply up to `timeout` seconds, VKT_IPC_TIME_FOREVER for as long as it takes. nil
  // on failure: as sendMessage(); code 6 "Timed out value is not valid" for another negative time-out, and nothing is
  // sent; code 6 "Timed out waiting" when no reply came in time or the connection was closed. May be called inside a
  // callback.
  NSDictionary sendMessageSync(const NSDictionary& message, double timeout, NSError* error = nullptr);
  NSDictionary sendMessageSync(velto::EmptyBraces, double timeout, NSError* error = nullptr) {
    return sendMessageSync(NSDictionary::dictionary(), timeout, error);
  }

  // The delegate as of now; null when there is none. Events of the broker link go to the first delegate for ever.
  std::shared_ptr<VeltoIPCDelegate> delegate() const;
  void setDelegate(const std::shared_ptr<VeltoIPCDelegate>& delegate);

  // The pieces it is made of. For tests and diagnosis.
  std::shared_ptr<NSXPCConnection> daemonConnection() const;
  void setDaemonConnection(std::shared_ptr<NSXPCConnection> connection);
  NSXPCListenerEndpoint listenerEndpoint() const;
  void setListenerEndpoint(const NSXPCListenerEndpoint& endpoint);
  std::shared_ptr<NSXPCConnection> listenerConnection() const;
  void setListenerConnection(std::shared_ptr<NSXPCConnection> connection);
  std::shared_ptr<NSXPCProxy<VeltoCommunicationMessageProtocol>> listenerProxyObject() const;
  void setListenerProxyObject(std::shared_ptr<NSXPCProxy<VeltoCommunicationMessageProtocol>> proxy);
  // Whether a synchronous send is registered under the key.
  bool messageValid(const NSUUID& key) const;

  // Called by the listener, through the connection.
  void connectionID(NSString connectionID, NSDictionary withMessage, VeltoReplyHandler handler) override;
  void connectionError(NSError error) override;
  void setStrictMessageTypesRemote(bool flag) override;
  void connectionUUID(NSString connectionID) override;

 private:
  VeltoConnection();

  void start(const NSString& serviceName, const std::shared_ptr<VeltoIPCDelegate>& withDelegate);
  void lookUp(const NSString& serviceName);
  void lookUpFailed(const NSError& error);
  void configure(const NSXPCListenerEndpoint& endpoint);
  void installHandlers(NSXPCConnection& connection);
  void deliverElsewhere(NSXPCConnection& connection);
  void becomeReady(const NSString& connectionID);
  void becomeReadyElsewhere(const NSString& connectionID);
  void record(NSError error);
  std::shared_ptr<NSXPCProxy<VeltoCommunicationMessageProtocol>> makeListenerProxy(NSXPCConnection& connection);
  // Registers a synchronous send, or with a nil condition takes it out.
  void setMessageCondition(const NSCondition& condition, const NSUUID& key);

  NSString _serviceName;
  // Null where the platform's threads run them.
  std::shared_ptr<const velto::CallbackDelivery> _callbacks;
  // Of those, one that is about to tell of readiness.
  std::atomic<bool> _isReadyUntold;
  std::atomic<bool> _strictMessageTypeSet;
  velto::AtomicProperty<NSString> _connectionUUID;
  NSCondition _connectionCondition;
  bool _connectionSuccess VELTO_GUARDED_BY(_connectionCondition);
  NSError _connectionError VELTO_GUARDED_BY(_connectionCondition);
  // The dictionary is its own lock (NSSynchronized).
  velto::AtomicProperty<NSMutableDictionary> _messageConditions;
  velto::AtomicProperty<std::weak_ptr<VeltoIPCDelegate>> _delegate;
  velto::AtomicProperty<std::shared_ptr<NSXPCConnection>> _daemonConnection;
  velto::AtomicProperty<NSObject> _listenerEndpoint;
  velto::AtomicProperty<std::shared_ptr<NSXPCConnection>> _listenerConnection;
  velto::AtomicProperty<std::shared_ptr<NSXPCProxy<VeltoCommunicationMessageProtocol>>> _listenerProxyObject;
};
