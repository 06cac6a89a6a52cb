#pragma once

#include <vector>

#include "tests/hostile/victim/Victim.h"

namespace velto::hostile {

// Many clients of a name in one process; none is waited for.
class CrowdVictim final : public Victim {
 public:
  CrowdVictim(const std::string& name, std::size_t count);

 protected:
  void startWaiters(std::size_t, double, const std::string&) override {}
  std::string figures() override;
  std::string obey(const std::string&, std::istringstream&) override { return {}; }

 private:
  std::vector<std::shared_ptr<VeltoConnection>> connections_;
};

}  // namespace velto::hostile
