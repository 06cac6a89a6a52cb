// VeltoIPCDaemon: introduces clients to listeners by name. Runs in the foreground until SIGTERM or SIGINT. The signals
// are blocked before there is any thread, so that they wait for the one place that takes them.
#include <algorithm>
#include <csignal>
#include <cstdio>
#include <memory>

#include <sys/resource.h>

#include "daemon/Broker.h"
#include "platform/logging/VeltoLogging.h"
#include "platform/xpc/NSXPCListener.h"
#include <CLI/CLI.hpp>

namespace {

sigset_t blockTerminationSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGINT);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  return signals;
}

// The usual soft limit of 1024 would be the first limit that clients meet, and the one that says least. Returns how
// many descriptors may be open then.
std::size_t raiseDescriptorLimit() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return velto::kNeededDescriptors;
  const rlim_t before = limit.rlim_cur;
  if (before >= velto::kNeededDescriptors) return velto::kNeededDescriptors;
  limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, velto::kNeededDescriptors);
  return setrlimit(RLIMIT_NOFILE, &limit) == 0 ? limit.rlim_cur : before;
}

int serve(const sigset_t& untilSignals, const velto::BrokerLimits& limits) {
  NSError error;
  const auto listener = NSXPCListener::listenerWithServiceName(VeltoIPCDaemonServiceName, &error);
  if (!listener) {
    std::fprintf(stderr, "VeltoIPCDaemon: %s\n", error.localizedDescription().string().c_str());
    return 1;
  }
  const auto broker = velto::Broker::make(limits);
  listener->setDelegate(broker);
  listener->resume();
  std::printf("VeltoIPCDaemon: listening on %s\n", listener->path().string().c_str());
  std::fflush(stdout);
  int received = 0;
  sigwait(&untilSignals, &received);
  listener->invalidate();
  return 0;
}

}  // namespace

int main(int argumentCount, char** arguments) {
  CLI::App options("Introduces VeltoIPC clients to listeners by name.", "VeltoIPCDaemon");
  bool isVerbose = false;
  options.add_flag("--verbose", isVerbose, "Write a line for each registration and each look-up");
  options.set_version_flag("--version", "VeltoIPCDaemon " VELTO_VERSION);
  CLI11_PARSE(options, argumentCount, arguments);

  const sigset_t signals = blockTerminationSignals();
  const std::size_t descriptors = raiseDescriptorLimit();
  const velto::BrokerLimits limits = velto::limitsWithin(descriptors);
  if (isVerbose) VKTLogSetLevel(VKTLogLevelProgress);
  VKTLoggingLog(VKTLogGetAnchor(), 2, "Descriptors: %u may be open, %u of them for links and names", descriptors,
                limits.descriptors);
  return serve(signals, limits);
}
