#include "calls/Names.h"

#include <utility>

#include "VeltoIPC/InProcess.h"
#include "platform/foundation/Foundation.h"

namespace velto {

InProcess::InProcess() : names_(std::make_shared<calls::Names>()) {}

namespace calls {

class Names::Wait {
 public:
  explicit Wait(Answer answer) : answer_(std::move(answer)) {}

  void tell(const NameState& state) const { answer_(state); }

 private:
  const Answer answer_;
};

NameState Names::stateOf(const Entry& entry) {
  if (entry.alive.expired()) return {};
  return {entry.registration, NSProcessInfo::processInfo().processIdentifier()};
}

void Names::tell(const Waits& waits, const NameState& state) {
  for (const auto& each : waits) {
    if (const auto wait = each.lock()) wait->tell(state);
  }
}

NameAnswer Names::add(const std::string& name, const std::weak_ptr<Acceptor>& acceptor, bool takingOver) {
  Waits hearing;
  NameState state;
  {
    MutexLock lock(mutex_);
    Entry& entry = entries_[name];
    if (!takingOver && !entry.alive.expired()) return {stateOf(entry), true, ""};
    entry.acceptor = acceptor.lock().get();
    entry.alive = acceptor;
    entry.registration = ++lastRegistration_;
    hearing.swap(entry.waits);
    state = stateOf(entry);
  }
  tell(hearing, state);
  return {state, false, ""};
}

void Names::remove(const std::string& name, const Acceptor& acceptor) {
  Waits hearing;
  {
    MutexLock lock(mutex_);
    const auto place = entries_.find(name);
    if (place == entries_.end() || place->second.acceptor != &acceptor) return;
    hearing.swap(place->second.waits);
    entries_.erase(place);
  }
  tell(hearing, {});
}

std::shared_ptr<Names::Wait> Names::wait(const std::string& name, std::uint64_t known, Answer answer) {
  const auto wait = std::make_shared<Wait>(std::move(answer));
  NameState state;
  {
    MutexLock lock(mutex_);
    Entry& entry = entries_[name];
    state = stateOf(entry);
    std::erase_if(entry.waits, [](const auto& each) { return each.expired(); });
    if (state.registration == known) entry.waits.push_back(wait);
  }
  if (state.registration != known) wait->tell(state);
  return wait;
}

Names::Found Names::connect(const std::string& name) {
  std::shared_ptr<Acceptor> acceptor;
  {
    MutexLock lock(mutex_);
    const auto place = entries_.find(name);
    if (place != entries_.end()) acceptor = place->second.alive.lock();
  }
  if (!acceptor) return {};
  auto [mine, its] = NSXPCConnection::pair();
  if (its) acceptor->accept(std::move(its));
  return {true, std::move(mine)};
}

}  // namespace calls
}  // namespace velto
