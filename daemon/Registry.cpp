// The broker's table of names. A registration watches its listener from before it is entered, so that one whose
// listener goes away in that very moment is never entered: both sides decide under the lock.
#include "daemon/Registry.h"

#include <algorithm>
#include <utility>

#include "platform/foundation/Foundation.h"
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
  bool hasLeft_ = false;
};

class Registry::Registration {
 public:
  Registration(NSXPCListenerEndpoint endpointOfName, std::shared_ptr<Registrant> registrantOfName,
               std::uint64_t sinceWhen, std::string tokenInStore)
      : endpoint(std::move(endpointOfName)),
        registrant(std::move(registrantOfName)),
        since(sinceWhen),
        token(std::move(tokenInStore)) {}

  const NSXPCListenerEndpoint endpoint;
  const std::shared_ptr<Registrant> registrant;
  const std::uint64_t since;
  const std::string token;
  std::shared_ptr<NSXPCListenerEndpoint::Watch> watch;

 private:
  // Reached through the registry, which holds its lock then.
  friend class Registry;
  bool isGone_ = false;
};

namespace {

std::uint64_t nowOnTheMachine() {
  return static_cast<std::uint64_t>(
      std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
          .count());
}

std::string newToken() {
  return NSUUID::UUID().UUIDString().string();
}

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

std::shared_ptr<Registry> Registry::make(const BrokerLimits& limits, std::shared_ptr<Ledger> ledger, NameStore* store) {
  return std::shared_ptr<Registry>(new Registry(limits, std::move(ledger), store));
}

std::shared_ptr<Registrant> Registry::makeRegistrant(const Holder& holder) {
  return std::make_shared<Registrant>(holder);
}

NameAnswer Registry::add(const NSString& name, const NSXPCListenerEndpoint& endpoint,
                         const std::shared_ptr<Registrant>& registrant, bool takingOver) {
  return addAs(name, endpoint, registrant,
               {takingOver ? Claim::Kind::takeOver : Claim::Kind::ifFree, nowOnTheMachine(), newToken()});
}

NameAnswer Registry::addAgain(const NSString& name, const NSXPCListenerEndpoint& endpoint,
                              const std::shared_ptr<Registrant>& registrant, std::uint64_t since) {
  // Nobody has registered in the future, and so before all who come.
  return addAs(name, endpoint, registrant, {Claim::Kind::again, std::min(since, nowOnTheMachine()), newToken()});
}

void Registry::restore(const StoredName& stored) {
  const auto registrant = makeRegistrant(Holder::remembered(stored.process));
  const NameAnswer answer =
      addAs(stored.name, stored.endpoint, registrant, {Claim::Kind::again, stored.since, stored.token});
  if (store_ != nullptr && (answer.state.registration == 0 || answer.isTaken)) store_->forget(stored.token);
}

NameAnswer Registry::addAs(const NSString& name, const NSXPCListenerEndpoint& endpoint,
                           const std::shared_ptr<Registrant>& registrant, const Claim& claim) {
  refuseUnservable(name);
  if (!endpoint) throw NSXPCRefusal("the endpoint is nil");
  // Let go of after the lock, as is what it replaces; and made before it, so that memory is not wanting half-way.
  Names entry;
  entry.emplace(name.string(), Kept{watched(name.string(), endpoint, registrant, claim), 0});
  std::shared_ptr<Registration> replaced;
  Waiters::Some hearing;
  Standing standing;
  Ledger::Admission admission;
  {
    MutexLock lock(mutex_);
    if (isGone(*entry.begin()->second.registration)) return {};
    const auto found = names_.find(name.view());
    if (found != names_.end() && isLeftAlone(found->second, endpoint, claim)) {
      return {stateOf(found->second), found->second.registration->endpoint != endpoint, ""};
    }
    enter(admission, entry.begin(), found);
    if (admission.item != 0) {
      entry.begin()->second.item = admission.item;
      store(entry.begin()->first, entry.begin()->second);
      if (found != names_.end()) replaced = takeOut(found);
      standing = {stateOf(entry.begin()->second), endpoint};
      names_.insert(entry.extract(entry.begin()));
      ++namesOf(*registrant);
      takeOutWaiters(name.view(), hearing);
    }
  }
  if (admission.item == 0) throw NSXPCRefusal(admission.reason);
  Waiters::tell(hearing, standing);
  return {standing.state, false, ""};
}

bool Registry::isLeftAlone(const Kept& standing, const NSXPCListenerEndpoint& endpoint, const Claim& claim) {
  const Registration& other = *standing.registration;
  const bool isSame = other.endpoint == endpoint;
  if (claim.kind == Claim::Kind::takeOver) return false;
  if (claim.kind == Claim::Kind::ifFree) return !isSame && !other.endpoint.isGone();
  if (isSame) return !other.registrant->holder.isRemembered();
  return other.since >= claim.since && !other.endpoint.isGone();
}

void Registry::store(const std::string& name, const Kept& kept) const {
  if (store_ == nullptr) return;
  const Registration& registration = *kept.registration;
  store_->keep({registration.token, NSString(name), registration.endpoint, stateOf(kept).process, registration.since});
}

NameState Registry::stateOf(const Kept& kept) {
  return {kept.item, kept.registration->registrant->holder.process};
}

NameDescription Registry::descriptionOf(const std::string& name, const Kept& kept) {
  const Registration& registration = *kept.registration;
  const auto user = static_cast<std::int32_t>(registration.registrant->holder.peer.userIdentifier());
  return {name, stateOf(kept), user, registration.since, 0};
}

std::optional<NameDescription> Registry::describe(const NSString& name) const {
  MutexLock lock(mutex_);
  const auto found = names_.find(name.view());
  if (found == names_.end()) return std::nullopt;
  return descriptionOf(found->first, found->second);
}

std::vector<NameDescription> Registry::describe(std::string_view behind, std::size_t most) const {
  std::vector<NameDescription> descriptions;
  MutexLock lock(mutex_);
  for (auto next = names_.upper_bound(behind); next != names_.end() && descriptions.size() < most; ++next) {
    descriptions.push_back(descriptionOf(next->first, next->second));
  }
  return descriptions;
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
                                                          const std::shared_ptr<Registrant>& registrant,
                                                          const Claim& claim) {
  auto made = std::make_shared<Registration>(endpoint, registrant, claim.since, claim.token);
  made->watch = endpoint.watch([weakSelf = weak_from_this(), name, weakMade = std::weak_ptr(made)] {
    const auto self = weakSelf.lock();
    const auto registration = weakMade.lock();
    if (self && registration) self->listenerIsGone(name, registration);
  });
  if (!made->watch) throw NSXPCRefusal("the listener cannot be watched: no descriptor is left");
  return made;
}

void Registry::listenerIsGone(const std::string& name, const std::shared_ptr<Registration>& registration) {
  Waiters::Some hearing;
  bool isEmptied = false;
  {
    MutexLock lock(mutex_);
    isGone(*registration) = true;
    const auto found = names_.find(name);
    if (found == names_.end() || found->second.registration != registration) return;
    takeOut(found);
    takeOutWaiters(name, hearing);
    isEmptied = names_.empty();
  }
  VKTLoggingLog(VKTLogGetAnchor(), 2, "The listener of %@ is gone", NSString(name));
  Waiters::tell(hearing, Standing());
  tellIfEmptied(isEmptied);
}

void Registry::giveWay(const std::string& name, Ledger::Item item, const std::string& why) {
  if (!dropIf(NSString(name), [item](const Kept& kept) { return kept.item == item; })) return;
  VKTLoggingLog(VKTLogGetAnchor(), 0, "The name %@ makes room: %s", NSString(name), why);
}

std::shared_ptr<Registry::Registration> Registry::takeOut(Names::iterator found) {
  auto taken = std::move(found->second.registration);
  ledger_->leave(found->second.item);
  if (store_ != nullptr) store_->forget(taken->token);
  names_.erase(found);
  --namesOf(*taken->registrant);
  return taken;
}

NSXPCListenerEndpoint Registry::find(const NSString& name) const {
  MutexLock lock(mutex_);
  return standingUnder(name).endpoint;
}

Standing Registry::standingUnder(const NSString& name) const {
  const auto found = names_.find(name.view());
  return found != names_.end() ? Standing{stateOf(found->second), found->second.registration->endpoint} : Standing();
}

bool Registry::drop(const NSString& name) {
  return dropIf(name, [](const Kept&) { return true; });
}

bool Registry::giveBack(const NSString& name, std::uint64_t registration,
                        const std::shared_ptr<Registrant>& registrant) {
  return dropIf(name, [registration, process = registrant->holder.number](const Kept& kept) {
    return kept.item == registration && kept.registration->registrant->holder.number == process;
  });
}

bool Registry::dropIf(const NSString& name, const std::function<bool(const Kept&)>& isMeant) {
  std::shared_ptr<Registration> dropped;
  Waiters::Some hearing;
  bool isEmptied = false;
  {
    MutexLock lock(mutex_);
    const auto found = names_.find(name.view());
    if (found == names_.end() || !isMeant(found->second)) return false;
    dropped = takeOut(found);
    takeOutWaiters(name.view(), hearing);
    isEmptied = names_.empty();
  }
  Waiters::tell(hearing, Standing());
  tellIfEmptied(isEmptied);
  return true;
}

void Registry::tellIfEmptied(bool isEmptied) const {
  if (isEmptied && emptied_) emptied_();
}

Ledger::Item Registry::wait(const NSString& name, std::uint64_t known, std::optional<std::chrono::nanoseconds> time,
                            const std::shared_ptr<Registrant>& registrant, Waiters::Answer answer) {
  refuseUnservable(name);
  std::optional<Standing> other;
  Ledger::Admission admission;
  {
    MutexLock lock(mutex_);
    if (hasLeft(*registrant)) return 0;
    Standing standing = standingUnder(name);
    if (standing.state.registration != known) {
      other = std::move(standing);
    } else {
      enterWaiter(admission, name.string(), registrant, answer);
    }
  }
  if (other) {
    answer(other);
    return 0;
  }
  if (admission.item == 0) throw NSXPCRefusal(admission.reason);
  if (time) endWaiterAfter(*time, name.string(), admission.item);
  return admission.item;
}

void Registry::enterWaiter(Ledger::Admission& admission, const std::string& name,
                           const std::shared_ptr<Registrant>& registrant, Waiters::Answer answer) {
  auto giveWay = [weakSelf = weak_from_this(), name](Ledger::Item item, const std::string& why) {
    VKTLoggingLog(VKTLogGetAnchor(), 0, "One that waits for %@ makes room: %s", NSString(name), why);
    if (const auto self = weakSelf.lock()) self->endWaiter(name, item);
  };
  ledger_->enter(admission, Ledger::Kind::waiter, registrant->holder, std::move(giveWay));
  if (admission.item == 0) return;
  try {
    waiters_.add(name, admission.item, {std::move(answer), registrant.get()});
  } catch (...) {
    ledger_->leave(admission.item);
    throw;
  }
}

void Registry::endWaiter(const std::string& name, Ledger::Item item) {
  Waiters::Some ended;
  {
    MutexLock lock(mutex_);
    waiters_.takeOut(name, item, ended);
    ledger_->leave(item);
  }
  Waiters::tell(ended, std::nullopt);
}

// It may be over before the waiter has its clock, which is let go of then.
void Registry::endWaiterAfter(std::chrono::nanoseconds time, const std::string& name, Ledger::Item item) {
  auto timeOut = xpc::DelayedCall::after(time, [weakSelf = weak_from_this(), name, item] {
    if (const auto self = weakSelf.lock()) self->endWaiter(name, item);
  });
  MutexLock lock(mutex_);
  if (Waiters::Waiter* const waiter = waiters_.find(name, item)) waiter->timeOut.swap(timeOut);
}

void Registry::takeOutWaiters(std::string_view name, Waiters::Some& taken) {
  waiters_.takeOutOfName(name, taken);
  for (const auto& [place, waiter] : taken) ledger_->leave(place.second);
}

void Registry::leave(const std::shared_ptr<Registrant>& registrant) {
  Waiters::Some left;
  MutexLock lock(mutex_);
  hasLeft(*registrant) = true;
  waiters_.takeOutOfLink(*registrant, left);
  for (const auto& [place, waiter] : left) ledger_->leave(place.second);
}

std::size_t Registry::waiterCount() const {
  MutexLock lock(mutex_);
  return waiters_.count();
}

bool& Registry::isGone(Registration& registration) const {
  return registration.isGone_;
}

std::size_t& Registry::namesOf(Registrant& registrant) const {
  return registrant.names_;
}

bool& Registry::hasLeft(Registrant& registrant) const {
  return registrant.hasLeft_;
}

std::size_t Registry::count() const {
  MutexLock lock(mutex_);
  return names_.size();
}

}  // namespace velto
