#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>

#include "daemon/Ledger.h"
#include "daemon/Limits.h"
#include "platform/foundation/NSString.h"
#include "platform/foundation/ThreadAnnotations.h"
#include "platform/xpc/NSXPCListenerEndpoint.h"

namespace velto {

// Endpoints that look-ups of a name get in place of the one that is registered, so that a tool can look on: one for
// each name at most, and only while its listener and the link that asked for it live. The registry knows nothing of
// them.
//
// One takes the room of a name in the ledger, and goes when the ledger needs that. Thread-safe. Nothing is called and
// nothing destroyed with the lock held.
class StandIns : public std::enable_shared_from_this<StandIns> {
 public:
  // The link that asks.
  using Link = const void*;

  static std::shared_ptr<StandIns> make(const BrokerLimits& limits, std::shared_ptr<Ledger> ledger);

  // Raises an NSXPCRefusal, and changes nothing, when the endpoint is nil, another stands in, or a limit is reached.
  // The same link may put another endpoint in place of its own.
  void add(const NSString& name, const NSXPCListenerEndpoint& endpoint, const Holder& holder, Link link);
  // The link has ended.
  void leave(Link link);
  // What a look-up gets that has found this; nil for nil.
  NSXPCListenerEndpoint inFrontOf(const NSString& name, const NSXPCListenerEndpoint& found) const;
  bool isOf(const NSString& name, Link link) const;
  // The process that stands in; 0 when none does.
  std::int32_t processAt(const std::string& name) const;
  std::size_t count() const;

 private:
  struct StandIn {
    NSXPCListenerEndpoint endpoint;
    std::int32_t process = 0;
    Link link = nullptr;
    Ledger::Item item = 0;
  };
  using Names = std::map<std::string, StandIn, std::less<>>;

  StandIns(const BrokerLimits& limits, std::shared_ptr<Ledger> ledger) : limits_(limits), ledger_(std::move(ledger)) {}
  std::string refusal(const NSString& name, Link link) const VELTO_REQUIRES(mutex_);
  void giveWay(const std::string& name, Ledger::Item item, const std::string& why);

  const BrokerLimits limits_;
  const std::shared_ptr<Ledger> ledger_;
  mutable Mutex mutex_;
  Names names_ VELTO_GUARDED_BY(mutex_);
};

}  // namespace velto
