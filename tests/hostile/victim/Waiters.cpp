// Waiters are detached: an attack may strand them for good, and the victim must be able to say so and to end.

#include "tests/hostile/victim/Waiters.h"

#include <thread>
#include <utility>

namespace velto::hostile {

void Waiters::start(std::function<bool()> send) {
  ++counts_->waiting;
  std::thread([counts = counts_, send = std::move(send)] {
    ++(send() ? counts->replied : counts->unanswered);
    --counts->waiting;
  }).detach();
}

std::string Waiters::figures() const {
  return "waiting=" + std::to_string(counts_->waiting) + " replied=" + std::to_string(counts_->replied) +
         " unanswered=" + std::to_string(counts_->unanswered);
}

}  // namespace velto::hostile
