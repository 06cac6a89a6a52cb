// The sum of what all connections hold. A connection enters it with what is worth a lock, and leaves it with its end. A
// connection that is condemned counts no more: it is about to give everything back, and nobody else is to be ended for
// what it held.

#include "platform/xpc/transport/Holdings.h"

#include <cstdlib>
#include <new>
#include <utility>

#include "platform/xpc/contract/Limits.h"
#include "platform/xpc/system/PerProcess.h"
#include "platform/xpc/system/SystemCalls.h"
#include "platform/xpc/transport/Reactor.h"
#include "platform/xpc/wire/Text.h"

namespace velto::transport {

namespace {

constexpr unsigned kGiveBacks = 4;
// Changes of less than this are not worth a lock.
constexpr std::int64_t kWorthStating = std::int64_t{64} << 10;

bool isWorthStating(std::int64_t now, std::int64_t stated) {
  return std::llabs(now - stated) >= kWorthStating || (now == 0 && stated != 0);
}

}  // namespace

class Holdings {
 public:
  void state(Holding& holding);
  void remove(Holding& holding);
  void giveBackSoon();

 private:
  struct Bounds {
    std::int64_t bytes;
    std::int64_t descriptors;
  };
  static Bounds bounds(std::int64_t bytes, std::size_t partOfDescriptors);
  static Bounds least();
  static Bounds most();

  void enter(Holding& holding) VELTO_REQUIRES(mutex_);
  void leave(Holding& holding) VELTO_REQUIRES(mutex_);
  void correct(Holding& holding, Holding::Amount now) VELTO_REQUIRES(mutex_);
  bool isOver(const Bounds& bounds) const VELTO_REQUIRES(mutex_);
  // False when there is nobody, or no memory to tell him.
  bool condemnGreatest(const Bounds& bounds) VELTO_REQUIRES(mutex_);
  void letReadOn(Holding& holding) VELTO_REQUIRES(mutex_);
  void letAllReadOn() VELTO_REQUIRES(mutex_);
  void lookLater() VELTO_REQUIRES(mutex_);
  void endIfNothingMoves();
  void armGiveBack() VELTO_REQUIRES(mutex_);

  Mutex mutex_;
  Holding* first_ VELTO_GUARDED_BY(mutex_) = nullptr;
  Holding::Amount sum_ VELTO_GUARDED_BY(mutex_);
  std::size_t waiting_ VELTO_GUARDED_BY(mutex_) = 0;
  unsigned giveBacksDue_ VELTO_GUARDED_BY(mutex_) = 0;
  bool looksLater_ VELTO_GUARDED_BY(mutex_) = false;
  Holding::Amount atLastLook_ VELTO_GUARDED_BY(mutex_);
};

namespace {

// Not on the caller's stack: it may hold a lock of its own.
template <class Call>
bool tellSoon(std::weak_ptr<HoldingOwner> owner, Call call) {
  try {
    Reactor::shared().timers().add({}, [owner = std::move(owner), call = std::move(call)] {
      if (const auto told = owner.lock()) call(*told);
    });
    return true;
  } catch (const std::bad_alloc&) {
    return false;
  }
}

}  // namespace

Holdings::Bounds Holdings::bounds(std::int64_t bytes, std::size_t partOfDescriptors) {
  const std::size_t all = system::systemCalls().descriptorLimit();
  return {bytes, static_cast<std::int64_t>(all / partOfDescriptors)};
}

Holdings::Bounds Holdings::least() {
  return bounds(limits::kHeldBytesBeforeWaiting, limits::kHeldDescriptorsBeforeWaiting);
}

Holdings::Bounds Holdings::most() {
  return bounds(limits::kMaximumHeldBytes, limits::kMaximumHeldDescriptors);
}

bool Holdings::isOver(const Bounds& bounds) const {
  return sum_.bytes > bounds.bytes || sum_.descriptors > bounds.descriptors;
}

void Holdings::enter(Holding& holding) {
  holding.isListed_ = true;
  holding.before_ = nullptr;
  holding.after_ = std::exchange(first_, &holding);
  if (holding.after_ != nullptr) holding.after_->before_ = &holding;
}

void Holdings::leave(Holding& holding) {
  if (!holding.isListed_) return;
  (holding.before_ != nullptr ? holding.before_->after_ : first_) = holding.after_;
  if (holding.after_ != nullptr) holding.after_->before_ = holding.before_;
  holding.isListed_ = false;
  if (holding.mustWait_.exchange(false)) --waiting_;
}

void Holdings::correct(Holding& holding, Holding::Amount now) {
  if (now.bytes >= limits::kMuchHeldBytes) holding.heldMuch_ = true;
  sum_.bytes += now.bytes - holding.statedBytes_.exchange(now.bytes);
  sum_.descriptors += now.descriptors - holding.statedDescriptors_.exchange(now.descriptors);
}

void Holdings::state(Holding& holding) {
  MutexLock lock(mutex_);
  if (holding.isCondemned_) return;
  const Holding::Amount now{holding.bytes_.load(), holding.descriptors_.load()};
  if (!holding.isListed_) enter(holding);
  correct(holding, now);
  const bool holdsLittle = now.bytes <= limits::kLittleHeldBytes && now.descriptors <= limits::kLittleHeldDescriptors;
  if (holdsLittle && holding.mustWait_) letReadOn(holding);
  if (now.bytes == 0 && now.descriptors == 0 && !holding.mustWait_) leave(holding);
  if (!isOver(least())) return letAllReadOn();
  if (!holdsLittle && !holding.mustWait_.exchange(true)) ++waiting_;
  if (waiting_ > 0) lookLater();
  const Bounds bounds = most();
  while (isOver(bounds) && condemnGreatest(bounds)) {
  }
}

// The word that a connection may be read again needs memory; without any it comes with the next change.
void Holdings::letReadOn(Holding& holding) {
  if (!tellSoon(holding.owner_, [](HoldingOwner& owner) { owner.mayReadOn(); })) return;
  holding.mustWait_ = false;
  --waiting_;
}

void Holdings::letAllReadOn() {
  for (Holding* each = first_; each != nullptr && waiting_ > 0; each = each->after_) {
    if (each->mustWait_) letReadOn(*each);
  }
}

// Some are not read because of what others hold: if these never let go of it, they are to end.
void Holdings::lookLater() {
  if (looksLater_) return;
  atLastLook_ = sum_;
  try {
    Reactor::shared().timers().add(limits::kHeldBackPatience, [this] { endIfNothingMoves(); });
    looksLater_ = true;
  } catch (const std::bad_alloc&) {
    // Whoever states a change next tries again.
  }
}

void Holdings::endIfNothingMoves() {
  MutexLock lock(mutex_);
  looksLater_ = false;
  if (waiting_ == 0) return;
  const Bounds bounds = least();
  const bool moves = sum_.bytes < atLastLook_.bytes || sum_.descriptors < atLastLook_.descriptors;
  while (!moves && isOver(bounds) && condemnGreatest(bounds)) {
  }
  isOver(bounds) ? lookLater() : letAllReadOn();
}

bool Holdings::condemnGreatest(const Bounds& bounds) {
  const bool ofBytes = sum_.bytes > bounds.bytes;
  const auto amount = [ofBytes](const Holding& holding) {
    return ofBytes ? holding.statedBytes_.load() : holding.statedDescriptors_.load();
  };
  Holding* greatest = nullptr;
  for (Holding* each = first_; each != nullptr; each = each->after_) {
    if (greatest == nullptr || amount(*each) > amount(*greatest)) greatest = each;
  }
  if (greatest == nullptr || amount(*greatest) == 0) return false;
  std::string reason = "of all connections it holds the most, " + std::to_string(amount(*greatest)) + "; ";
  reason += wire::overLimit(ofBytes ? "bytes held for all peers" : "descriptors held for all peers",
                            static_cast<std::uint64_t>(ofBytes ? sum_.bytes : sum_.descriptors),
                            static_cast<std::uint64_t>(ofBytes ? bounds.bytes : bounds.descriptors));
  const bool told =
      tellSoon(greatest->owner_, [reason = std::move(reason)](HoldingOwner& owner) { owner.heldTooMuch(reason); });
  if (!told) return false;
  correct(*greatest, {});
  leave(*greatest);
  greatest->isCondemned_ = true;
  return true;
}

void Holdings::remove(Holding& holding) {
  MutexLock lock(mutex_);
  if (!holding.isCondemned_) correct(holding, {});
  leave(holding);
  if (!isOver(least())) letAllReadOn();
}

// Several times: callbacks that were asked before may go on making replies for a while.
void Holdings::giveBackSoon() {
  MutexLock lock(mutex_);
  const bool isArmed = giveBacksDue_ > 0;
  giveBacksDue_ = kGiveBacks;
  if (!isArmed) armGiveBack();
}

void Holdings::armGiveBack() {
  try {
    Reactor::shared().timers().add(limits::kLeftoverPatience, [this] {
      Reactor::shared().standIn();
      system::systemCalls().giveMemoryBack();
      MutexLock lock(mutex_);
      if (--giveBacksDue_ > 0) armGiveBack();
    });
  } catch (const std::bad_alloc&) {
    // The next connection that ends asks again.
    giveBacksDue_ = 0;
  }
}

Holding::Holding(std::weak_ptr<HoldingOwner> owner)
    : owner_(std::move(owner)), holdings_(system::perProcess<Holdings>()) {}

Holding::~Holding() {
  // The child of a fork lets go of what it has inherited, and must not meet a lock that it has inherited too.
  if (generation_ != system::forkGeneration()) return;
  isOver();
  if (statedBytes_.load() != 0 || statedDescriptors_.load() != 0 || mustWait()) holdings_.remove(*this);
}

void Holding::isOver() {
  if (heldMuch_) holdings_.giveBackSoon();
}

void Holding::setBytes(Place place, std::size_t bytes) {
  const auto now = static_cast<std::int64_t>(bytes);
  // One thread at a time states a place.
  auto& stated = bytesIn_[static_cast<std::size_t>(place)];
  const std::int64_t before = stated.load(std::memory_order_relaxed);
  if (now == before) return;
  stated.store(now, std::memory_order_relaxed);
  const std::int64_t sum = bytes_.fetch_add(now - before, std::memory_order_relaxed) + now - before;
  if (isWorthStating(sum, statedBytes_.load(std::memory_order_relaxed))) holdings_.state(*this);
}

void Holding::setDescriptors(Place place, std::size_t descriptors) {
  const auto now = static_cast<std::int64_t>(descriptors);
  auto& stated = descriptorsIn_[static_cast<std::size_t>(place)];
  const std::int64_t before = stated.load(std::memory_order_relaxed);
  if (now == before) return;
  stated.store(now, std::memory_order_relaxed);
  descriptors_.fetch_add(now - before, std::memory_order_relaxed);
  holdings_.state(*this);
}

}  // namespace velto::transport
