#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "daemon/Holdings.h"
#include "daemon/Limits.h"
#include "platform/foundation/ThreadAnnotations.h"
#include "platform/xpc/NSXPCPeer.h"

namespace velto {

// Who is charged. All links of one process have one holder; a link whose process the kernel does not tell has its own.
struct Holder {
  static Holder of(const NSXPCPeer& peer);
  // A process of which nothing is known but the number that it had when an earlier broker knew it.
  static Holder remembered(std::int32_t process);

  Holdings::Holder number = 0;
  NSXPCPeer peer;            // held, so that no other process is given the number
  std::int32_t process = 0;  // its number, as far as that is known

  bool isRemembered() const { return !peer && process != 0; }
};

// Whether there is room for one more link, name or waiter. At a limit that all processes share, the one that holds the
// most makes room for one that holds clearly less, with its newest name or waiter, or the link that it has not used for
// the longest time.
//
// A name stays charged to the process that registered it, whatever becomes of that one's links. Once the process is
// dead, it is charged to the dead, who are one holder together: by their number alone they cannot use up what is meant
// for the living.
//
// Thread-safe. Nothing is called with the lock held.
class Ledger : public std::enable_shared_from_this<Ledger> {
 public:
  using Kind = Holdings::Kind;
  // Never 0, and never used again.
  using Item = Holdings::Item;
  // Lets go of an item, which is out of the ledger by then; the text says why.
  using GiveWay = std::function<void(Item item, const std::string& why)>;

  // What comes of asking for room. With its end those go that have to make it; so it is made before any lock is taken,
  // and ends after it.
  class Admission {
   public:
    Admission() = default;
    ~Admission();
    Admission(const Admission&) = delete;
    Admission& operator=(const Admission&) = delete;

    // 0 when there is no room; then the reason says which limit, the value and the maximum.
    Item item = 0;
    std::string reason;

   private:
    friend class Ledger;
    struct Leaving {
      Item item;
      GiveWay giveWay;
      std::string why;
    };
    std::vector<Leaving> leaving_;
  };

  static std::shared_ptr<Ledger> make(const BrokerLimits& limits);

  // Charges an item to a holder; in place of another, if that is named and still there.
  void enter(Admission& admission, Kind kind, const Holder& holder, GiveWay giveWay, Item inPlaceOf = 0);
  // The item has just been used: others of its holder make room before it.
  void use(Item item);
  // Without effect on what is not in the ledger any more.
  void leave(Item item);
  // What the holder has registered is the dead's from now on.
  void bury(Holdings::Holder holder);

  Holdings::Amounts held(Holdings::Holder holder) const;
  // Of everything that is in the ledger.
  std::size_t descriptors() const;

 private:
  // What all processes share of a kind.
  struct Total {
    Holdings::Measure measure;
    const char* name;
    std::size_t maximum;
  };

  explicit Ledger(const BrokerLimits& limits) : limits_(limits) {}
  Total totalOf(Kind kind) const;
  // Of what one that holds so much has to give by a measure.
  static Kind kindToTake(Holdings::Measure measure, const Holdings::Amounts& held);
  std::string refusalOfOwn(Kind kind, const Holder& holder, Item inPlaceOf) const VELTO_REQUIRES(mutex_);
  // "" when there is room; what has to make it is taken out.
  std::string findRoom(Kind kind, const Holder& holder, Admission& admission) VELTO_REQUIRES(mutex_);
  // False when nobody holds so much: as the one that asks would, and what is missing besides. (Then nobody is made to
  // go for nothing.)
  bool takeFromGreatest(Holdings::Measure measure, std::size_t least, const std::string& limit, Admission& admission)
      VELTO_REQUIRES(mutex_);
  void charge(Item item, Kind kind, const Holder& holder, GiveWay giveWay) VELTO_REQUIRES(mutex_);
  void takeOut(Item item) VELTO_REQUIRES(mutex_);
  void watchOver(const Holder& holder) VELTO_REQUIRES(mutex_);
  std::size_t descriptorsInUse() const VELTO_REQUIRES(mutex_);

  const BrokerLimits limits_;
  mutable Mutex mutex_;
  Holdings holdings_ VELTO_GUARDED_BY(mutex_);
  std::unordered_map<Item, GiveWay> items_ VELTO_GUARDED_BY(mutex_);
  // Of all that hold names: a link ends with its process by itself.
  std::map<Holdings::Holder, std::shared_ptr<NSXPCPeer::Watch>> watches_ VELTO_GUARDED_BY(mutex_);
  Item lastItem_ VELTO_GUARDED_BY(mutex_) = 0;
};

}  // namespace velto
