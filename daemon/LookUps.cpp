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

void LookUps::find(const NSString& name, const std::shared_ptr<Registrant>& registrant, Answer answer) {
  if (const auto endpoint = registry_->find(name)) return answer(endpoint);
  if (isSettled()) return findOrStart(name, registrant, answer);
  const auto item = waitFor(name, kPatience, registrant, answer,
                            [weak = weak_from_this(), name, weakRegistrant = std::weak_ptr(registrant), answer] {
                              const auto self = weak.lock();
                              const auto waiting = weakRegistrant.lock();
                              if (self && waiting) self->findOrStart(name, waiting, answer);
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
  const auto told = [weak = weak_from_this(), key, answer](const NSXPCListenerEndpoint& endpoint) {
    if (const auto self = weak.lock()) self->startSucceeded(key);
    answer(endpoint);
  };
  const auto item =
      waitFor(name, Starter::kPatience, registrant, told, [weak = weak_from_this(), key, answer] {
        if (const auto self = weak.lock()) {
          self->starter_->failed(key, "it has not registered within " + std::to_string(Starter::kPatience.count()) + " s");
        }
        answer(nil);
      });
  if (item == 0) return;
  {
    MutexLock lock(mutex_);
    starting_[key].emplace_back(name, item);
  }
  // It may have failed before it was known that this one waits.
  if (starter_->state(key) == Starter::State::failed) startFailed(key);
}

Ledger::Item LookUps::waitFor(const NSString& name, std::chrono::nanoseconds time,
                              const std::shared_ptr<Registrant>& registrant, const Answer& answer,
                              std::function<void()> otherwise) {
  try {
    return registry_->wait(name, 0, time, registrant,
                           [answer, otherwise = std::move(otherwise)](const std::optional<Standing>& standing) {
                             standing && standing->endpoint ? answer(standing->endpoint) : otherwise();
                           });
  } catch (const NSXPCRefusal& refusal) {
    VKTLoggingLog(VKTLogGetAnchor(), 2, "A look-up of %@ does not wait: %s", name, refusal.reason());
    answer(nil);
    return 0;
  }
}

void LookUps::startSucceeded(const std::string& name) {
  starter_->registered(name);
  MutexLock lock(mutex_);
  // They have been answered.
  starting_.erase(name);
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
