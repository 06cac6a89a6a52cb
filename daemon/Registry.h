#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "broker/VeltoIPCObserverProtocol.h"
#include "daemon/Ledger.h"
#include "daemon/Limits.h"
#include "daemon/NameStore.h"
#include "daemon/Waiters.h"
#include "platform/foundation/ThreadAnnotations.h"
#include "platform/xpc/NSXPCListenerEndpoint.h"

namespace velto {

// Who registers and waits: one per link. It outlives the link for as long as one of its names stands.
class Registrant;

// Which endpoint is kept under which name, and who waits for what becomes of it. The last registration of a name wins,
// unless it leaves a living listener its name; one ends when its listener is gone, when it is replaced, when it is
// dropped, or when it has to make room for another process's.
//
// A registration's number is that of its item in the ledger.
//
// Thread-safe; operations take effect one after the other. Nothing is called and nothing destroyed with the lock held.
class Registry : public std::enable_shared_from_this<Registry> {
 public:
  // With a store, which outlives it, every registration is kept there.
  static std::shared_ptr<Registry> make(const BrokerLimits& limits, std::shared_ptr<Ledger> ledger,
                                        NameStore* store = nullptr);
  static std::shared_ptr<Registrant> makeRegistrant(const Holder& holder);

  // What stands then: the new registration, that of another which may not be taken over, or none when the listener is
  // gone already. Raises an NSXPCRefusal, and changes nothing, when the endpoint is nil, nobody can serve the name
  // (nil, empty, too long), or a limit is reached.
  NameAnswer add(const NSString& name, const NSXPCListenerEndpoint& endpoint,
                 const std::shared_ptr<Registrant>& registrant, bool takingOver = true);
  // The same for one that an earlier broker had at that time already. Of two listeners of a name the later one has it;
  // one that is known by its process stays as it is.
  NameAnswer addAgain(const NSString& name, const NSXPCListenerEndpoint& endpoint,
                      const std::shared_ptr<Registrant>& registrant, std::uint64_t since);
  // The same for one that comes out of the store, where it stays.
  void restore(const StoredName& stored);
  // nil when nothing is kept under the name.
  NSXPCListenerEndpoint find(const NSString& name) const;
  // Whether there was something to drop.
  bool drop(const NSString& name);
  // The same, if it is of that number, and of the registrant's process.
  bool giveBack(const NSString& name, std::uint64_t registration, const std::shared_ptr<Registrant>& registrant);
  std::size_t count() const;
  // What stands under a name; and, in their order, under the first names behind this one, so many at most. Who stands
  // in is not known here.
  std::optional<NameDescription> describe(const NSString& name) const;
  std::vector<NameDescription> describe(std::string_view behind, std::size_t most) const;

  // Calls the answer once what stands under the name is something else than the known registration, 0 for none; at once
  // when it is already. Without a state when the time, if there is one, is over, or a waiter must make room. Raises an
  // NSXPCRefusal when nobody can serve the name, or a limit is reached. The answer must not block.
  // Returns what the waiter is kept as; 0 when it has its answer.
  Ledger::Item wait(const NSString& name, std::uint64_t known, std::optional<std::chrono::nanoseconds> time,
                    const std::shared_ptr<Registrant>& registrant, Waiters::Answer answer);
  // Its time is over now.
  void endWait(const NSString& name, Ledger::Item waiter) { endWaiter(name.string(), waiter); }
  // Its link has ended: it waits no more.
  void leave(const std::shared_ptr<Registrant>& registrant);
  std::size_t waiterCount() const;
  // Called whenever the last name has gone. Set before the first is there.
  void setEmptiedHandler(std::function<void()> handler) { emptied_ = std::move(handler); }

 private:
  class Registration;
  // What a registration asks for.
  struct Claim {
    enum class Kind { takeOver, ifFree, again };
    Kind kind = Kind::takeOver;
    std::uint64_t since = 0;
    std::string token;
  };
  struct Kept {
    std::shared_ptr<Registration> registration;
    Ledger::Item item = 0;
  };
  using Names = std::map<std::string, Kept, std::less<>>;

  Registry(const BrokerLimits& limits, std::shared_ptr<Ledger> ledger, NameStore* store)
      : limits_(limits), ledger_(std::move(ledger)), store_(store) {}
  NameAnswer addAs(const NSString& name, const NSXPCListenerEndpoint& endpoint,
                   const std::shared_ptr<Registrant>& registrant, const Claim& claim);
  std::shared_ptr<Registration> watched(const std::string& name, const NSXPCListenerEndpoint& endpoint,
                                        const std::shared_ptr<Registrant>& registrant, const Claim& claim);
  void store(const std::string& name, const Kept& kept) const VELTO_REQUIRES(mutex_);
  void tellIfEmptied(bool isEmptied) const;
  void listenerIsGone(const std::string& name, const std::shared_ptr<Registration>& registration);
  void giveWay(const std::string& name, Ledger::Item item, const std::string& why);
  void enter(Ledger::Admission& admission, Names::const_iterator entry, Names::const_iterator standing)
      VELTO_REQUIRES(mutex_);
  // Whether what stands is left as it is.
  static bool isLeftAlone(const Kept& standing, const NSXPCListenerEndpoint& endpoint, const Claim& claim);
  static NameState stateOf(const Kept& kept);
  static NameDescription descriptionOf(const std::string& name, const Kept& kept);
  Standing standingUnder(const NSString& name) const VELTO_REQUIRES(mutex_);
  // Whether there was something to drop.
  bool dropIf(const NSString& name, const std::function<bool(const Kept&)>& isMeant);
  void enterWaiter(Ledger::Admission& admission, const std::string& name, const std::shared_ptr<Registrant>& registrant,
                   Waiters::Answer answer) VELTO_REQUIRES(mutex_);
  void endWaiter(const std::string& name, Ledger::Item item);
  void endWaiterAfter(std::chrono::nanoseconds time, const std::string& name, Ledger::Item item);
  // Those that are to hear of a change of the name.
  void takeOutWaiters(std::string_view name, Waiters::Some& taken) VELTO_REQUIRES(mutex_);
  // What the lock guards in objects of their own.
  bool& isGone(Registration& registration) const VELTO_REQUIRES(mutex_);
  std::size_t& namesOf(Registrant& registrant) const VELTO_REQUIRES(mutex_);
  bool& hasLeft(Registrant& registrant) const VELTO_REQUIRES(mutex_);
  std::shared_ptr<Registration> takeOut(Names::iterator found) VELTO_REQUIRES(mutex_);

  const BrokerLimits limits_;
  const std::shared_ptr<Ledger> ledger_;
  NameStore* const store_;
  std::function<void()> emptied_;
  mutable Mutex mutex_;
  Names names_ VELTO_GUARDED_BY(mutex_);
  Waiters waiters_ VELTO_GUARDED_BY(mutex_);
};

}  // namespace velto
