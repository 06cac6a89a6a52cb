#pragma once

#include <atomic>

#include "tests/hostile/victim/Victim.h"

namespace velto::hostile {

// A client of a name.
class ClientVictim final : public Victim {
 public:
  explicit ClientVictim(const std::string& name);

  // Whether the listener has accepted it.
  bool waitUntilReady();

 protected:
  void startWaiters(std::size_t count, double timeout, const std::string& order) override;
  std::string figures() override;
  // flood BYTES: sends messages of that size from now on, as fast as it may, whether or not they are taken.
  std::string obey(const std::string& order, std::istringstream& rest) override;

 private:
  void flood(std::size_t bytes);

  struct Flood {
    std::atomic<std::size_t> accepted{0};
    std::atomic<std::size_t> refused{0};
  };
  const std::shared_ptr<Flood> flood_ = std::make_shared<Flood>();
  std::shared_ptr<VeltoConnection> connection_;
};

// Connects, sends a message, and says how many milliseconds went by until the reply.
int runNewcomer(const std::string& name, double timeout);

}  // namespace velto::hostile
