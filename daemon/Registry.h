#pragma once

#include <cstddef>
#include <map>
#include <memory>
#include <string>

#include "daemon/Limits.h"
#include "platform/foundation/ThreadAnnotations.h"
#include "platform/xpc/NSXPCListenerEndpoint.h"

namespace velto {

// Who registers: one per link. It outlives the link for as long as one of its names stands.
class Registrant;

// Which endpoint is kept under which name. The last registration of a name wins; one ends when its listener is gone,
// when it is replaced, or when it is dropped.
//
// Thread-safe; operations take effect one after the other. Nothing is called and nothing destroyed with the lock held.
class Registry : public std::enable_shared_from_this<Registry> {
 public:
  static std::shared_ptr<Registry> make(const BrokerLimits& limits);
  static std::shared_ptr<Registrant> makeRegistrant();

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
  using Registrations = std::map<std::string, std::shared_ptr<Registration>, std::less<>>;

  explicit Registry(const BrokerLimits& limits) : limits_(limits) {}
  std::shared_ptr<Registration> watched(const std::string& name, const NSXPCListenerEndpoint& endpoint,
                                        const std::shared_ptr<Registrant>& registrant);
  void listenerIsGone(const std::string& name, const std::shared_ptr<Registration>& registration);
  void refuseOverLimit(const Registration* standing, Registrant& registrant) const VELTO_REQUIRES(mutex_);
  // What the lock guards in objects of their own.
  bool& isGone(Registration& registration) const VELTO_REQUIRES(mutex_);
  std::size_t& namesOf(Registrant& registrant) const VELTO_REQUIRES(mutex_);
  std::shared_ptr<Registration> takeOut(Registrations::iterator found) VELTO_REQUIRES(mutex_);

  const BrokerLimits limits_;
  mutable Mutex mutex_;
  Registrations registrations_ VELTO_GUARDED_BY(mutex_);
};

}  // namespace velto
