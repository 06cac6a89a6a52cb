#include "platform/xpc/DelayedCall.h"

#include <algorithm>
#include <utility>

#include "platform/xpc/transport/Reactor.h"

namespace velto::xpc {

using transport::Reactor;

std::shared_ptr<DelayedCall> DelayedCall::after(std::chrono::nanoseconds delay, std::function<void()> call) {
  Reactor& reactor = Reactor::shared();
  std::shared_ptr<DelayedCall> made(new DelayedCall(reactor.timers().add(delay, std::move(call))));
  reactor.ensureThread();
  return made;
}

DelayedCall::~DelayedCall() {
  Reactor::shared().timers().cancel(identifier_);
}

std::chrono::steady_clock::time_point timeAfter(std::chrono::nanoseconds delay) noexcept {
  const auto now = std::chrono::steady_clock::now();
  return now + std::min<std::chrono::nanoseconds>(delay, std::chrono::steady_clock::time_point::max() - now);
}

bool isThreadOfThePlatform() noexcept {
  return Reactor::isOwnThread();
}

}  // namespace velto::xpc
