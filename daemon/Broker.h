#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "broker/VeltoIPCObserverProtocol.h"
#include "daemon/Ledger.h"
#include "daemon/LookUps.h"
#include "daemon/NameStore.h"
#include "daemon/Observer.h"
#include "daemon/Registry.h"
#include "daemon/StandIns.h"
#include "daemon/Starter.h"
#include "platform/xpc/NSXPCConnection.h"
#include "platform/xpc/contract/NSXPCListenerDelegate.h"

namespace velto {

// The broker: accepts links, and keeps the endpoints that listeners send under the names that clients ask for. Make it
// the delegate of a listener, named or anonymous, and hold it: listeners hold their delegates weakly.
//
// What a link causes is charged to the process at its other end, so that no process can use up what all of them share.
//
// Every link has a queue of its own, so no client waits for another; all they share is short locks.
// Thread-safe.
class Broker final : public NSXPCListenerDelegate, public std::enable_shared_from_this<Broker> {
 public:
  struct Means {
    BrokerLimits limits;
    // Null: what is looked up and not there is not started, and what is registered is kept nowhere else.
    std::shared_ptr<Starter> starter;
    std::shared_ptr<NameStore> store;
  };
  static std::shared_ptr<Broker> make(const BrokerLimits& limits = {}) { return make(Means{limits, nullptr, nullptr}); }
  static std::shared_ptr<Broker> make(Means means);

  // What an earlier broker had: out of its store, and from the processes that have the listeners. Look-ups of what is
  // not there wait for these, bounded. Before the first link.
  void remember(const std::vector<StoredName>& names);

  bool listener(const std::shared_ptr<NSXPCListener>& listener,
                const std::shared_ptr<NSXPCConnection>& shouldAcceptNewConnection) override;

  std::size_t linkCount() const;
  std::size_t nameCount() const { return registry_->count(); }
  std::size_t waiterCount() const { return registry_->waiterCount(); }
  // Whether nobody needs it: it has no link, no name, and nothing that may come to be one. The handler is called
  // whenever that may have become so. Set before the first link.
  bool isIdle() const;
  void setIdleHandler(std::function<void()> handler);

 private:
  using Links = std::map<Ledger::Item, std::shared_ptr<NSXPCConnection>>;

  explicit Broker(Means means);
  void tellIfIdle() const;
  // 0, and a line in the log, when there is no room.
  Ledger::Item keep(const std::shared_ptr<NSXPCConnection>& link, const Holder& holder);
  // Null when it is not kept any more.
  std::shared_ptr<NSXPCConnection> takeOut(Ledger::Item item);
  void giveWay(Ledger::Item item, const std::string& why);

  const Means means_;
  const std::shared_ptr<Ledger> ledger_;
  const std::shared_ptr<Registry> registry_;
  const std::shared_ptr<LookUps> lookUps_;
  const std::shared_ptr<StandIns> standIns_;
  const std::shared_ptr<Observer> observer_;
  const std::shared_ptr<NSXPCInterface> interface_;
  std::function<void()> idleHandler_;
  mutable Mutex mutex_;
  Links links_ VELTO_GUARDED_BY(mutex_);
};

}  // namespace velto
