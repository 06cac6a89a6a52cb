// Whoever looks up is a waiter like others, with their limits; what ends his wait early is that there is nothing left to
// wait for.
#include "daemon/LookUps.h"

#include "platform/logging/VeltoLogging.h"
#include "platform/xpc/Protocol.h"

namespace velto {

std::shared_ptr<LookUps> LookUps::make(std::shared_ptr<Registry> registry, std::shared_ptr<Starter> starter) {
  const std::shared_ptr<LookUps> made(new LookUps(std::move(registry), std::move(starter)));
  if (made->starter_) {
    made->starter_->setFailureHandler([weak = std::weak_ptr(made)](const std::string& name) {
      if (const auto self = weak.lock()) self->startFailed(name);
    });
  }
  return made;
}

// What has come again may not be the last that does; what comes otherwise is the last that there was.
void LookUps::find(const NSString& name, const std::shared_ptr<Registrant>& registrant, Answer answer) {
  const Standing standing = registry_->standing(name);
  const bool isSettled = this->isSettled();
  if (standing.endpoint && (standing.isCertain || isSettled)) return answer(standing.endpoint);
  if (isSettled) return findOrStart(name, registrant, answer);
  const auto item = waitForOther(name, standing.state.registration, kPatience, registrant, answer,
                                 [weak = weak_from_this(), name, waiting = std::weak_ptr(registrant), answer] {
                                   const auto self = weak.lock();
                                   const auto holder = waiting.lock();
                                   if (self && holder) self->find(name, holder, answer);
                                 });
  if (item == 0) return;
  {
    MutexLock lock(mutex_);
    if (!isSettled_) {
      unsettled_.emplace_back(name, item);
      return;
    }
  }
  registry_->endWait(name, item);
}

bool LookUps::isSettled() const {
  MutexLock lock(mutex_);
  return isSettled_;
}

void LookUps::unsettle() {
  MutexLock lock(mutex_);
  isSettled_ = false;
}

void LookUps::settle() {
  std::vector<Waiting> waiting;
  {
    MutexLock lock(mutex_);
    isSettled_ = true;
    waiting.swap(unsettled_);
  }
  endAll(std::move(waiting));
}

void LookUps::endAll(std::vector<Waiting> waiting) {
  for (const auto& [name, item] : waiting) registry_->endWait(name, item);
}

void LookUps::findOrStart(const NSString& name, const std::shared_ptr<Registrant>& registrant, const Answer& answer) {
  const std::string key = name.string();
  const bool isStarting = starter_ && starter_->start(key) == Starter::State::starting;
  // It may have registered in the meantime, whoever started it.
  if (!isStarting) return answer(registry_->find(name));
  const auto item = waitForOther(name, 0, Starter::kPatience, registrant, answer, [weak = weak_from_this(), name, answer] {
    if (const auto self = weak.lock()) self->startEnded(name, answer);
  });
  if (item == 0) return;
  {
    MutexLock lock(mutex_);
    starting_[key].emplace_back(name, item);
  }
  // It may have failed before it was known that this one waits.
  if (starter_->state(key) == Starter::State::failed) startFailed(key);
}

Ledger::Item LookUps::waitForOther(const NSString& name, std::uint64_t known, std::chrono::nanoseconds time,
                                   const std::shared_ptr<Registrant>& registrant, const Answer& answer,
                                   std::function<void()> otherwise) {
  try {
    return registry_->wait(name, known, time, registrant,
                           [otherwise = std::move(otherwise)](const std::optional<Standing>&) { otherwise(); });
  } catch (const NSXPCRefusal& refusal) {
    VKTLoggingLog(VKTLogGetAnchor(), 2, "A look-up of %@ does not wait: %s", name, refusal.reason());
    answer(nil);
    return 0;
  }
}

// It is there, or its time is over, or its start has failed, which is known already, or this one has to make room.
void LookUps::startEnded(const NSString& name, const Answer& answer) {
  const std::string key = name.string();
  const NSXPCListenerEndpoint endpoint = registry_->find(name);
  if (endpoint) {
    starter_->registered(key);
    MutexLock lock(mutex_);
    // Those that wait are answered now, too.
    starting_.erase(key);
  } else {
    starter_->endIfLate(key);
  }
  answer(endpoint);
}

void LookUps::startFailed(const std::string& name) {
  std::vector<Waiting> waiting;
  {
    MutexLock lock(mutex_);
    const auto found = starting_.find(name);
    if (found == starting_.end()) return;
    waiting.swap(found->second);
    starting_.erase(found);
  }
  endAll(std::move(waiting));
}

std::string LookUps::reason(const NSString& name) const {
  return starter_ ? starter_->reason(name.string()) : "";
}

}  // namespace velto
