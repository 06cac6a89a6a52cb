// VeltoIPCDaemon: introduces clients to listeners by name. Runs in the foreground until SIGTERM or SIGINT, or, if it was
// told so, until nobody has needed it for a while. The signals are blocked before there is any thread, so that they wait
// for the one place that takes them.
//
// Its socket it makes itself, or gets from whoever starts it: systemd, or the first process that found no broker.
#include <algorithm>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <memory>

#include <sys/resource.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <systemd/sd-daemon.h>

#include "daemon/Broker.h"
#include "daemon/DescriptorStore.h"
#include "platform/logging/VeltoLogging.h"
#include "platform/xpc/NSXPCListener.h"
#include <CLI/CLI.hpp>

namespace {

constexpr double kNever = 0;
// Until it is tried again, when somebody came at the last moment.
constexpr double kSoon = 1;

sigset_t blockSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int each : {SIGTERM, SIGINT, SIGALRM, SIGCHLD}) sigaddset(&signals, each);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  return signals;
}

// SIGALRM comes then.
void alarmAfter(double seconds) {
  itimerval timer{};
  timer.it_value.tv_sec = static_cast<time_t>(seconds);
  timer.it_value.tv_usec = std::max<suseconds_t>(1, static_cast<suseconds_t>(std::fmod(seconds, 1) * 1e6));
  setitimer(ITIMER_REAL, &timer, nullptr);
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

void reapChildren(velto::Starter& starter) {
  int status = 0;
  for (pid_t child = waitpid(-1, &status, WNOHANG); child > 0; child = waitpid(-1, &status, WNOHANG)) {
    starter.childEnded(child, status);
  }
}

struct Options {
  bool isVerbose = false;
  double leaveAfter = kNever;
};

std::shared_ptr<NSXPCListener> listen(int passed, const Options& options, NSError& error) {
  if (passed < 0) return NSXPCListener::listenerWithServiceName(VeltoIPCDaemonServiceName, &error);
  // Of a socket of systemd's the name is systemd's.
  const NSString name = options.leaveAfter > kNever ? VeltoIPCDaemonServiceName : "";
  return NSXPCListener::listenerWithPassedSocket(passed, name, &error);
}

// Until there is a reason to end.
void takeSignals(const sigset_t& signals, NSXPCListener& listener, const velto::Broker& broker,
                 velto::Starter& starter) {
  const auto isIdle = [&broker] { return broker.isIdle(); };
  for (int received = 0; sigwait(&signals, &received) == 0;) {
    if (received == SIGCHLD) {
      reapChildren(starter);
    } else if (received != SIGALRM) {
      sd_notify(0, "STOPPING=1");
      return listener.invalidate();
    } else if (broker.isIdle()) {
      if (listener.leave(isIdle)) return;
      alarmAfter(kSoon);
    }
  }
}

int serve(const sigset_t& signals, const velto::BrokerLimits& limits, const Options& options) {
  const auto passed = velto::PassedDescriptors::take();
  NSError error;
  const auto listener = listen(passed.listening, options, error);
  if (!listener) {
    std::fprintf(stderr, "VeltoIPCDaemon: %s\n", error.localizedDescription().string().c_str());
    return 1;
  }
  const auto starter = std::make_shared<velto::Starter>();
  const auto store = std::getenv("NOTIFY_SOCKET") != nullptr ? std::make_shared<velto::DescriptorStore>() : nullptr;
  const auto broker = velto::Broker::make(velto::Broker::Means{limits, starter, store});
  if (options.leaveAfter > kNever) {
    broker->setIdleHandler([seconds = options.leaveAfter] { alarmAfter(seconds); });
  }
  broker->remember(passed.names);
  listener->setDelegate(broker);
  listener->resume();
  if (options.leaveAfter > kNever) alarmAfter(options.leaveAfter);
  sd_notify(0, "READY=1");
  const NSString path = listener->path();
  std::printf("VeltoIPCDaemon: listening on %s\n", path ? path.string().c_str() : "the socket that it was given");
  std::fflush(stdout);
  takeSignals(signals, *listener, *broker, *starter);
  return 0;
}

}  // namespace

int main(int argumentCount, char** arguments) {
  CLI::App options("Introduces VeltoIPC clients to listeners by name.", "VeltoIPCDaemon");
  Options chosen;
  options.add_flag("--verbose", chosen.isVerbose, "Write a line for each registration and each look-up");
  options
      .add_option("--leave-when-idle", chosen.leaveAfter,
                  "End when nobody has needed the broker for so many seconds; whoever needs it next starts it again")
      ->type_name("SECONDS")
      ->check(CLI::Range(0.001, 1e6));
  options.set_version_flag("--version", "VeltoIPCDaemon " VELTO_VERSION);
  CLI11_PARSE(options, argumentCount, arguments);

  const sigset_t signals = blockSignals();
  const std::size_t descriptors = raiseDescriptorLimit();
  const velto::BrokerLimits limits = velto::limitsWithin(descriptors);
  if (chosen.isVerbose) VKTLogSetLevel(VKTLogLevelProgress);
  VKTLoggingLog(VKTLogGetAnchor(), 2, "Descriptors: %u may be open, %u of them for links and names", descriptors,
                limits.descriptors);
  return serve(signals, limits, chosen);
}
