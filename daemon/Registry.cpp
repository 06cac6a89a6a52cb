// The broker's table of names. A registration watches its listener from before it is entered, so that one whose
// listener goes away in that very moment is never entered: both sides decide under the lock.
#include "daemon/Registry.h"

#include <utility>

#include "platform/logging/VeltoLogging.h"
#include "platform/xpc/Protocol.h"

namespace velto {

// Its count is reached through the registry, which holds its lock then.
class Registrant {
  friend class Registry;

  std::size_t names_ = 0;
};

class Registry::Registration {
 public:
  Registration(NSXPCListenerEndpoint endpointOfName, std::shared_ptr<Registrant> registrantOfName)
      : endpoint(std::move(endpointOfName)), registrant(std::move(registrantOfName)) {}

  const NSXPCListenerEndpoint endpoint;
  const std::shared_ptr<Registrant> registrant;
  std::shared_ptr<NSXPCListenerEndpoint::Watch> watch;

 private:
  // Reached through the registry, which holds its lock then.
  friend class Registry;
  bool isGone_ = false;
};

namespace {

void refuseUnservable(const NSString& name) {
  if (!name) throw NSXPCRefusal("the name is nil");
  if (name.length() == 0) throw NSXPCRefusal("the name is empty");
  if (name.length() > limits::kMaximumNameBytes) {
    throw NSXPCRefusal("the name has " + std::to_string(name.length()) + " bytes; the maximum is " +
                       std::to_string(limits::kMaximumNameBytes));
  }
}

void refuseAtLimit(std::size_t value, std::size_t maximum, const char* what) {
  if (value < maximum) return;
  throw NSXPCRefusal(std::string(what) + " would be " + std::to_string(value + 1) + "; the maximum is " +
                     std::to_string(maximum));
}

}  // namespace

std::shared_ptr<Registry> Registry::make(const BrokerLimits& limits) {
  return std::shared_ptr<Registry>(new Registry(limits));
}

std::shared_ptr<Registrant> Registry::makeRegistrant() {
  return std::make_shared<Registrant>();
}

void Registry::add(const NSString& name, const NSXPCListenerEndpoint& endpoint,
                   const std::shared_ptr<Registrant>& registrant) {
  refuseUnservable(name);
  if (!endpoint) throw NSXPCRefusal("the endpoint is nil");
  const auto registration = watched(name.string(), endpoint, registrant);
  // Let go of after the lock.
  std::shared_ptr<Registration> replaced;
  MutexLock lock(mutex_);
  if (isGone(*registration)) return;
  const auto found = registrations_.find(name.view());
  refuseOverLimit(found != registrations_.end() ? found->second.get() : nullptr, *registrant);
  if (found != registrations_.end()) replaced = takeOut(found);
  registrations_.emplace(name.string(), registration);
  ++namesOf(*registrant);
}

std::shared_ptr<Registry::Registration> Registry::watched(const std::string& name,
                                                          const NSXPCListenerEndpoint& endpoint,
                                                          const std::shared_ptr<Registrant>& registrant) {
  auto made = std::make_shared<Registration>(endpoint, registrant);
  made->watch = endpoint.watch([weakSelf = weak_from_this(), name, weakMade = std::weak_ptr(made)] {
    const auto self = weakSelf.lock();
    const auto registration = weakMade.lock();
    if (self && registration) self->listenerIsGone(name, registration);
  });
  if (!made->watch) throw NSXPCRefusal("the listener cannot be watched: no descriptor is left");
  return made;
}

void Registry::listenerIsGone(const std::string& name, const std::shared_ptr<Registration>& registration) {
  {
    MutexLock lock(mutex_);
    isGone(*registration) = true;
    const auto found = registrations_.find(name);
    if (found == registrations_.end() || found->second != registration) return;
    takeOut(found);
  }
  VKTLoggingLog(VKTLogGetAnchor(), 2, "The listener of %@ is gone", NSString(name));
}

void Registry::refuseOverLimit(const Registration* standing, Registrant& registrant) const {
  if (standing == nullptr) refuseAtLimit(registrations_.size(), limits_.names, "names");
  if (standing == nullptr || standing->registrant.get() != &registrant) {
    refuseAtLimit(namesOf(registrant), limits_.namesOfOneLink, "names of one link");
  }
}

std::shared_ptr<Registry::Registration> Registry::takeOut(Registrations::iterator found) {
  auto taken = std::move(found->second);
  registrations_.erase(found);
  --namesOf(*taken->registrant);
  return taken;
}

NSXPCListenerEndpoint Registry::find(const NSString& name) const {
  MutexLock lock(mutex_);
  const auto found = registrations_.find(name.view());
  return found != registrations_.end() ? found->second->endpoint : NSXPCListenerEndpoint();
}

bool Registry::drop(const NSString& name) {
  std::shared_ptr<Registration> dropped;
  MutexLock lock(mutex_);
  const auto found = registrations_.find(name.view());
  if (found == registrations_.end()) return false;
  dropped = takeOut(found);
  return true;
}

bool& Registry::isGone(Registration& registration) const {
  return registration.isGone_;
}

std::size_t& Registry::namesOf(Registrant& registrant) const {
  return registrant.names_;
}

std::size_t Registry::count() const {
  MutexLock lock(mutex_);
  return registrations_.size();
}

}  // namespace velto
