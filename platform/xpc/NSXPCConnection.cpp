// The handle that users hold. It only passes on; what it owns besides the core is the duty to invalidate it when the
// last reference goes.

#include "platform/xpc/NSXPCConnection.h"

#include <new>
#include <utility>

#include "platform/xpc/connection/ConnectionCore.h"
#include "platform/xpc/system/SystemCalls.h"
#include "platform/xpc/transport/RuntimeDirectory.h"
#include "platform/xpc/transport/Sockets.h"

using velto::xpc::ConnectionCore;
using velto::xpc::RemoteObject;

namespace velto::xpc {

RemoteObject::RemoteObject(std::shared_ptr<ConnectionCore> core, std::function<void(NSError)> errorHandler)
    : core_(std::move(core)),
      errorHandler_(std::make_shared<const std::function<void(NSError)>>(std::move(errorHandler))) {}

void RemoteObject::send(const void* member, std::span<const NSObject> arguments, ReplyBlock reply) const {
  const Protocol* protocol = core_->remoteProtocol();
  const Method* method = protocol != nullptr ? protocol->methodForMember(member) : nullptr;
  if (method == nullptr) throw NSException("NSInvalidArgumentException", "the protocol's table lacks the method");
  core_->call(*method, arguments, std::move(reply), errorHandler_);
}

Class RemoteObject::boxClass() {
  static const Class& made = *new Class(Class::define("NSXPCProxy", NSObject::classObject()));
  return made;
}

}  // namespace velto::xpc

std::shared_ptr<NSXPCConnection> NSXPCConnection::initWithServiceName(const NSString& serviceName) {
  const std::string name = serviceName.string();
  auto connector = [name, from = velto::transport::RuntimeDirectory::named()]() -> velto::transport::ConnectAttempt {
    std::string reason;
    if (!velto::transport::isFileName(name, reason)) return {{}, false, false, reason};
    return velto::transport::connectToService(name, from);
  };
  return std::shared_ptr<NSXPCConnection>(
      new NSXPCConnection(ConnectionCore::connecting("the service \"" + name + "\"", name, std::move(connector))));
}

std::shared_ptr<NSXPCConnection> NSXPCConnection::initWithListenerEndpoint(const NSXPCListenerEndpoint& endpoint) {
  auto connector = [endpoint]() -> velto::transport::ConnectAttempt {
    if (!endpoint) return {{}, false, false, "the endpoint is nil"};
    return velto::transport::connectToEndpoint(endpoint.socket()->get());
  };
  // No service has a name with "/".
  const std::string target = "endpoint/" + std::to_string(endpoint.hash());
  return std::shared_ptr<NSXPCConnection>(
      new NSXPCConnection(ConnectionCore::connecting("the listener of an endpoint", target, std::move(connector))));
}

std::pair<std::shared_ptr<NSXPCConnection>, std::shared_ptr<NSXPCConnection>> NSXPCConnection::pair() {
  int ends[2] = {-1, -1};
  if (velto::system::systemCalls().socketPair(ends) != 0) return {};
  velto::system::namePairForTrace(ends[0]);
  const auto make = [](int end) {
    // Given out once: a connection connects once.
    const auto socket = std::make_shared<velto::system::Descriptor>(end);
    auto connector = [socket]() -> velto::transport::ConnectAttempt {
      return {std::move(*socket), false, false, "it was connected before"};
    };
    return std::shared_ptr<NSXPCConnection>(
        new NSXPCConnection(ConnectionCore::connecting("an end of a pair", "pair/", std::move(connector))));
  };
  auto first = make(ends[0]);
  return {std::move(first), make(ends[1])};
}

NSXPCConnection::NSXPCConnection(std::shared_ptr<ConnectionCore> core) : core_(std::move(core)) {}

NSXPCConnection::~NSXPCConnection() {
  try {
    core_->invalidate();
  } catch (const std::bad_alloc&) {
    // Nobody can be told without memory. The socket at least is closed.
    core_->turnAway();
  }
}

void NSXPCConnection::setRemoteObjectInterface(std::shared_ptr<NSXPCInterface> interface) {
  core_->setRemoteInterface(std::move(interface));
}

void NSXPCConnection::setExportedInterface(std::shared_ptr<NSXPCInterface> interface) {
  core_->setExportedInterface(std::move(interface));
}

void NSXPCConnection::setExported(const velto::xpc::Protocol& protocol, std::shared_ptr<void> object) {
  core_->setExportedObject(protocol, std::move(object));
}

void NSXPCConnection::setInterruptionHandler(std::function<void()> handler) {
  core_->setInterruptionHandler(std::move(handler));
}

void NSXPCConnection::setInvalidationHandler(std::function<void()> handler) {
  core_->setInvalidationHandler(std::move(handler));
}

void NSXPCConnection::deliverOn(const velto::Delivery& delivery) {
  if (delivery.runner()) core_->deliverOn(delivery.runner());
}

void NSXPCConnection::perform(std::function<void()> task) {
  core_->perform(std::move(task));
}

bool NSXPCConnection::isWritable() const {
  return core_->isWritable();
}

void NSXPCConnection::setWritableHandler(std::function<void()> handler) {
  core_->setWritableHandler(std::move(handler));
}

void NSXPCConnection::setEndHandler(std::function<void()> handler) {
  core_->setEndHandler(std::move(handler));
}

void NSXPCConnection::resume() {
  core_->resume();
}

void NSXPCConnection::invalidate() {
  core_->invalidate();
}

void NSXPCConnection::invalidateAtOnce() {
  core_->invalidateAtOnce();
}

NSXPCPeer NSXPCConnection::peer() const {
  return NSXPCPeer(core_->peer());
}

RemoteObject NSXPCConnection::makeRemoteObject(const velto::xpc::Protocol& protocol,
                                               std::function<void(NSError)> errorHandler) {
  if (core_->remoteProtocol() != &protocol) {
    throw NSException("NSInvalidArgumentException",
                      "the connection's remote object interface is not of protocol " + protocol.name());
  }
  return RemoteObject(core_, std::move(errorHandler));
}

Class NSXPCConnection::boxClass() {
  static const Class& made = *new Class(Class::define("NSXPCConnection", NSObject::classObject()));
  return made;
}
