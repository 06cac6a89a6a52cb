// The client end, from the look-up at the broker to readiness, and its end. Whatever runs later (replies, handlers)
// holds the object weakly, but for the look-up's reply: an object whose look-up is under way stays until it is
// answered. Messages are in VeltoConnectionMessaging.cpp.
#include "VeltoIPC/VeltoConnection.h"

#include <utility>

#include "broker/DaemonConnection.h"
#include "client/PromptPeer.h"
#include "message/CallbackDelivery.h"
#include "message/DelegateCalls.h"
#include "message/Errors.h"
#include "message/InstanceBody.h"
#include "message/PeerProtocol.h"
#include "platform/logging/OrderlyEnd.h"

VeltoConnection::VeltoConnection()
    : NSObject(new velto::InstanceBody(classObject())),
      _serviceName(""),
      _isReadyUntold(false),
      _strictMessageTypeSet(true),
      _connectionCondition(NSCondition::condition()),
      _connectionSuccess(false) {}

VeltoConnection::~VeltoConnection() = default;

Class VeltoConnection::classObject() {
  static const Class& made = *new Class(Class::define("VeltoConnection", NSObject::classObject()));
  return made;
}

std::shared_ptr<VeltoConnection> VeltoConnection::init() {
  return std::shared_ptr<VeltoConnection>(new VeltoConnection);
}

std::shared_ptr<VeltoConnection> VeltoConnection::initWithServiceName(
    const NSString& serviceName, const std::shared_ptr<VeltoIPCDelegate>& withDelegate) {
  const auto made = init();
  made->start(serviceName, withDelegate);
  return made;
}

void VeltoConnection::start(const NSString& serviceName, const std::shared_ptr<VeltoIPCDelegate>& withDelegate) {
  _serviceName = serviceName;
  _messageConditions.set(NSMutableDictionary::dictionary());
  setDelegate(withDelegate);
  setDaemonConnection(setupDaemonConnection(withDelegate, _callbacks));
  lookUp(serviceName);
}

void VeltoConnection::lookUp(const NSString& serviceName) {
  const auto broker = daemonConnection()->remoteObjectProxyWithErrorHandler<VeltoIPCDaemonProtocol>(
      [weakSelf = weak_from_this()](const NSError& error) {
        velto::logEnd(VKTLogGetAnchor(), 0, "Velto lost connection with VeltoIPCDaemon %@", error);
        if (const auto self = weakSelf.lock()) self->lookUpFailed(error);
      });
  VKTLoggingLog(VKTLogGetAnchor(), 2, "Getting ListenerEndpoint");
  broker->call<&VeltoIPCDaemonProtocol::findListenerEndpointForName>(
      serviceName, [self = shared_from_this(), serviceName](const NSXPCListenerEndpoint& endpoint) {
        if (endpoint) {
          self->configure(endpoint);
        } else {
          VKTLoggingLog(VKTLogGetAnchor(), 0, "Endpoint for %@ is Nill", serviceName);
          self->lookUpFailed(velto::makeError(VeltoIPCConnectionError, "Listener not available"));
        }
      });
}

void VeltoConnection::lookUpFailed(const NSError& error) {
  if (!_callbacks) return connectionError(error);
  record(error);
  _callbacks->run([weakSelf = weak_from_this(), error] {
    if (const auto self = weakSelf.lock()) velto::tellError(self->delegate(), self->getID(), error);
  });
}

void VeltoConnection::configure(const NSXPCListenerEndpoint& endpoint) {
  setListenerEndpoint(endpoint);
  VKTLoggingLog(VKTLogGetAnchor(), 2, "Connection Configuration Started");
  const auto interface = velto::makePeerInterface();
  setListenerConnection(NSXPCConnection::initWithListenerEndpoint(listenerEndpoint()));
  if (const auto connection = listenerConnection()) {
    velto::configureClientEnd(*connection, interface, shared_from_this());
    installHandlers(*connection);
    if (_callbacks) deliverElsewhere(*connection);
    connection->resume();
    setListenerProxyObject(makeListenerProxy(*connection));
  }
  if (const auto proxy = listenerProxyObject()) proxy->call<&VeltoCommunicationMessageProtocol::ping>();
  VKTLoggingLog(VKTLogGetAnchor(), 2, "Connection Configured and Pinged");
  // A close() from another thread, come in the middle of this, has missed what was stored after it looked.
  if (!_messageConditions.get()) close();
}

void VeltoConnection::installHandlers(NSXPCConnection& connection) {
  connection.setInterruptionHandler([weakSelf = weak_from_this()] {
    VKTLoggingLog(VKTLogGetAnchor(), 0, "Listener connection interrupted");
    const NSError error = velto::makeError(VeltoIPCConnectionError, "Listener connection interrupted");
    if (const auto self = weakSelf.lock()) self->connectionError(error);
  });
  connection.setInvalidationHandler([weakSelf = weak_from_this()] {
    VKTLoggingLog(VKTLogGetAnchor(), 2, "Listener connection invalided. Shutting down connections");
    const NSError error = velto::makeError(VeltoIPCConnectionError, "Listener connection invalidated");
    // Asked for anew each time: close() may drop what kept the object alive.
    if (const auto self = weakSelf.lock()) self->close();
    if (const auto self = weakSelf.lock()) self->connectionError(error);
  });
}

// Its end is told in its turn, but those who wait hear of it at once.
void VeltoConnection::deliverElsewhere(NSXPCConnection& connection) {
  _callbacks->adopt(connection, [weakSelf = weak_from_this()] {
    const auto self = weakSelf.lock();
    if (!self) return;
    self->record(velto::makeError(VeltoIPCConnectionError, "Listener connection invalidated"));
    self->close();
  });
  const auto identified = [weakSelf = weak_from_this()](const NSString& identifier) {
    if (const auto self = weakSelf.lock()) self->becomeReadyElsewhere(identifier);
  };
  connection.setExportedInterface(NSXPCInterface::interfaceWithProtocol<velto::PromptPeer>());
  connection.setExportedObject(std::make_shared<velto::PromptPeer>(shared_from_this(), identified));
}

void VeltoConnection::becomeReadyElsewhere(const NSString& identifier) {
  becomeReady(identifier);
  const auto connection = listenerConnection();
  // A listener that says it again and again fills no queue.
  if (!connection || _isReadyUntold.exchange(true)) return;
  _callbacks->perform(*connection, [weakSelf = weak_from_this()] {
    const auto self = weakSelf.lock();
    if (!self) return;
    self->_isReadyUntold = false;
    velto::tellReady(self->delegate(), self->getID());
  });
}

std::shared_ptr<velto::PeerProxy> VeltoConnection::makeListenerProxy(NSXPCConnection& connection) {
  return connection.remoteObjectProxyWithErrorHandler<VeltoCommunicationMessageProtocol>(
      [weakSelf = weak_from_this()](const NSError& error) {
        velto::logEnd(VKTLogGetAnchor(), 0, "Remote Proxy Error %@", error);
        if (const auto self = weakSelf.lock()) self->connectionError(error);
      });
}

void VeltoConnection::connectionUUID(NSString connectionID) {
  becomeReady(connectionID);
  velto::tellReady(delegate(), connectionID);
}

void VeltoConnection::becomeReady(const NSString& connectionID) {
  VKTLoggingLog(VKTLogGetAnchor(), 2, "Connection ID received %@", connectionID);
  _connectionUUID.set(connectionID);
  const velto::ConditionLock lock(_connectionCondition);
  _connectionSuccess = true;
  _connectionCondition.signal();
}

void VeltoConnection::connectionError(NSError error) {
  if (!error) error = velto::makeError(VeltoIPCUnknownError, "Unknown error sent from listener");
  record(error);
  velto::tellError(delegate(), getID(), error);
}

void VeltoConnection::record(NSError error) {
  const velto::ConditionLock lock(_connectionCondition);
  std::swap(_connectionError, error);
  _connectionCondition.signal();
}

bool VeltoConnection::waitUntilReady(double timeout, NSError* error) {
  const NSDate deadline = NSDate::dateWithTimeIntervalSinceNow(timeout);
  const NSError former = velto::heldBy(error);
  const velto::ConditionLock lock(_connectionCondition);
  while (deadline.timeIntervalSinceNow() > 0.0 && !_connectionSuccess && !_connectionError) {
    _connectionCondition.waitUntilDate(deadline);
  }
  if (!_connectionSuccess && !_connectionError) return velto::fail(error, VeltoIPCTimeoutError, "Timed out waiting");
  if (error != nullptr) *error = _connectionError;
  // A signal wakes one; what it told is true for all who wait.
  _connectionCondition.signal();
  return _connectionSuccess;
}

void VeltoConnection::close() {
  {
    const NSSynchronized monitor(_messageConditions.get());
    for (const NSObject& condition : _messageConditions.get().allValues()) condition.as<NSCondition>().signal();
    _messageConditions.set(nil);
  }
  setListenerProxyObject(nullptr);
  // Told to end, then let go of. Whoever closes at the same moment tells it again, which does nothing.
  if (const auto connection = listenerConnection()) {
    connection->invalidate();
    setListenerConnection(nullptr);
  }
  setListenerEndpoint(nil);
  if (const auto connection = daemonConnection()) {
    connection->invalidate();
    setDaemonConnection(nullptr);
  }
}

NSString VeltoConnection::getID() const {
  return _connectionUUID.get();
}

std::shared_ptr<VeltoIPCDelegate> VeltoConnection::delegate() const {
  return _delegate.get().lock();
}
void VeltoConnection::setDelegate(const std::shared_ptr<VeltoIPCDelegate>& delegate) {
  _delegate.set(delegate);
}

std::shared_ptr<NSXPCConnection> VeltoConnection::daemonConnection() const {
  return _daemonConnection.get();
}
void VeltoConnection::setDaemonConnection(std::shared_ptr<NSXPCConnection> connection) {
  _daemonConnection.set(std::move(connection));
}

NSXPCListenerEndpoint VeltoConnection::listenerEndpoint() const {
  return _listenerEndpoint.get().as<NSXPCListenerEndpoint>();
}
void VeltoConnection::setListenerEndpoint(const NSXPCListenerEndpoint& endpoint) {
  _listenerEndpoint.set(endpoint);
}

std::shared_ptr<NSXPCConnection> VeltoConnection::listenerConnection() const {
  return _listenerConnection.get();
}
void VeltoConnection::setListenerConnection(std::shared_ptr<NSXPCConnection> connection) {
  _listenerConnection.set(std::move(connection));
}

std::shared_ptr<velto::PeerProxy> VeltoConnection::listenerProxyObject() const {
  return _listenerProxyObject.get();
}
void VeltoConnection::setListenerProxyObject(std::shared_ptr<velto::PeerProxy> proxy) {
  _listenerProxyObject.set(std::move(proxy));
}
