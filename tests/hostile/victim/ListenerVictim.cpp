// The listener's tables are part of its figures: what an attack leaves in them is what it has gained.

#include "tests/hostile/victim/ListenerVictim.h"

#include <thread>

#include "VeltoIPC/platform/logging/VeltoLogging.h"

namespace velto::hostile {

ListenerVictim::ListenerVictim(const std::string& name, std::chrono::milliseconds readyPause) {
  delegate_->setReadyPause(readyPause);
  // The delegate's callbacks begin only with the first client, and the name is told to none before this returns.
  auto place = std::make_shared<std::weak_ptr<VeltoListener>>();
  delegate_->setSendBack([place](const NSString& toConnection, double timeout) {
    const auto listener = place->lock();
    return listener ? listener->sendMessageSync({{"do", "keep"}}, toConnection, timeout) : NSDictionary();
  });
  listener_ = VeltoListener::initWithServiceName(name, delegate_);
  *place = listener_;
}

void ListenerVictim::installSlowSink(std::chrono::milliseconds pause) {
  VKTLogSetSink([lines = lines_, pause](const VKTLogAnchor&, int, const NSString&) {
    ++*lines;
    std::this_thread::sleep_for(pause);
  });
}

void ListenerVictim::startWaiters(std::size_t count, double timeout, const std::string& order) {
  const auto identifiers = delegate_->identifiers();
  for (std::size_t number = 0; number < count && !identifiers.empty(); ++number) {
    waiters_.start([listener = listener_, to = identifiers[number % identifiers.size()], timeout, order] {
      return !listener->sendMessageSync({{"do", order}}, to, timeout).isNil();
    });
  }
}

std::string ListenerVictim::figures() {
  const NSSynchronized monitor(listener_->connectionConditions());
  return "connections=" + std::to_string(listener_->receivedConnections().count()) +
         " conditions=" + std::to_string(listener_->connectionConditions().count()) +
         " proxies=" + std::to_string(listener_->receivedProxyObjects().count()) + " lines=" + std::to_string(*lines_);
}

std::string ListenerVictim::obey(const std::string& order, std::istringstream&) {
  if (order != "reachable") return {};
  std::size_t reachable = 0;
  for (const std::string& identifier : delegate_->identifiers()) {
    if (listener_->sendMessage({{"do", "nothing"}}, identifier)) ++reachable;
  }
  return "reachable=" + std::to_string(reachable);
}

}  // namespace velto::hostile
