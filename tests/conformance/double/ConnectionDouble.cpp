// The members of NSXPCConnection and of its proxies, as the double has them. Whatever belongs to the library is called
// and destroyed outside of the lock, as the platform must do it.

#include "tests/conformance/double/ConnectionDouble.h"

#include <utility>

#include <gtest/gtest.h>

#include "tests/conformance/double/PlatformDouble.h"

using velto::testing::PlatformDouble;
using velto::testing::RecordedCall;
using velto::xpc::ConnectionCore;
using velto::xpc::RemoteObject;

namespace velto::xpc {

RemoteObject::RemoteObject(std::shared_ptr<ConnectionCore> core, std::function<void(NSError)> errorHandler)
    : core_(std::move(core)),
      errorHandler_(std::make_shared<const std::function<void(NSError)>>(std::move(errorHandler))) {
  core_->proxyMade(PlatformDouble::current().nextProxyNumber(), errorHandler_);
}

void RemoteObject::send(const void* member, std::span<const NSObject> arguments, ReplyBlock reply) const {
  const Method* method = core_->remoteInterface()->protocol().methodForMember(member);
  if (method == nullptr) throw NSException("NSInvalidArgumentException", "the protocol's table lacks the method");
  core_->called(*method, {arguments.begin(), arguments.end()}, std::move(reply), errorHandler_);
}

Class RemoteObject::boxClass() {
  static const Class& made = *new Class(Class::define("NSXPCProxy", NSObject::classObject()));
  return made;
}

ConnectionCore::ConnectionCore(std::size_t number, std::shared_ptr<testing::Journal> journal)
    : number_(number), journal_(std::move(journal)) {}

std::shared_ptr<NSXPCConnection> ConnectionCore::wrap(std::shared_ptr<ConnectionCore> core) {
  return std::shared_ptr<NSXPCConnection>(new NSXPCConnection(std::move(core)));
}

void ConnectionCore::note(const std::string& what) const {
  journal_->write("connection#" + std::to_string(number_) + " " + what);
}

NSString ConnectionCore::serviceName() const {
  MutexLock lock(mutex_);
  return serviceName_;
}

NSXPCListenerEndpoint ConnectionCore::endpoint() const {
  MutexLock lock(mutex_);
  return endpoint_;
}

std::shared_ptr<NSXPCInterface> ConnectionCore::remoteInterface() const {
  MutexLock lock(mutex_);
  return remoteInterface_;
}

std::shared_ptr<NSXPCInterface> ConnectionCore::exportedInterface() const {
  MutexLock lock(mutex_);
  return exportedInterface_;
}

const void* ConnectionCore::exportedObject() const {
  MutexLock lock(mutex_);
  return exportedObject_.get();
}

bool ConnectionCore::isInvalidated() const {
  MutexLock lock(mutex_);
  return isInvalidated_;
}

bool ConnectionCore::isLetGo() const {
  MutexLock lock(mutex_);
  return isLetGo_;
}

std::vector<std::shared_ptr<RecordedCall>> ConnectionCore::calls() const {
  MutexLock lock(mutex_);
  return calls_;
}

std::shared_ptr<RecordedCall> ConnectionCore::lastCall(const std::string& selector) const {
  std::shared_ptr<RecordedCall> found;
  for (auto& call : calls()) {
    if (call->selector() == selector) found = call;
  }
  if (found) return found;
  ADD_FAILURE() << "connection#" << number_ << " was never asked to " << selector;
  return std::make_shared<RecordedCall>(selector, std::vector<NSObject>(8), ReplyBlock{}, nullptr);
}

void ConnectionCore::playInterruption() {
  std::function<void()> handler;
  {
    MutexLock lock(mutex_);
    handler = interruptionHandler_;
  }
  if (handler) handler();
}

void ConnectionCore::playInvalidation() {
  std::function<void()> handler;
  {
    MutexLock lock(mutex_);
    handler = invalidationHandler_;
  }
  if (handler) handler();
  clear();
}

void ConnectionCore::letGoOfExportedObject() {
  std::shared_ptr<void> object;
  MutexLock lock(mutex_);
  std::swap(object, exportedObject_);
  exportedProtocol_ = nullptr;
}

void ConnectionCore::playProxyError(const NSError& error) {
  RecordedCall::ErrorHandler handler;
  {
    MutexLock lock(mutex_);
    if (!proxies_.empty()) handler = proxies_.back().errorHandler.lock();
  }
  if (!handler) {
    ADD_FAILURE() << "nothing is left of the last proxy of connection#" << number_;
    return;
  }
  if (*handler) (*handler)(error);
}

void ConnectionCore::deliverPacked(const void* member, std::span<const NSObject> arguments, ReplyBlock reply) {
  const Protocol* protocol = nullptr;
  std::shared_ptr<void> object;
  {
    MutexLock lock(mutex_);
    protocol = exportedProtocol_;
    object = exportedObject_;
  }
  const Method* method = protocol != nullptr ? protocol->methodForMember(member) : nullptr;
  if (method == nullptr) {
    ADD_FAILURE() << "connection#" << number_ << " exports nothing that has this method";
    return;
  }
  method->invoke(object.get(), arguments, std::move(reply));
}

void ConnectionCore::made(const std::string& how) {
  note(how);
}

void ConnectionCore::madeWithName(const NSString& name) {
  {
    MutexLock lock(mutex_);
    serviceName_ = name;
  }
  note("initWithServiceName " + name.string());
}

void ConnectionCore::madeWithEndpoint(const NSXPCListenerEndpoint& endpoint) {
  {
    MutexLock lock(mutex_);
    endpoint_ = endpoint;
  }
  note("initWithListenerEndpoint");
}

void ConnectionCore::setRemoteInterface(std::shared_ptr<NSXPCInterface> interface) {
  const std::string name = PlatformDouble::current().nameOf(interface.get());
  {
    MutexLock lock(mutex_);
    std::swap(remoteInterface_, interface);
  }
  note("setRemoteObjectInterface " + name);
}

void ConnectionCore::setExportedInterface(std::shared_ptr<NSXPCInterface> interface) {
  const std::string name = PlatformDouble::current().nameOf(interface.get());
  {
    MutexLock lock(mutex_);
    std::swap(exportedInterface_, interface);
  }
  note("setExportedInterface " + name);
}

void ConnectionCore::setExportedObject(const Protocol& protocol, std::shared_ptr<void> object) {
  {
    MutexLock lock(mutex_);
    exportedProtocol_ = &protocol;
    std::swap(exportedObject_, object);
  }
  note("setExportedObject");
}

void ConnectionCore::setInterruptionHandler(std::function<void()> handler) {
  {
    MutexLock lock(mutex_);
    std::swap(interruptionHandler_, handler);
  }
  note("setInterruptionHandler");
}

void ConnectionCore::setInvalidationHandler(std::function<void()> handler) {
  {
    MutexLock lock(mutex_);
    std::swap(invalidationHandler_, handler);
  }
  note("setInvalidationHandler");
}

void ConnectionCore::resume() {
  note("resume");
}

void ConnectionCore::invalidate() {
  {
    MutexLock lock(mutex_);
    isInvalidated_ = true;
  }
  note("invalidate");
}

void ConnectionCore::letGo() {
  MutexLock lock(mutex_);
  isLetGo_ = true;
}

void ConnectionCore::proxyMade(std::size_t number, const RecordedCall::ErrorHandler& errorHandler) {
  {
    MutexLock lock(mutex_);
    proxies_.push_back({number, errorHandler});
  }
  note("remoteObjectProxyWithErrorHandler proxy#" + std::to_string(number));
}

void ConnectionCore::called(const Method& method, std::vector<NSObject> arguments, ReplyBlock reply,
                            const RecordedCall::ErrorHandler& errorHandler) {
  std::string name = "proxy#?";
  auto call = std::make_shared<RecordedCall>(method.selector, std::move(arguments), std::move(reply), errorHandler);
  {
    MutexLock lock(mutex_);
    for (const Proxy& proxy : proxies_) {
      if (proxy.errorHandler.lock() == errorHandler) name = "proxy#" + std::to_string(proxy.number);
    }
    calls_.push_back(std::move(call));
  }
  journal_->write(name + " " + method.selector);
}

void ConnectionCore::clear() {
  std::function<void()> interruption;
  std::function<void()> invalidation;
  std::shared_ptr<void> object;
  for (const auto& call : calls()) call->drop();
  MutexLock lock(mutex_);
  std::swap(interruption, interruptionHandler_);
  std::swap(invalidation, invalidationHandler_);
  std::swap(object, exportedObject_);
  exportedProtocol_ = nullptr;
}

}  // namespace velto::xpc

std::shared_ptr<NSXPCConnection> NSXPCConnection::initWithServiceName(const NSString& serviceName) {
  auto core = PlatformDouble::current().makeConnection();
  core->madeWithName(serviceName);
  return ConnectionCore::wrap(std::move(core));
}

std::shared_ptr<NSXPCConnection> NSXPCConnection::initWithServiceName(const NSString& serviceName,
                                                                      const velto::xpc::ServingProgram&) {
  return initWithServiceName(serviceName);
}

std::shared_ptr<NSXPCConnection> NSXPCConnection::initWithListenerEndpoint(const NSXPCListenerEndpoint& endpoint) {
  auto core = PlatformDouble::current().makeConnection();
  core->madeWithEndpoint(endpoint);
  return ConnectionCore::wrap(std::move(core));
}

NSXPCConnection::NSXPCConnection(std::shared_ptr<ConnectionCore> core) : core_(std::move(core)) {}

NSXPCConnection::~NSXPCConnection() {
  core_->letGo();
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

void NSXPCConnection::resume() {
  core_->resume();
}

void NSXPCConnection::invalidate() {
  core_->invalidate();
}

RemoteObject NSXPCConnection::makeRemoteObject(const velto::xpc::Protocol& protocol,
                                               std::function<void(NSError)> errorHandler) {
  const auto interface = core_->remoteInterface();
  if (!interface || &interface->protocol() != &protocol) {
    throw NSException("NSInvalidArgumentException", "the remote object interface is not of " + protocol.name());
  }
  return RemoteObject(core_, std::move(errorHandler));
}

Class NSXPCConnection::boxClass() {
  static const Class& made = *new Class(Class::define("NSXPCConnection", NSObject::classObject()));
  return made;
}
