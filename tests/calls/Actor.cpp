#include "tests/calls/Actor.h"

#include <signal.h>

namespace velto::testing {

Actor::Actor(const std::string& name) : process_({VELTO_CALLS_ACTOR, name}) {}

void Actor::waitFor(const std::string& word, int count) {
  while (count > 0) {
    const auto line = process_.readLine();
    if (!line) giveUp("a service has ended");
    if (*line == word) --count;
  }
}

void Actor::kill() {
  process_.signal(SIGKILL);
  process_.wait();
}

}  // namespace velto::testing
