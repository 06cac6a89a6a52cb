// The line protocol that all victims have in common.

#include "tests/hostile/victim/Victim.h"

#include <iostream>

namespace velto::hostile {

void say(const std::string& line) {
  std::cout << line << std::endl;
}

void Victim::serve() {
  for (std::string line; std::getline(std::cin, line) && line != "quit";) say(answerTo(line));
}

std::string Victim::answerTo(const std::string& line) {
  std::istringstream words(line);
  std::string order;
  words >> order;
  if (order == "open") {
    delegate_->openGate();
    return "opened";
  }
  if (order == "waiters") {
    std::size_t count = 0;
    double timeout = 0;
    std::string what;
    words >> count >> timeout >> what;
    startWaiters(count, timeout < 0 ? VKT_IPC_TIME_FOREVER : timeout, what);
    return "started";
  }
  if (order == "figures") return delegate_->figures() + " " + waiters_.figures() + " " + figures();
  const std::string answer = obey(order, words);
  return answer.empty() ? "unknown order: " + line : answer;
}

}  // namespace velto::hostile
