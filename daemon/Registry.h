#pragma once

#include <cstddef>
#include <map>
#include <memory>
#include <string>
#include <utility>

#include "daemon/Ledger.h"
#include "daemon/Limits.h"
#include "platform/foundation/ThreadAnnotations.h"
#include "platform/xpc/NSXPCListenerEndpoint.h"

namespace velto {

// Who registers: one per link. It outlives the link for as long as one of its names stands.
class Registrant;

// Which endpoint is kept under which name. The last registration of a name wins; one ends when its listener is gone,
// when it is replaced, when it is dropped, or when it has to make room for another process's.
//
// Thread-safe; operations take effect one after the other. Nothing is called and nothing destroyed with the lock held.
class Registry : public std::enable_shared_from_this<Registry> {
 public:
  static std::shared_ptr<Registry> make(const BrokerLimits& limits, std::shared_ptr<Ledger> ledger);
  static std::shared_ptr<Registrant> makeRegistrant(const Holder& holder);

  // Raises an NSXPCRefusal, and changes nothing, when the endpoint is nil, nobody can serve the name (nil, empty, too
  // long), or a limit is reached.
  void add(const NSString& name, const NSXPCListenerEndpoint& endpoint, const std::shared_ptr<Registrant>& registrant);
  // nil when nothing is kept under the name.
  NSXPCListenerEndpoint find(const NSString& name) const;
  // Whether there was something to drop.
  bool drop(const NSString& name);
  std::size_t count() const;

 private:
  class Registration;
  struct Kept {
    std::shared_ptr<Registration> registration;
    Ledger::Item item = 0;
  };
  using Names = std::map<std::string, Kept, std::less<>>;

  Registry(const BrokerLimits& limits, std::shared_ptr<Ledger> ledger) : limits_(limits), ledger_(std::move(ledger)) {}
  std::shared_ptr<Registration> watched(const std::string& name, const NSXPCListenerEndpoint& endpoint,
                                        const std::shared_ptr<Registrant>& registrant);
  void listenerIsGone(const std::string& name, const std::shared_ptr<Registration>& registration);
  void giveWay(const std::string& name, Ledger::Item item, const std::string& why);
  void enter(Ledger::Admission& admission, Names::const_iterator entry, Names::const_iterator standing)
      VELTO_REQUIRES(mutex_);
  // What the lock guards in objects of their own.
  bool& isGone(Registration& registration) const VELTO_REQUIRES(mutex_);
  std::size_t& namesOf(Registrant& registrant) const VELTO_REQUIRES(mutex_);
  std::shared_ptr<Registration> takeOut(Names::iterator found) VELTO_REQUIRES(mutex_);

  const BrokerLimits limits_;
  const std::shared_ptr<Ledger> ledger_;
  mutable Mutex mutex_;
  Names names_ VELTO_GUARDED_BY(mutex_);
};

}  // namespace velto
