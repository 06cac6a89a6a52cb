#pragma once

#include <atomic>
#include <chrono>

#include "tests/hostile/victim/Victim.h"

namespace velto::hostile {

// A listener under a name.
class ListenerVictim final : public Victim {
 public:
  ListenerVictim(const std::string& name, std::chrono::milliseconds readyPause);

  // From now on each line of the log takes so long.
  void installSlowSink(std::chrono::milliseconds pause);

 protected:
  // Over the connections in turn.
  void startWaiters(std::size_t count, double timeout, const std::string& order) override;
  std::string figures() override;
  // reachable: how many of all the identifiers that there ever were can be sent to.
  std::string obey(const std::string& order, std::istringstream& rest) override;

 private:
  std::shared_ptr<VeltoListener> listener_;
  // Shared with a sink that may outlive this.
  const std::shared_ptr<std::atomic<std::size_t>> lines_ = std::make_shared<std::atomic<std::size_t>>(0);
};

}  // namespace velto::hostile
