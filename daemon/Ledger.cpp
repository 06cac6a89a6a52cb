// Room is made before the one that asks has it. So whoever is at the limit together with others of the same size is
// refused and not served at their cost: otherwise they would take turns in throwing each other out.
#include "daemon/Ledger.h"

#include <atomic>
#include <exception>

#include "platform/logging/VeltoLogging.h"

namespace velto {
namespace {

// The holder of what the dead have left.
constexpr Holdings::Holder kDead = 0;

std::string overLimit(const char* what, std::size_t value, std::size_t maximum) {
  return std::string(what) + " would be " + std::to_string(value) + "; the maximum is " + std::to_string(maximum);
}

}  // namespace

Holder Holder::of(const NSXPCPeer& peer) {
  // Numbers that no process is given.
  static std::atomic<Holdings::Holder> last{Holdings::Holder{1} << 63};
  return {peer ? peer.number() : ++last, peer, static_cast<std::int32_t>(peer.processIdentifier())};
}

Holder Holder::remembered(std::int32_t process) {
  constexpr Holdings::Holder kRemembered = Holdings::Holder{1} << 62;
  return {kRemembered | static_cast<std::uint32_t>(process), nil, process};
}

std::shared_ptr<Ledger> Ledger::make(const BrokerLimits& limits) {
  return std::shared_ptr<Ledger>(new Ledger(limits));
}

Ledger::Admission::~Admission() {
  for (const Leaving& leaving : leaving_) {
    try {
      leaving.giveWay(leaving.item, leaving.why);
    } catch (const std::exception& error) {
      VKTLoggingLog(VKTLogGetAnchor(), 0, "What had to make room did not go in good order: %s", error.what());
    }
  }
}

void Ledger::enter(Admission& admission, Kind kind, const Holder& holder, GiveWay giveWay, Item inPlaceOf) {
  MutexLock lock(mutex_);
  admission.reason = refusalOfOwn(kind, holder, inPlaceOf);
  if (admission.reason.empty() && !holdings_.find(inPlaceOf)) admission.reason = findRoom(kind, holder, admission);
  if (!admission.reason.empty()) return;
  charge(lastItem_ + 1, kind, holder, std::move(giveWay));
  takeOut(inPlaceOf);
  admission.item = ++lastItem_;
}

std::string Ledger::refusalOfOwn(Kind kind, const Holder& holder, Item inPlaceOf) const {
  if (kind == Kind::link) return "";
  if (kind == Kind::waiter) {
    const std::size_t waiting = holdings_.of(holder.number)[Holdings::kWaiters];
    if (waiting < limits_.waitersOfOneProcess) return "";
    return overLimit("waiters of one process", waiting + 1, limits_.waitersOfOneProcess);
  }
  const auto replaced = holdings_.find(inPlaceOf);
  const std::size_t own = holdings_.of(holder.number)[Holdings::kNames];
  if (own < limits_.namesOfOneProcess || (replaced && replaced->holder == holder.number)) return "";
  return overLimit("names of one process", own + 1, limits_.namesOfOneProcess);
}

Ledger::Total Ledger::totalOf(Kind kind) const {
  if (kind == Kind::waiter) return {Holdings::kWaiters, "waiters", limits_.waiters};
  if (kind == Kind::name) return {Holdings::kNames, "names", limits_.names};
  return {Holdings::kLinks, "links", limits_.links};
}

std::string Ledger::findRoom(Kind kind, const Holder& holder, Admission& admission) {
  const auto [measure, what, maximum] = totalOf(kind);
  const auto own = holdings_.of(holder.number);
  const std::size_t needed = Holdings::descriptorsOf(kind) + (own[Holdings::kDescriptors] == 0 ? 1 : 0);
  while (holdings_.ofAll()[measure] >= maximum) {
    const std::size_t value = holdings_.ofAll()[measure] + 1;
    const auto limit = overLimit(what, value, maximum);
    if (!takeFromGreatest(measure, own[measure] + 1 + value - maximum, limit, admission)) return limit;
  }
  while (descriptorsInUse() + needed > limits_.descriptors) {
    const std::size_t value = descriptorsInUse() + needed;
    const auto limit = overLimit("descriptors", value, limits_.descriptors);
    const std::size_t wouldHold = own[Holdings::kDescriptors] + needed;
    if (!takeFromGreatest(Holdings::kDescriptors, wouldHold + value - limits_.descriptors, limit, admission))
      return limit;
  }
  return "";
}

Ledger::Kind Ledger::kindToTake(Holdings::Measure measure, const Holdings::Amounts& held) {
  if (measure == Holdings::kWaiters) return Kind::waiter;
  const bool isOfNames = held[Holdings::kNames] * Holdings::descriptorsOf(Kind::name) > held[Holdings::kLinks];
  const bool takesName = measure == Holdings::kNames || (measure == Holdings::kDescriptors && isOfNames);
  return takesName ? Kind::name : Kind::link;
}

bool Ledger::takeFromGreatest(Holdings::Measure measure, std::size_t least, const std::string& limit,
                              Admission& admission) {
  if (holdings_.holders() == 0) return false;
  const auto greatest = holdings_.greatest(measure);
  const auto held = holdings_.of(greatest);
  if (held[measure] < least) return false;
  const Item item = holdings_.nextToGo(greatest, kindToTake(measure, held));
  admission.leaving_.push_back({item, items_.at(item), "its process holds the most, and " + limit});
  takeOut(item);
  return true;
}

void Ledger::charge(Item item, Kind kind, const Holder& holder, GiveWay giveWay) {
  if (kind == Kind::name) watchOver(holder);
  const auto place = items_.emplace(item, std::move(giveWay)).first;
  try {
    holdings_.add(item, kind, holder.number);
  } catch (...) {
    items_.erase(place);
    throw;
  }
}

void Ledger::watchOver(const Holder& holder) {
  if (!holder.peer || watches_.contains(holder.number)) return;
  watches_.emplace(holder.number, holder.peer.watch([weakSelf = weak_from_this(), number = holder.number] {
    if (const auto self = weakSelf.lock()) self->bury(number);
  }));
}

void Ledger::takeOut(Item item) {
  const auto entry = holdings_.find(item);
  if (!entry) return;
  holdings_.remove(item);
  items_.erase(item);
  if (holdings_.of(entry->holder)[Holdings::kNames] == 0) watches_.erase(entry->holder);
}

void Ledger::use(Item item) {
  MutexLock lock(mutex_);
  holdings_.use(item);
}

void Ledger::leave(Item item) {
  MutexLock lock(mutex_);
  takeOut(item);
}

void Ledger::bury(Holdings::Holder holder) {
  MutexLock lock(mutex_);
  holdings_.giveNames(holder, kDead);
  watches_.erase(holder);
}

Holdings::Amounts Ledger::held(Holdings::Holder holder) const {
  MutexLock lock(mutex_);
  return holdings_.of(holder);
}

std::size_t Ledger::descriptors() const {
  MutexLock lock(mutex_);
  return descriptorsInUse();
}

// One more for each process that lives: by it the kernel tells of its death.
std::size_t Ledger::descriptorsInUse() const {
  const std::size_t dead = holdings_.of(kDead)[Holdings::kDescriptors] > 0 ? 1 : 0;
  return holdings_.ofAll()[Holdings::kDescriptors] + holdings_.holders() - dead;
}

}  // namespace velto
