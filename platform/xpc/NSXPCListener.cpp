// Accepts connections and hands them over. Until its first call has come, a connection is only a socket that somebody
// opened; how many of those there may be, and for how long, is bounded here.

#include "platform/xpc/NSXPCListener.h"

#include <cerrno>
#include <cstring>
#include <new>
#include <utility>

#include <sys/epoll.h>

#include "platform/foundation/Foundation.h"
#include "platform/logging/VeltoLogging.h"
#include "platform/xpc/ListenerCore.h"
#include "platform/xpc/NSXPCConnection.h"
#include "platform/xpc/connection/ConnectionCore.h"
#include "platform/xpc/interface/Errors.h"
#include "platform/xpc/system/SystemCalls.h"
#include "platform/xpc/transport/RuntimeDirectory.h"
#include "platform/xpc/transport/Sockets.h"

using velto::xpc::ListenerCore;

std::shared_ptr<NSXPCListener> NSXPCListener::anonymousListener() {
  auto made = velto::transport::makeAnonymousSocket();
  if (!made.socket) {
    VKTLoggingLog(VKTLogGetAnchor(), VKTLogLevelFailure, "An anonymous listener cannot be made: %s", made.reason);
    return nullptr;
  }
  auto core = std::make_shared<ListenerCore>(std::move(made.socket));
  core->setEndpoint(NSXPCListenerEndpoint::endpointWithDescriptors(
                        std::make_shared<const velto::system::Descriptor>(std::move(made.handle)),
                        std::make_shared<const velto::system::Descriptor>(std::move(made.hangUpRead))),
                    std::move(made.hangUpWrite));
  return make(std::move(core));
}

std::shared_ptr<NSXPCListener> NSXPCListener::serving(velto::transport::NamedSocket made, NSError* error) {
  if (!made.socket) {
    if (error != nullptr) *error = velto::xpc::makeError(NSXPCConnectionInvalid, made.reason);
    return nullptr;
  }
  auto core = std::make_shared<ListenerCore>(std::move(made.socket));
  core->setServed(std::move(made));
  return make(std::move(core));
}

std::shared_ptr<NSXPCListener> NSXPCListener::listenerWithServiceName(const NSString& serviceName, NSError* error) {
  return serving(velto::transport::serveName(serviceName.view()), error);
}

std::shared_ptr<NSXPCListener> NSXPCListener::listenerWithPassedSocket(int takenSocket, const NSString& serviceName,
                                                                       NSError* error) {
  velto::system::systemCalls().closeOnExec(takenSocket);
  return serving(velto::transport::takeOverServing(velto::system::Descriptor(takenSocket), serviceName.view()), error);
}

std::shared_ptr<NSXPCListener> NSXPCListener::listenerWithFreshServiceName(const NSString& prefix, NSError* error) {
  return serving(velto::transport::serveFreshName(prefix.view()), error);
}

NSArray NSXPCListener::serviceNamesWithPrefix(const NSString& prefix) {
  NSMutableArray names = NSMutableArray::array();
  const std::string from = velto::transport::RuntimeDirectory::named();
  for (const std::string& name : velto::transport::namesBeginningWith(prefix.view(), from)) {
    names.addObject(NSString(name));
  }
  return names;
}

void NSXPCListener::forgetServiceNames(const NSArray& names) {
  const std::string from = velto::transport::RuntimeDirectory::named();
  for (const NSObject& name : names) velto::transport::forgetName(name.as<NSString>().string(), from);
}

std::shared_ptr<NSXPCListener> NSXPCListener::make(std::shared_ptr<ListenerCore> core) {
  std::shared_ptr<NSXPCListener> listener(new NSXPCListener(core));
  core->setListener(listener);
  return listener;
}

NSXPCListener::NSXPCListener(std::shared_ptr<ListenerCore> core) : core_(std::move(core)) {}

NSXPCListener::~NSXPCListener() {
  try {
    core_->invalidate();
  } catch (const std::bad_alloc&) {
    // The socket is closed by then. What may stay is its name, which the next one to serve it takes over.
  }
}

NSXPCListenerEndpoint NSXPCListener::endpoint() const {
  return core_->endpoint();
}

NSString NSXPCListener::path() const {
  return core_->path();
}

velto::xpc::ListenerTraffic NSXPCListener::traffic() const {
  return core_->traffic();
}

void NSXPCListener::setDelegate(std::weak_ptr<NSXPCListenerDelegate> delegate) {
  core_->setDelegate(std::move(delegate));
}

void NSXPCListener::resume() {
  core_->resume();
}

void NSXPCListener::invalidate() {
  core_->invalidate();
}

bool NSXPCListener::leave(const std::function<bool()>& mayLeave) {
  return core_->leave(mayLeave);
}

std::shared_ptr<NSXPCConnection> NSXPCListener::wrap(std::shared_ptr<velto::xpc::ConnectionCore> core) {
  return std::shared_ptr<NSXPCConnection>(new NSXPCConnection(std::move(core)));
}
