#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "daemon/Registry.h"
#include "daemon/Starter.h"

namespace velto {

// Look-ups of names that may not be there yet: for a while after the start, of what an earlier broker had; and of
// services that can be started.
//
// Thread-safe. Nothing is called with the lock held.
class LookUps : public std::enable_shared_from_this<LookUps> {
 public:
  using Answer = std::function<void(const NSXPCListenerEndpoint&)>;

  // The starter, if there is one, outlives all look-ups.
  static std::shared_ptr<LookUps> make(std::shared_ptr<Registry> registry, std::shared_ptr<Starter> starter);

  // Answers once, with nil when nothing comes to be there.
  void find(const NSString& name, const std::shared_ptr<Registrant>& registrant, Answer answer);
  // From now until settle(), what is not there may still come.
  void unsettle();
  void settle();
  bool isSettled() const;
  // Why nothing is there; "" when there is nothing to say.
  std::string reason(const NSString& name) const;

  // For how long a look-up waits for what an earlier broker had.
  static constexpr std::chrono::seconds kPatience{2};

 private:
  using Waiting = std::pair<NSString, Ledger::Item>;

  LookUps(std::shared_ptr<Registry> registry, std::shared_ptr<Starter> starter)
      : registry_(std::move(registry)), starter_(std::move(starter)) {}
  void findOrStart(const NSString& name, const std::shared_ptr<Registrant>& registrant, const Answer& answer);
  // Answers when the name is there; calls the other when its time is over. What is returned is 0 when that is past.
  Ledger::Item waitFor(const NSString& name, std::chrono::nanoseconds time,
                       const std::shared_ptr<Registrant>& registrant, const Answer& answer,
                       std::function<void()> otherwise);
  void startSucceeded(const std::string& name);
  void startFailed(const std::string& name);
  void endAll(std::vector<Waiting> waiting);

  const std::shared_ptr<Registry> registry_;
  const std::shared_ptr<Starter> starter_;
  mutable Mutex mutex_;
  bool isSettled_ VELTO_GUARDED_BY(mutex_) = true;
  std::vector<Waiting> unsettled_ VELTO_GUARDED_BY(mutex_);
  std::map<std::string, std::vector<Waiting>> starting_ VELTO_GUARDED_BY(mutex_);
};

}  // namespace velto
