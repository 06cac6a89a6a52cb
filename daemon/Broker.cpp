// The broker's links. Each link exports an object of its own, because what one client may register is counted per link,
// and because a link that is used makes room later than one that is idle. A registration outlives the link that made
// it, because a listener may close its link and listen on.
#include "daemon/Broker.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "daemon/Recall.h"
#include "platform/logging/VeltoLogging.h"

namespace velto {
namespace {

// What one client calls.
class Link final : public VeltoIPCObserverProtocol {
 public:
  // What all links share.
  struct Shared {
    std::shared_ptr<Registry> registry;
    std::shared_ptr<LookUps> lookUps;
    std::shared_ptr<Ledger> ledger;
    std::shared_ptr<StandIns> standIns;
    std::shared_ptr<Observer> observer;
    std::weak_ptr<Broker> broker;
  };

  Link(Shared shared, Holder holder)
      : shared_(std::move(shared)), holder_(std::move(holder)), registrant_(Registry::makeRegistrant(holder_)) {}

  // Nobody is there any more to be told what it waits for.
  void end() {
    shared_.registry->leave(registrant_);
    shared_.standIns->leave(this);
  }
  // As what it is kept; before the first call.
  void setItem(Ledger::Item item) { item_ = item; }
  Ledger::Item item() const { return item_; }

  void sendListenerConnection(NSXPCListenerEndpoint endpoint, NSString withName) override {
    shared_.ledger->use(item_);
    shared_.registry->add(withName, endpoint, registrant_);
    Tallies::count(shared_.observer->tallies().registrations);
    VKTLoggingLog(VKTLogGetAnchor(), 2, "Registered %@", withName);
  }

  void findListenerEndpointForName(NSString name, std::function<void(NSXPCListenerEndpoint)> handle) override {
    shared_.ledger->use(item_);
    Tallies::count(shared_.observer->tallies().lookUps);
    shared_.lookUps->find(name, registrant_,
                          [name, handle = std::move(handle), standIns = shared_.standIns,
                           observer = shared_.observer](const NSXPCListenerEndpoint& endpoint) {
                            VKTLoggingLog(VKTLogGetAnchor(), 2, "Looked up %@: %s", name,
                                          endpoint ? "found" : "not registered");
                            if (endpoint) Tallies::count(observer->tallies().found);
                            if (handle) handle(standIns->inFrontOf(name, endpoint));
                          });
  }

  void killListenerConnection(NSString name) override {
    shared_.ledger->use(item_);
    if (!shared_.registry->drop(name)) return;
    Tallies::count(shared_.observer->tallies().drops);
    VKTLoggingLog(VKTLogGetAnchor(), 2, "Dropped %@ as asked", name);
  }

  void registerName(NSString name, NSXPCListenerEndpoint endpoint, bool takingOver, Answer answer) override {
    shared_.ledger->use(item_);
    const NameAnswer given = answered([&] { return shared_.registry->add(name, endpoint, registrant_, takingOver); });
    VKTLoggingLog(VKTLogGetAnchor(), 2, "%s %@", given.stands() ? "Registered" : "Did not register", name);
    if (answer) answer(dictionaryOf(given));
  }

  void registerNameAgain(NSString name, NSXPCListenerEndpoint endpoint, NSNumber since, Answer answer) override {
    shared_.ledger->use(item_);
    const auto when = since.to<std::uint64_t>().value_or(0);
    const NameAnswer given = answered([&] { return shared_.registry->addAgain(name, endpoint, registrant_, when); });
    VKTLoggingLog(VKTLogGetAnchor(), 2, "%s %@ again", given.stands() ? "Registered" : "Did not register", name);
    if (answer) answer(dictionaryOf(given));
  }

  void explainAbsenceOfName(NSString name, std::function<void(NSString)> answer) override {
    shared_.ledger->use(item_);
    const std::string reason = shared_.lookUps->reason(name);
    if (answer) answer(reason.empty() ? NSString() : NSString(reason));
  }

  void giveBackName(NSString name, NSNumber registration) override {
    shared_.ledger->use(item_);
    if (!shared_.registry->giveBack(name, registration.to<std::uint64_t>().value_or(0), registrant_)) return;
    VKTLoggingLog(VKTLogGetAnchor(), 2, "%@ was given back", name);
  }

  void waitForName(NSString name, NSNumber seconds, std::function<void(NSXPCListenerEndpoint)> handle) override {
    shared_.ledger->use(item_);
    if (!handle) return;
    shared_.registry->wait(
        name, 0, timeOf(seconds), registrant_,
        [name, handle = std::move(handle), standIns = shared_.standIns](const std::optional<Standing>& standing) {
          handle(standing ? standIns->inFrontOf(name, standing->endpoint) : NSXPCListenerEndpoint());
        });
  }

  void waitForChangeOfName(NSString name, NSNumber knownRegistration, Answer answer) override {
    shared_.ledger->use(item_);
    if (!answer) return;
    shared_.registry->wait(name, knownRegistration.to<std::uint64_t>().value_or(0), std::nullopt, registrant_,
                           [answer = std::move(answer)](const std::optional<Standing>& standing) {
                             answer(standing ? dictionaryOf(standing->state) : NSDictionary());
                           });
  }

  void listNames(NSString after, Answer answer) override {
    shared_.ledger->use(item_);
    if (answer) answer(shared_.observer->namesAfter(after));
  }

  void describeName(NSString name, Answer answer) override {
    shared_.ledger->use(item_);
    if (answer) answer(shared_.observer->name(name));
  }

  void describeBroker(Answer answer) override {
    shared_.ledger->use(item_);
    const auto broker = shared_.broker.lock();
    if (answer) answer(shared_.observer->broker(broker ? broker->linkCount() : 0));
  }

  void standInForName(NSString name, NSXPCListenerEndpoint endpoint, Answer answer) override {
    shared_.ledger->use(item_);
    shared_.standIns->add(name, endpoint, holder_, this);
    VKTLoggingLog(VKTLogGetAnchor(), 2, "Process %d stands in for %@", holder_.process, name);
    if (answer) answer(NSDictionary::dictionary());
  }

  void findListenerEndpointBehindName(NSString name, std::function<void(NSXPCListenerEndpoint)> handle) override {
    shared_.ledger->use(item_);
    if (!handle) return;
    handle(shared_.standIns->isOf(name, this) ? shared_.registry->find(name) : NSXPCListenerEndpoint());
  }

 private:
  // What comes of a registration, the reasons of those that are refused included.
  template <class Register>
  NameAnswer answered(const Register& registers) {
    try {
      const NameAnswer given = registers();
      if (given.stands()) Tallies::count(shared_.observer->tallies().registrations);
      return given.state.registration != 0 ? given : NameAnswer{{}, false, "the listener is gone"};
    } catch (const NSXPCRefusal& refusal) {
      return {{}, false, refusal.reason()};
    }
  }

  // None for what is no time.
  static std::optional<std::chrono::nanoseconds> timeOf(const NSNumber& seconds) {
    constexpr double kLongest = 1e9;
    const double asked = seconds.doubleValue();
    if (!seconds || std::isnan(asked)) return std::nullopt;
    return std::chrono::nanoseconds(static_cast<std::int64_t>(std::clamp(asked, 0.0, kLongest) * 1e9));
  }

  const Shared shared_;
  const Holder holder_;
  const std::shared_ptr<Registrant> registrant_;
  Ledger::Item item_ = 0;
};

}  // namespace

Broker::Broker(Means means)
    : means_(std::move(means)),
      ledger_(Ledger::make(means_.limits)),
      registry_(Registry::make(means_.limits, ledger_, means_.store.get())),
      lookUps_(LookUps::make(registry_, means_.starter)),
      standIns_(StandIns::make(means_.limits, ledger_)),
      observer_(std::make_shared<Observer>(means_.limits, registry_, ledger_, standIns_)),
      interface_(NSXPCInterface::interfaceWithProtocol<VeltoIPCObserverProtocol>()) {}

std::shared_ptr<Broker> Broker::make(Means means) {
  return std::shared_ptr<Broker>(new Broker(std::move(means)));
}

void Broker::remember(const std::vector<StoredName>& names) {
  for (const StoredName& name : names) {
    try {
      registry_->restore(name);
    } catch (const NSXPCRefusal& refusal) {
      VKTLoggingLog(VKTLogGetAnchor(), 0, "%@ is not taken over: %s", name.name, refusal.reason());
      if (means_.store) means_.store->forget(name.token);
    }
  }
  lookUps_->unsettle();
  Recall::begin(LookUps::kPatience, [weakSelf = weak_from_this()] {
    const auto self = weakSelf.lock();
    if (!self) return;
    self->lookUps_->settle();
    self->tellIfIdle();
  });
}

bool Broker::isIdle() const {
  return linkCount() == 0 && nameCount() == 0 && lookUps_->isSettled() &&
         !(means_.starter && means_.starter->isStarting());
}

void Broker::setIdleHandler(std::function<void()> handler) {
  idleHandler_ = std::move(handler);
  registry_->setEmptiedHandler([weakSelf = weak_from_this()] {
    if (const auto self = weakSelf.lock()) self->tellIfIdle();
  });
}

void Broker::tellIfIdle() const {
  if (idleHandler_ && isIdle()) idleHandler_();
}

bool Broker::listener(const std::shared_ptr<NSXPCListener>&,
                      const std::shared_ptr<NSXPCConnection>& shouldAcceptNewConnection) {
  const Holder holder = Holder::of(shouldAcceptNewConnection->peer());
  const auto link = std::make_shared<Link>(
      Link::Shared{registry_, lookUps_, ledger_, standIns_, observer_, weak_from_this()}, holder);
  shouldAcceptNewConnection->setExportedInterface(interface_);
  shouldAcceptNewConnection->setExportedObject<VeltoIPCObserverProtocol>(link);
  shouldAcceptNewConnection->setInvalidationHandler([weakSelf = weak_from_this(), link] {
    link->end();
    const auto self = weakSelf.lock();
    if (!self) return;
    self->takeOut(link->item());
    self->tellIfIdle();
  });
  link->setItem(keep(shouldAcceptNewConnection, holder));
  if (link->item() == 0) return false;
  shouldAcceptNewConnection->resume();
  return true;
}

Ledger::Item Broker::keep(const std::shared_ptr<NSXPCConnection>& link, const Holder& holder) {
  // Made before the lock, so that memory is not wanting once there is room.
  Links entry;
  entry.emplace(0, link);
  Ledger::Admission admission;
  {
    MutexLock lock(mutex_);
    ledger_->enter(admission, Ledger::Kind::link, holder,
                   [weakSelf = weak_from_this()](Ledger::Item item, const std::string& why) {
                     if (const auto self = weakSelf.lock()) self->giveWay(item, why);
                   });
    if (admission.item != 0) {
      auto node = entry.extract(entry.begin());
      node.key() = admission.item;
      links_.insert(std::move(node));
    }
  }
  if (admission.item == 0) VKTLoggingLog(VKTLogGetAnchor(), 0, "A link was refused: %s", admission.reason);
  return admission.item;
}

std::shared_ptr<NSXPCConnection> Broker::takeOut(Ledger::Item item) {
  std::shared_ptr<NSXPCConnection> link;
  MutexLock lock(mutex_);
  ledger_->leave(item);
  const auto found = links_.find(item);
  if (found == links_.end()) return nullptr;
  link = std::move(found->second);
  links_.erase(found);
  return link;
}

void Broker::giveWay(Ledger::Item item, const std::string& why) {
  const auto link = takeOut(item);
  if (!link) return;
  // At once: one that does not read would keep its descriptor while it says farewell.
  link->invalidateAtOnce();
  VKTLoggingLog(VKTLogGetAnchor(), 0, "A link of process %d makes room: %s", link->peer().processIdentifier(), why);
}

std::size_t Broker::linkCount() const {
  MutexLock lock(mutex_);
  return links_.size();
}

}  // namespace velto
