#include "tools/veltoctl/Signals.h"

#include <csignal>

#include <poll.h>
#include <sys/signalfd.h>

namespace velto::ctl {
namespace {

int blockedSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int each : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&signals, each);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  // Whoever writes where nobody reads is told by the write.
  std::signal(SIGPIPE, SIG_IGN);
  return signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
}

}  // namespace

Signals::Signals() : descriptor_(blockedSignals()) {}

bool Signals::wait(std::chrono::nanoseconds patience) {
  pollfd waiting{descriptor_, POLLIN, 0};
  const auto milliseconds = std::chrono::ceil<std::chrono::milliseconds>(patience).count();
  return ::poll(&waiting, 1, static_cast<int>(milliseconds)) > 0;
}

void Signals::waitOr(const std::function<bool()>& condition) {
  while (!condition() && !wait(std::chrono::milliseconds(50))) {
  }
}

}  // namespace velto::ctl
