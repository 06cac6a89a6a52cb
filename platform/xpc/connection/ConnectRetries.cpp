// One timer for a line, which waits longer each time that it is in vain, up to a bound.

#include "platform/xpc/connection/ConnectRetries.h"

#include <algorithm>
#include <utility>

#include "platform/xpc/connection/ConnectionCore.h"
#include "platform/xpc/contract/Limits.h"
#include "platform/xpc/system/PerProcess.h"
#include "platform/xpc/transport/Reactor.h"

namespace velto::xpc {

namespace {

// Tries before others have their turn.
constexpr unsigned kTurn = 64;

}  // namespace

ConnectRetries& ConnectRetries::shared() {
  return system::perProcess<ConnectRetries>();
}

void ConnectRetries::wait(const std::string& target, std::weak_ptr<ConnectionCore> connection) {
  MutexLock lock(mutex_);
  Line& line = lines_[target];
  line.waiting.push_back(std::move(connection));
  if (line.waiting.size() > 1) return;
  line.pause = limits::kConnectRetry;
  armFor(target, line.pause);
}

void ConnectRetries::armFor(const std::string& target, std::chrono::milliseconds pause) {
  // It may be the first thing that this process does here.
  transport::Reactor::shared().ensureThread();
  transport::Reactor::shared().timers().add(pause, [this, target] { tryAgain(target); });
}

void ConnectRetries::tryAgain(const std::string& target) {
  for (unsigned tries = 0;; ++tries) {
    std::shared_ptr<ConnectionCore> first;
    {
      MutexLock lock(mutex_);
      first = lines_[target].waiting.front().lock();
    }
    const bool isFull = first && first->connectAgain();
    MutexLock lock(mutex_);
    Line& line = lines_[target];
    line.pause = isFull ? std::min(2 * line.pause, limits::kLongestConnectRetry) : limits::kConnectRetry;
    if (!isFull) line.waiting.pop_front();
    if (line.waiting.empty()) {
      lines_.erase(target);
      return;
    }
    if (isFull || tries == kTurn) return armFor(target, line.pause);
  }
}

}  // namespace velto::xpc
