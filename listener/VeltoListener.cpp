// The listener end: registration at the broker, and the acceptance of clients. One listener object is the exported
// object of all its connections; what belongs to a connection alone is in three tables under its identifier. The tables
// are read and changed under one monitor, and no user code is called while it is held. Messages are in
// VeltoListenerMessaging.cpp, the end of connections in VeltoListenerTeardown.cpp.
#include "VeltoIPC/VeltoListener.h"

#include <utility>

#include "broker/DaemonConnection.h"
#include "broker/Registrations.h"
#include "message/CallbackDelivery.h"
#include "message/DelegateCalls.h"
#include "message/Errors.h"
#include "message/InstanceBody.h"
#include "message/PeerProtocol.h"
#include "platform/foundation/Box.h"
#include "platform/logging/OrderlyEnd.h"
#include "platform/xpc/NSXPCListener.h"

VeltoListener::VeltoListener()
    : NSObject(new velto::InstanceBody(classObject())),
      _listener(NSXPCListener::anonymousListener()),
      storedServiceName(""),
      strictMessageTypeSet(true),
      _receivedConnections(NSMutableDictionary::dictionary()),
      _connectionConditions(NSMutableDictionary::dictionary()),
      _receivedProxyObjects(NSMutableDictionary::dictionary()) {}

VeltoListener::~VeltoListener() = default;

Class VeltoListener::classObject() {
  static const Class& made = *new Class(Class::define("VeltoListener", NSObject::classObject()));
  return made;
}

std::shared_ptr<VeltoListener> VeltoListener::init() {
  return std::shared_ptr<VeltoListener>(new VeltoListener);
}

std::shared_ptr<VeltoListener> VeltoListener::initWithServiceName(
    const NSString& serviceName, const std::shared_ptr<VeltoIPCDelegate>& withDelegate) {
  auto made = init();
  made->start(serviceName, withDelegate);
  return made;
}

void VeltoListener::start(const NSString& serviceName, const std::shared_ptr<VeltoIPCDelegate>& withDelegate) {
  storedServiceName = serviceName;
  setDelegate(withDelegate);
  setDaemonConnection(setupDaemonConnection(withDelegate, _callbacks));
  registerEndpoint(serviceName);
  // Without one (the kernel had nothing left for it) the broker refuses the nil endpoint, and the delegate hears so.
  if (!_listener) return;
  _listener->setDelegate(shared_from_this());
  _listener->resume();
}

void VeltoListener::registerEndpoint(const NSString& serviceName) {
  const auto broker = daemonConnection()->remoteObjectProxyWithErrorHandler<VeltoIPCDaemonProtocol>(
      [weakSelf = weak_from_this()](const NSError& error) {
        velto::logEnd(VKTLogGetAnchor(), 0, "Velto Remote Proxy Error %@", error);
        if (const auto self = weakSelf.lock()) self->registrationFailed(error);
      });
  VKTLoggingLog(VKTLogGetAnchor(), 2, "Sending ListenerEndpoint");
  const NSXPCListenerEndpoint endpoint = _listener ? _listener->endpoint() : NSXPCListenerEndpoint();
  broker->call<&VeltoIPCDaemonProtocol::sendListenerConnection>(endpoint, serviceName);
  _registration = velto::Registrations::shared().add(serviceName, _listener);
}

void VeltoListener::registrationFailed(const NSError& error) {
  if (!_callbacks) return report(nil, error);
  _callbacks->run([weakSelf = weak_from_this(), error] {
    if (const auto self = weakSelf.lock()) self->report(nil, error);
  });
}

bool VeltoListener::listener(const std::shared_ptr<NSXPCListener>&,
                             const std::shared_ptr<NSXPCConnection>& shouldAcceptNewConnection) {
  NSXPCConnection& connection = *shouldAcceptNewConnection;
  const NSString identifier = NSProcessInfo::processInfo().globallyUniqueString();
  VKTLoggingLog(VKTLogGetAnchor(), 2, "VeltoListener Setting Up New Connection: %@", identifier);
  velto::configureListenerEnd(connection, shared_from_this());
  installHandlers(connection, identifier);
  if (_callbacks) {
    acceptElsewhere(shouldAcceptNewConnection, identifier);
    return true;
  }
  connection.resume();
  record(shouldAcceptNewConnection, identifier);
  VKTLoggingLog(VKTLogGetAnchor(), 2, "Sending ConnectionUUID %@", identifier);
  velto::tellReady(delegate(), identifier);
  introduce(connection, identifier);
  return true;
}

// The client is told how it stands without anything of the user's: it may be waited for by whoever would run that. The
// delegate's turn comes before all that the client sends, and its end is told in its turn; but those who wait for a
// reply hear of that at once.
void VeltoListener::acceptElsewhere(const std::shared_ptr<NSXPCConnection>& connection, const NSString& identifier) {
  _callbacks->adopt(*connection, [weakSelf = weak_from_this(), identifier] {
    if (const auto self = weakSelf.lock()) self->close(identifier);
  });
  record(connection, identifier);
  const auto proxy = makeClientProxy(*connection, identifier);
  proxy->call<&VeltoCommunicationMessageProtocol::setStrictMessageTypesRemote>(strictMessageTypeSet.load());
  proxy->call<&VeltoCommunicationMessageProtocol::connectionUUID>(identifier);
  _callbacks->perform(*connection, [weakSelf = weak_from_this(), identifier, boxed = velto::box(proxy)] {
    const auto self = weakSelf.lock();
    if (!self) return;
    velto::tellReady(self->delegate(), identifier);
    const NSSynchronized monitor(self->connectionConditions());
    if (self->isConnectionActive_internal(identifier)) self->receivedProxyObjects().setObject(boxed, identifier);
  });
  connection->resume();
}

void VeltoListener::record(const std::shared_ptr<NSXPCConnection>& connection, const NSString& identifier) {
  const NSMutableArray waiters = NSMutableArray::array();
  const NSObject boxed = velto::box(connection);
  const NSSynchronized monitor(connectionConditions());
  connectionConditions().setObject(waiters, identifier);
  receivedConnections().setObject(boxed, identifier);
}

// Tells the client how it stands: its strictness first, so that it is in place when the identifier makes it ready. From
// the moment that the proxy can be found, other threads may send to the client; the monitor keeps their messages from
// overtaking its identifier. Calls on a proxy never wait for anyone and call nobody back.
void VeltoListener::introduce(NSXPCConnection& connection, const NSString& identifier) {
  const auto proxy = makeClientProxy(connection, identifier);
  const NSObject boxed = velto::box(proxy);
  const NSSynchronized monitor(connectionConditions());
  // While the delegate's connectionReady() slept, the connection may have ended and been closed: nobody would ever take
  // this proxy out again.
  if (isConnectionActive_internal(identifier)) receivedProxyObjects().setObject(boxed, identifier);
  proxy->call<&VeltoCommunicationMessageProtocol::setStrictMessageTypesRemote>(strictMessageTypeSet.load());
  proxy->call<&VeltoCommunicationMessageProtocol::connectionUUID>(identifier);
}

void VeltoListener::installHandlers(NSXPCConnection& connection, const NSString& identifier) {
  connection.setInterruptionHandler([weakSelf = weak_from_this(), identifier] {
    VKTLoggingLog(VKTLogGetAnchor(), 0, "VeltoConnection connection interrupted");
    const NSError error = velto::makeError(VeltoIPCConnectionError, "Connection interrupted");
    if (const auto self = weakSelf.lock()) self->report(identifier, error);
  });
  connection.setInvalidationHandler([weakSelf = weak_from_this(), identifier] {
    VKTLoggingLog(VKTLogGetAnchor(), 2, "VeltoConnection connection %@ invalidated. Closing connection", identifier);
    const NSError error = velto::makeError(VeltoIPCConnectionError, "Connection invalidated");
    const auto self = weakSelf.lock();
    if (!self) return;
    self->report(identifier, error);
    self->close(identifier);
  });
}

std::shared_ptr<velto::PeerProxy> VeltoListener::makeClientProxy(NSXPCConnection& connection,
                                                                 const NSString& identifier) {
  return connection.remoteObjectProxyWithErrorHandler<VeltoCommunicationMessageProtocol>(
      [weakSelf = weak_from_this(), identifier](const NSError& error) {
        velto::logEnd(VKTLogGetAnchor(), 0, "VeltoIPCListener Remote Proxy Error %@", error);
        if (const auto self = weakSelf.lock()) self->report(identifier, error);
      });
}

void VeltoListener::report(const NSString& identifier, const NSError& error) const {
  velto::tellError(delegate(), identifier, error);
}

void VeltoListener::ping() {
  VKTLoggingLog(VKTLogGetAnchor(), 2, "VeltoConnection Pinged VeltoListener");
}

std::shared_ptr<VeltoIPCDelegate> VeltoListener::delegate() const {
  return _delegate.get().lock();
}
void VeltoListener::setDelegate(const std::shared_ptr<VeltoIPCDelegate>& delegate) {
  _delegate.set(delegate);
}

std::shared_ptr<NSXPCConnection> VeltoListener::daemonConnection() const {
  return _daemonConnection.get();
}
void VeltoListener::setDaemonConnection(std::shared_ptr<NSXPCConnection> connection) {
  _daemonConnection.set(std::move(connection));
}

NSMutableDictionary VeltoListener::receivedConnections() const {
  return _receivedConnections.get();
}
void VeltoListener::setReceivedConnections(const NSMutableDictionary& connections) {
  _receivedConnections.set(connections);
}

NSMutableDictionary VeltoListener::connectionConditions() const {
  return _connectionConditions.get();
}
void VeltoListener::setConnectionConditions(const NSMutableDictionary& conditions) {
  _connectionConditions.set(conditions);
}

NSMutableDictionary VeltoListener::receivedProxyObjects() const {
  return _receivedProxyObjects.get();
}
void VeltoListener::setReceivedProxyObjects(const NSMutableDictionary& proxies) {
  _receivedProxyObjects.set(proxies);
}
