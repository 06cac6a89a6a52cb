#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace velto::testing {

// When a process is to end or to halt: at its n-th step, a step being a call of connect, accept, sendMessage,
// receiveMessage or close. Before the kernel has done it; during it (of a sendMessage, half has been sent); or after.
struct DeathPlan {
  enum class Way { none, kill, stop };
  enum class Moment { before, during, after };

  Way way = Way::none;
  std::size_t step = 0;
  Moment moment = Moment::before;

  // As words of a command line, and back.
  std::vector<std::string> words() const {
    return {std::to_string(static_cast<int>(way)), std::to_string(step), std::to_string(static_cast<int>(moment))};
  }
  static DeathPlan of(const std::string& way, const std::string& step, const std::string& moment) {
    return {static_cast<Way>(std::stoi(way)), std::stoul(step), static_cast<Moment>(std::stoi(moment))};
  }
};

inline std::string nameOf(DeathPlan::Way way) {
  return way == DeathPlan::Way::kill ? "Kill" : way == DeathPlan::Way::stop ? "Stop" : "None";
}
inline std::string nameOf(DeathPlan::Moment moment) {
  return moment == DeathPlan::Moment::before ? "Before" : moment == DeathPlan::Moment::during ? "During" : "After";
}

}  // namespace velto::testing
