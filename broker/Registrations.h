#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <vector>

#include "platform/foundation/Foundation.h"
#include "platform/foundation/ThreadAnnotations.h"
#include "platform/xpc/NSXPCListener.h"
#include "platform/xpc/contract/NSXPCListenerDelegate.h"

namespace velto {

// Which listeners this process has registered under which names, for a broker that starts anew and asks. While there is
// one, the process can be reached under a name of its own.
//
// Thread-safe.
class Registrations final : public NSXPCListenerDelegate, public std::enable_shared_from_this<Registrations> {
 public:
  // Of this process; never destroyed.
  static Registrations& shared();

  // Counts from now on, as long as it lives. The listener is held weakly.
  class Entry;
  std::shared_ptr<Entry> add(const NSString& name, const std::shared_ptr<NSXPCListener>& listener);

  bool listener(const std::shared_ptr<NSXPCListener>& listener,
                const std::shared_ptr<NSXPCConnection>& shouldAcceptNewConnection) override;
  // Hands all of them to the broker again; calls `done` with their number when it has answered all, or is gone.
  void registerAgain(const std::function<void(std::size_t)>& done);
  // What VeltoIPCRecallProtocol::describeListeners() answers.
  NSDictionary describe();

 private:
  struct Listed {
    NSString name;
    std::weak_ptr<NSXPCListener> listener;
    // On the clock that all processes of a machine share: the later one of two that want one name had it last.
    std::uint64_t since = 0;
  };

  Registrations() = default;
  std::vector<Listed> all();
  void remove(std::uint64_t number);
  void becomeReachable();

  Mutex mutex_;
  std::map<std::uint64_t, Listed> listed_ VELTO_GUARDED_BY(mutex_);
  std::uint64_t lastNumber_ VELTO_GUARDED_BY(mutex_) = 0;
  std::shared_ptr<NSXPCListener> door_ VELTO_GUARDED_BY(mutex_);
};

class Registrations::Entry {
 public:
  explicit Entry(std::uint64_t number) noexcept;
  ~Entry();
  Entry(const Entry&) = delete;
  Entry& operator=(const Entry&) = delete;

 private:
  const unsigned generation_;
  const std::uint64_t number_;
};

}  // namespace velto
