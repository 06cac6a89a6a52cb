// The registry of everything that the library made at the double. The substituted classes find it through one global,
// since their factories are static.

#include "tests/conformance/double/PlatformDouble.h"

#include <atomic>
#include <utility>

#include "tests/support/Waiting.h"

namespace velto::testing {
namespace {

std::atomic<PlatformDouble*> currentPlatform{nullptr};

}  // namespace

PlatformDouble::PlatformDouble() {
  if (currentPlatform.exchange(this) != nullptr) giveUp("there is a platform double already");
}

PlatformDouble::~PlatformDouble() {
  std::vector<std::shared_ptr<ConnectionDouble>> connections;
  {
    MutexLock lock(mutex_);
    connections.swap(connections_);
  }
  // An established connection and its exported object hold each other.
  for (const auto& connection : connections) connection->clear();
  currentPlatform = nullptr;
}

PlatformDouble& PlatformDouble::current() {
  PlatformDouble* platform = currentPlatform;
  if (platform == nullptr) giveUp("the library was used without a platform double");
  return *platform;
}

std::size_t PlatformDouble::connectionCount() const {
  MutexLock lock(mutex_);
  return connections_.size();
}

ConnectionDouble& PlatformDouble::connection(std::size_t number) const {
  MutexLock lock(mutex_);
  if (number == 0 || number > connections_.size()) giveUp("no such connection was made at the platform double");
  return *connections_[number - 1];
}

std::size_t PlatformDouble::listenerCount() const {
  MutexLock lock(mutex_);
  return listeners_.size();
}

ListenerDouble& PlatformDouble::listener(std::size_t number) const {
  MutexLock lock(mutex_);
  if (number == 0 || number > listeners_.size()) giveUp("no such listener was made at the platform double");
  return *listeners_[number - 1];
}

std::size_t PlatformDouble::interfaceCount() const {
  MutexLock lock(mutex_);
  return interfaces_.size();
}

InterfaceDouble PlatformDouble::interface(std::size_t number) const {
  MutexLock lock(mutex_);
  if (number == 0 || number > interfaces_.size()) giveUp("no such interface was made at the platform double");
  return interfaces_[number - 1];
}

std::shared_ptr<ConnectionDouble> PlatformDouble::makeConnection() {
  MutexLock lock(mutex_);
  connections_.push_back(std::make_shared<ConnectionDouble>(connections_.size() + 1, journal_));
  return connections_.back();
}

std::shared_ptr<ListenerDouble> PlatformDouble::makeListener() {
  MutexLock lock(mutex_);
  listeners_.push_back(std::make_shared<ListenerDouble>(listeners_.size() + 1, makeEndpoint(), journal_));
  return listeners_.back();
}

std::size_t PlatformDouble::nextProxyNumber() {
  MutexLock lock(mutex_);
  return ++proxyCount_;
}

void PlatformDouble::interfaceMade(const NSXPCInterface* interface, const xpc::Protocol& protocol) {
  {
    MutexLock lock(mutex_);
    interfaces_.push_back({interfaces_.size() + 1, &protocol, defaultClasses(protocol)});
    interfaceNumbers_[interface] = interfaces_.size();
  }
  noteInterface(interface, "interfaceWithProtocol " + protocol.name());
}

InterfaceDouble PlatformDouble::interfaceOf(const NSXPCInterface* interface) const {
  MutexLock lock(mutex_);
  const auto found = interfaceNumbers_.find(interface);
  if (found == interfaceNumbers_.end()) giveUp("an interface that the platform double did not make");
  return interfaces_[found->second - 1];
}

void PlatformDouble::storeClasses(const NSXPCInterface* interface, const InterfaceDouble::Key& key,
                                  const NSSet& classes) {
  const std::size_t number = interfaceOf(interface).number;
  MutexLock lock(mutex_);
  interfaces_[number - 1].classes[key] = classes;
}

void PlatformDouble::noteInterface(const NSXPCInterface* interface, const std::string& what) {
  journal_->write(nameOf(interface) + " " + what);
}

std::string PlatformDouble::nameOf(const NSXPCInterface* interface) const {
  return interface != nullptr ? interfaceOf(interface).name() : "nil";
}

}  // namespace velto::testing
