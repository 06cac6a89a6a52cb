// The broker's table of names. A registration watches its listener from before it is entered, so that one whose
// listener goes away in that very moment is never entered: both sides decide under the lock.
#include "daemon/Registry.h"

#include <utility>

#include "platform/logging/VeltoLogging.h"
#include "platform/xpc/Protocol.h"

namespace velto {

// Its count is reached through the registry, which holds its lock then.
class Registrant {
 public:
  explicit Registrant(Holder holderOfNames) : holder(std::move(holderOfNames)) {}

  const Holder holder;

 private:
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

std::shared_ptr<Registry> Registry::make(const BrokerLimits& limits, std::shared_ptr<Ledger> ledger) {
  return std::shared_ptr<Registry>(new Registry(limits, std::move(ledger)));
}

std::shared_ptr<Registrant> Registry::makeRegistrant(const Holder& holder) {
  return std::make_shared<Registrant>(holder);
}

void Registry::add(const NSString& name, const NSXPCListenerEndpoint& endpoint,
                   const std::shared_ptr<Registrant>& registrant) {
  refuseUnservable(name);
  if (!endpoint) throw NSXPCRefusal("the endpoint is nil");
  // Let go of after the lock, as is what it replaces; and made before it, so that memory is not wanting half-way.
  Names entry;
  entry.emplace(name.string(), Kept{watched(name.string(), endpoint, registrant), 0});
  std::shared_ptr<Registration> replaced;
  Ledger::Admission admission;
  {
    MutexLock lock(mutex_);
    if (isGone(*entry.begin()->second.registration)) return;
    const auto found = names_.find(name.view());
    enter(admission, entry.begin(), found);
    if (admission.item != 0) {
      if (found != names_.end()) replaced = takeOut(found);
      entry.begin()->second.item = admission.item;
      names_.insert(entry.extract(entry.begin()));
      ++namesOf(*registrant);
    }
  }
  if (admission.item == 0) throw NSXPCRefusal(admission.reason);
}

void Registry::enter(Ledger::Admission& admission, Names::const_iterator entry, Names::const_iterator standing) {
  const auto& registrant = entry->second.registration->registrant;
  const bool isStanding = standing != names_.end();
  if (!isStanding || standing->second.registration->registrant != registrant) {
    refuseAtLimit(namesOf(*registrant), limits_.namesOfOneLink, "names of one link");
  }
  auto giveWay = [weakSelf = weak_from_this(), name = entry->first](Ledger::Item item, const std::string& why) {
    if (const auto self = weakSelf.lock()) self->giveWay(name, item, why);
  };
  ledger_->enter(admission, Ledger::Kind::name, registrant->holder, std::move(giveWay),
                 isStanding ? standing->second.item : 0);
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
    const auto found = names_.find(name);
    if (found == names_.end() || found->second.registration != registration) return;
    takeOut(found);
  }
  VKTLoggingLog(VKTLogGetAnchor(), 2, "The listener of %@ is gone", NSString(name));
}

void Registry::giveWay(const std::string& name, Ledger::Item item, const std::string& why) {
  std::shared_ptr<Registration> dropped;
  {
    MutexLock lock(mutex_);
    const auto found = names_.find(name);
    if (found == names_.end() || found->second.item != item) return;
    dropped = takeOut(found);
  }
  VKTLoggingLog(VKTLogGetAnchor(), 0, "The name %@ makes room: %s", NSString(name), why);
}

std::shared_ptr<Registry::Registration> Registry::takeOut(Names::iterator found) {
  auto taken = std::move(found->second.registration);
  ledger_->leave(found->second.item);
  names_.erase(found);
  --namesOf(*taken->registrant);
  return taken;
}

NSXPCListenerEndpoint Registry::find(const NSString& name) const {
  MutexLock lock(mutex_);
  const auto found = names_.find(name.view());
  return found != names_.end() ? found->second.registration->endpoint : NSXPCListenerEndpoint();
}

bool Registry::drop(const NSString& name) {
  std::shared_ptr<Registration> dropped;
  MutexLock lock(mutex_);
  const auto found = names_.find(name.view());
  if (found == names_.end()) return false;
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
  return names_.size();
}

}  // namespace velto
