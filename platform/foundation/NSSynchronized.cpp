// Monitors. Bodies of classes of one's own have a place for theirs; the platform's values, which are many and hardly
// ever locked, have one in a table for as long as somebody holds or awaits it.
#include "platform/foundation/NSSynchronized.h"

#include <unordered_map>

#include "platform/foundation/ObjectBody.h"

namespace velto {
namespace {

struct HashOfWords {
  std::size_t operator()(const Value& value) const noexcept {
    return std::hash<std::uint64_t>()(value.bits() ^ value.high());
  }
};

class Monitors {
 public:
  std::recursive_mutex& enter(const Value& value) {
    const std::lock_guard lock(mutex_);
    Monitor& monitor = monitors_[value];
    ++monitor.users;
    return monitor.mutex;
  }

  void leave(const Value& value) noexcept {
    const std::lock_guard lock(mutex_);
    const auto place = monitors_.find(value);
    if (--place->second.users == 0) monitors_.erase(place);
  }

  // Never destroyed: threads that outlast main may still lock.
  static Monitors& ofProcess() {
    static Monitors& made = *new Monitors;
    return made;
  }

 private:
  struct Monitor {
    std::recursive_mutex mutex;
    std::size_t users = 0;
  };

  std::mutex mutex_;
  std::unordered_map<Value, Monitor, HashOfWords> monitors_;
};

}  // namespace
}  // namespace velto

std::recursive_mutex* NSSynchronized::enter() const {
  if (object_.isNil()) return nullptr;
  const velto::ObjectBody* body = object_.body();
  return body != nullptr ? &body->monitor() : &velto::Monitors::ofProcess().enter(object_.value());
}

void NSSynchronized::leave() const noexcept {
  if (object_.body() == nullptr) velto::Monitors::ofProcess().leave(object_.value());
}

NSSynchronized::NSSynchronized(NSObject object) : object_(std::move(object)), monitor_(enter()) {
  if (monitor_ != nullptr) monitor_->lock();
}

NSSynchronized::NSSynchronized(NSObject object, std::try_to_lock_t) : object_(std::move(object)), monitor_(enter()) {
  if (monitor_ == nullptr || monitor_->try_lock()) return;
  monitor_ = nullptr;
  leave();
}

NSSynchronized::~NSSynchronized() {
  if (monitor_ == nullptr) return;
  monitor_->unlock();
  leave();
}
