#include "tools/veltoctl/Findings.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "broker/BrokerConnection.h"
#include "broker/VeltoIPCRecallProtocol.h"
#include "platform/xpc/NSXPCListener.h"
#include "platform/xpc/transport/Activation.h"
#include "platform/xpc/transport/RuntimeDirectory.h"
#include "platform/xpc/transport/Sockets.h"
#include "tools/veltoctl/BrokerLink.h"
#include "tools/veltoctl/Listeners.h"
#include "tools/veltoctl/Output.h"
#include "tools/veltoctl/Processes.h"

namespace velto::ctl {
namespace {

using Kind = Finding::Kind;

// Below it, a program with some connections comes to its end soon.
constexpr rlim_t kFewDescriptors = 256;

std::string lastError() {
  return std::strerror(errno);
}

std::string remedyOfDirectory(const std::string& reason) {
  const std::string named = transport::RuntimeDirectory::named();
  const std::string place = named.empty() ? "/run/user/" + std::to_string(geteuid()) : named;
  if (reason.find("belongs to user") != std::string::npos) {
    return "use the directory of the user that this runs as: unset XDG_RUNTIME_DIR, or set it to /run/user/" +
           std::to_string(geteuid()) + " (sudo and su keep the other user's)";
  }
  if (reason.find("can be written to by others") != std::string::npos) {
    return "close it to others: chmod 700 " + place;
  }
  if (reason.find("not an absolute path") != std::string::npos) return "set XDG_RUNTIME_DIR to an absolute path";
  return "make it: mkdir -m 700 " + place + ", or log in so that the system does, or unset XDG_RUNTIME_DIR";
}

}  // namespace

Finding findRuntimeDirectory() {
  const auto runtime = transport::RuntimeDirectory::open();
  if (!runtime.directory) return {Kind::bad, "runtime directory", runtime.reason, remedyOfDirectory(runtime.reason)};
  if (::faccessat(runtime.directory.get(), ".", W_OK | X_OK, 0) != 0) {
    return {Kind::bad, "runtime directory", runtime.path + ": " + lastError(),
            "it must be writable: chmod 700 " + runtime.path + ", or mount what it lies in for writing"};
  }
  const bool isMakeshift = transport::RuntimeDirectory::named().empty() && runtime.path.starts_with("/tmp/");
  return {isMakeshift ? Kind::remark : Kind::good, "runtime directory", runtime.path,
          isMakeshift ? "there is neither $XDG_RUNTIME_DIR nor /run/user/" + std::to_string(geteuid()) +
                            ": processes that have one of them do not find those here; log in in full, or set it alike "
                            "for all"
                      : ""};
}

Finding findUser() {
  const char* const before = std::getenv("SUDO_UID");
  const std::string user = userText(geteuid()) + " (" + std::to_string(geteuid()) + ")";
  if (getuid() != geteuid()) {
    return {Kind::remark, "user", user + ", started by " + userText(getuid()),
            "only processes of one effective user find each other"};
  }
  if (before != nullptr && std::to_string(geteuid()) != before) {
    return {Kind::remark, "user", user + ", by sudo from user " + before,
            "services of that user are not found from here, and turn this user away: run it without sudo"};
  }
  return {Kind::good, "user", user};
}

Finding findProc() {
  errno = 0;
  const std::string reason = transport::whyNoPathOfDescriptor();
  if (!reason.empty()) return {Kind::bad, "/proc", reason, "mount it: mount -t proc proc /proc"};
  if (commandOf(getpid()).empty()) {
    return {Kind::remark, "/proc", "/proc/self/fd can be used; what runs cannot be read",
            "commands of processes are not shown: /proc may be mounted with hidepid"};
  }
  return {Kind::good, "/proc", "mounted, and /proc/self/fd can be used"};
}

// What every connection by name does, with nobody else.
Finding findEndpoints() {
  const auto made = transport::makeAnonymousSocket();
  if (!made.socket) {
    return {Kind::bad, "endpoints", "none can be made: " + made.reason,
            "see to what the lines above tell of; else to the limits of descriptors and memory"};
  }
  const auto attempt = transport::connectToEndpoint(made.handle.get());
  if (!attempt.socket) {
    return {Kind::bad, "endpoints", "one of this process cannot be connected to: " + attempt.reason,
            "a security policy (seccomp, AppArmor, SELinux) may forbid it: allow connect() on /proc/self/fd"};
  }
  return {Kind::good, "endpoints", "can be made and connected to"};
}

Finding findDescriptorLimit() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return {Kind::remark, "descriptors", lastError(), ""};
  const std::string state = std::to_string(limit.rlim_cur) + " may be open, up to " + std::to_string(limit.rlim_max) +
                            " if a program asks for it";
  if (limit.rlim_cur >= kFewDescriptors) return {Kind::good, "descriptors", state};
  return {limit.rlim_max < kFewDescriptors ? Kind::bad : Kind::remark, "descriptors", state,
          "each connection takes one: ulimit -n 1024, or LimitNOFILE= of the service"};
}

Finding findProcessDescriptors() {
  const auto descriptor = static_cast<int>(::syscall(SYS_pidfd_open, getpid(), 0));
  if (descriptor >= 0) {
    ::close(descriptor);
    return {Kind::good, "death of peers", "the kernel tells of it (pidfd_open)"};
  }
  return {Kind::remark, "death of peers", "the kernel does not tell of it: pidfd_open: " + lastError(),
          "then only a closed socket tells: use Linux 5.3 or newer, or allow pidfd_open"};
}

Finding findSharedMemory() {
  const int descriptor = ::memfd_create("velto-doctor", MFD_CLOEXEC | MFD_ALLOW_SEALING);
  if (descriptor < 0) {
    return {Kind::remark, "shared memory", "memfd_create: " + lastError(),
            "data beyond 16 MiB cannot be sent: allow memfd_create"};
  }
  ::close(descriptor);
  return {Kind::good, "shared memory", "can be made and sealed"};
}

Finding findBrokerProgram() {
  std::string reason;
  const std::string path = transport::ProgramChoice(brokerProgram()).find(reason);
  if (!path.empty()) return {Kind::good, "broker's program", path};
  return {Kind::remark, "broker's program", reason,
          "without it no broker is started when one is needed: install it, put it into $PATH, or name it in "
          "$VELTO_IPC_DAEMON"};
}

Finding findBroker() {
  try {
    BrokerLink link(BrokerLink::Start::never);
    const NSDictionary broker = link.describeBroker();
    const auto since = broker["since"].to<std::uint64_t>().value_or(0);
    return {Kind::good, "broker",
            "process " + std::to_string(broker["process"].to<std::int64_t>().value_or(0)) + ", for " +
                durationText(secondsSince(since)) +
                ", names: " + std::to_string(broker["names"].to<std::int64_t>().value_or(0))};
  } catch (const CommandError& error) {
    if (error.code() == ExitCode::refused) {
      return {Kind::remark, "broker", "runs, and is older than this program", "restart it after an update"};
    }
  }
  const auto attempt = transport::connectToService(VeltoIPCDaemonServiceName);
  if (attempt.socket || attempt.full) {
    return {Kind::bad, "broker", "is there and does not answer",
            "it may be stopped, or have no descriptors left: look at it, and end it; whoever needs one starts another"};
  }
  const bool isNone = attempt.absent || attempt.refused;
  std::string reason;
  const bool canBeStarted = !transport::ProgramChoice(brokerProgram()).find(reason).empty();
  if (isNone && canBeStarted) return {Kind::good, "broker", "none runs; it is started when one is needed"};
  return {Kind::bad, "broker", isNone ? "none runs, and none can be started" : attempt.reason,
          isNone ? "start it: VeltoIPCDaemon, or systemctl --user start velto-ipc.socket" : "mend what it says"};
}

Finding findListeners() {
  const auto doors = NSXPCListener::serviceNamesWithPrefix(VeltoIPCListenerServicePrefix).count();
  const auto listeners = allTraffic().size();
  return {Kind::good, "listeners",
          std::to_string(doors) + " processes say that they have some; they tell of " + std::to_string(listeners) +
              " names"};
}

std::vector<Finding> findAll() {
  std::vector<Finding> all{findUser(),         findRuntimeDirectory(), findProc(),
                           findEndpoints(),    findDescriptorLimit(),  findProcessDescriptors(),
                           findSharedMemory(), findBrokerProgram(),    findBroker()};
  if (all[1].kind != Kind::bad) all.push_back(findListeners());
  return all;
}

}  // namespace velto::ctl
