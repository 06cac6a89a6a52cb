#pragma once

#include <functional>
#include <memory>
#include <optional>

#include "VeltoIPC/InProcess.h"
#include "VeltoIPC/Outcome.h"
#include "calls/Names.h"
#include "platform/foundation/NSString.h"
#include "platform/xpc/NSXPCConnection.h"

namespace velto::calls {

// One search for who serves a name, at the broker or among the services of this process. Tells one of its ends, if it
// is not let go of before; a search that waits can do so for ever. Thread-safe.
class NameSearch final : public std::enable_shared_from_this<NameSearch> {
 public:
  // Called on any thread, also before start() has returned; must not block.
  struct Ends {
    // The connection has not been resumed.
    std::function<void(const std::shared_ptr<NSXPCConnection>&)> found;
    // Somebody may serve it by now, which another search will tell.
    std::function<void()> changed;
    std::function<void(const CallError&)> failed;
    // Not an end: nobody serves it. Whether to wait for somebody.
    std::function<bool(const CallError&)> isAbsent;
  };

  // Without a place, at the broker.
  NameSearch(const NSString& name, const std::optional<InProcess>& place, Ends ends);
  // Once.
  void start();

 private:
  void searchHere(Names& names);
  void askBroker();
  void waitAtBroker();
  CallError nobodyServes() const;

  const NSString name_;
  const std::optional<InProcess> place_;
  const Ends ends_;
  const std::shared_ptr<NSXPCConnection> link_;
  // Of start() alone.
  std::shared_ptr<Names::Wait> wait_;
};

}  // namespace velto::calls
