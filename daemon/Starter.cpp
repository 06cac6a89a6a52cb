// A program that was started and ends before it has registered has failed, unless it ends well: then it may have left
// another behind. What never says anything has failed when the time is over.
#include "daemon/Starter.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <utility>

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "platform/logging/VeltoLogging.h"

namespace velto {
namespace {

std::string endOf(int status) {
  if (WIFSIGNALED(status)) return std::string("it was ended by signal ") + std::to_string(WTERMSIG(status));
  return "it ended with status " + std::to_string(WEXITSTATUS(status));
}

// With no signal blocked or ignored, and in a session of its own.
class Attributes {
 public:
  Attributes() {
    ::posix_spawnattr_init(&attributes_);
    sigset_t signals;
    sigemptyset(&signals);
    ::posix_spawnattr_setsigmask(&attributes_, &signals);
    sigfillset(&signals);
    sigdelset(&signals, SIGKILL);
    sigdelset(&signals, SIGSTOP);
    ::posix_spawnattr_setsigdefault(&attributes_, &signals);
    ::posix_spawnattr_setflags(&attributes_,
                               POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSID);
  }
  ~Attributes() { ::posix_spawnattr_destroy(&attributes_); }
  Attributes(const Attributes&) = delete;
  Attributes& operator=(const Attributes&) = delete;

  const posix_spawnattr_t* get() const { return &attributes_; }

 private:
  posix_spawnattr_t attributes_{};
};

bool isRunBySystemd() {
  return std::getenv("INVOCATION_ID") != nullptr && std::getenv("NOTIFY_SOCKET") != nullptr;
}

// Where systemd runs this, a service is to be a unit of its own: it has its own limits, and outlives the broker.
std::vector<std::string> commandFor(const ServiceFile& file) {
  if (!file.unit.empty()) return {"systemctl", "--user", "--no-block", "start", file.unit};
  std::vector<std::string> command;
  if (isRunBySystemd()) command = {"systemd-run", "--user", "--quiet", "--collect", "--"};
  command.insert(command.end(), file.command.begin(), file.command.end());
  return command;
}

}  // namespace

pid_t Starter::launchProgram(const ServiceFile& file, std::string& reason) {
  std::vector<std::string> command = commandFor(file);
  std::vector<char*> arguments;
  for (std::string& each : command) arguments.push_back(each.data());
  arguments.push_back(nullptr);
  std::vector<char*> environment;
  for (char** each = environ; *each != nullptr; ++each) {
    const std::string_view text(*each);
    if (!text.starts_with("LISTEN_") && !text.starts_with("NOTIFY_SOCKET=")) environment.push_back(*each);
  }
  environment.push_back(nullptr);
  const Attributes attributes;
  pid_t process = -1;
  const int error =
      ::posix_spawnp(&process, arguments.front(), nullptr, attributes.get(), arguments.data(), environment.data());
  if (error == 0) return process;
  reason = command.front() + ": " + std::strerror(error);
  return -1;
}

Starter::Service* Starter::find(const std::string& name) {
  const auto found = services_.find(name);
  if (found != services_.end()) return &found->second;
  if (services_.size() >= kMostRemembered) {
    std::erase_if(services_, [this](const auto& each) { return !isUnderWay(each.second); });
  }
  return services_.size() < kMostRemembered ? &services_[name] : nullptr;
}

void Starter::fail(Service& service, const std::string& why, Clock::time_point now) {
  service.state = State::failed;
  service.process = 0;
  service.reason = why;
  service.pause = std::clamp(2 * service.pause, kFirstPause, kLongestPause);
  service.notBefore = now + service.pause;
}

Starter::State Starter::start(const std::string& name) {
  std::string reason;
  const auto file = ServiceFile::find(name, means_.folders, reason);
  const auto now = means_.now();
  MutexLock lock(mutex_);
  if (!file && reason.empty()) {
    services_.erase(name);
    return State::unknown;
  }
  Service* const service = find(name);
  if (service == nullptr) return State::unknown;
  if (isUnderWay(*service)) return State::starting;
  if (now < service->notBefore) return State::failed;
  const auto underWay = static_cast<std::size_t>(
      std::count_if(services_.begin(), services_.end(), [this](const auto& each) { return isUnderWay(each.second); }));
  if (underWay >= kMostAtOnce) {
    service->state = State::failed;
    service->reason = std::to_string(underWay) + " services are being started, which is the maximum";
    return State::failed;
  }
  // A child's end is told by whoever takes this lock next.
  service->process = file ? means_.launch(*file, reason) : -1;
  if (service->process < 0) {
    fail(*service, file ? "its program, as " + file->path + " has it, cannot be started: " + reason : reason, now);
    VKTLoggingLog(VKTLogGetAnchor(), 0, "%@ cannot be started: %s", NSString(name), service->reason);
    return State::failed;
  }
  service->state = State::starting;
  service->since = now;
  service->reason = file->path + " says how to start it";
  VKTLoggingLog(VKTLogGetAnchor(), 2, "Starting %@ as %s says", NSString(name), file->path);
  return State::starting;
}

void Starter::registered(const std::string& name) {
  MutexLock lock(mutex_);
  services_.erase(name);
}

void Starter::failed(const std::string& name, const std::string& why) {
  std::string reason;
  {
    MutexLock lock(mutex_);
    const auto found = services_.find(name);
    if (found == services_.end() || found->second.state != State::starting) return;
    fail(found->second, found->second.reason + ", but " + why, means_.now());
    reason = found->second.reason;
  }
  VKTLoggingLog(VKTLogGetAnchor(), 0, "%@ is not there: %s", NSString(name), reason);
  if (failureHandler_) failureHandler_(name);
}

void Starter::childEnded(pid_t process, int status) {
  std::string name;
  {
    MutexLock lock(mutex_);
    const auto found = std::find_if(services_.begin(), services_.end(),
                                    [process](const auto& each) { return each.second.process == process; });
    if (found == services_.end()) return;
    found->second.process = 0;
    if (WIFEXITED(status) && WEXITSTATUS(status) == 0) return;
    name = found->first;
  }
  failed(name, endOf(status) + " before it had registered");
}

std::string Starter::reason(const std::string& name) const {
  MutexLock lock(mutex_);
  const auto found = services_.find(name);
  if (found == services_.end()) return "";
  const Service& service = found->second;
  const auto left = std::chrono::ceil<std::chrono::seconds>(service.notBefore - means_.now());
  if (service.state != State::failed || left.count() <= 0) return service.reason;
  return service.reason + "; it is not started again within " + std::to_string(left.count()) + " s";
}

Starter::State Starter::state(const std::string& name) const {
  MutexLock lock(mutex_);
  const auto found = services_.find(name);
  return found != services_.end() ? found->second.state : State::unknown;
}

bool Starter::isStarting() const {
  MutexLock lock(mutex_);
  return std::any_of(services_.begin(), services_.end(), [this](const auto& each) { return isUnderWay(each.second); });
}

bool Starter::isUnderWay(const Service& service) const {
  return service.state == State::starting && means_.now() - service.since <= kPatience;
}

}  // namespace velto
