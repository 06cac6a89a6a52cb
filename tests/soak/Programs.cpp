// The programs of a soak: this one in its several roles, and the broker.

#include "tests/soak/Programs.h"

#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace velto::soak {

namespace {

constexpr const char* kSelf = "/proc/self/exe";

}  // namespace

std::string serviceName(std::size_t listener) {
  return "org.velto.soak." + std::to_string(listener);
}

std::unique_ptr<testing::ChildProcess> startSelf(const std::vector<std::string>& arguments) {
  std::vector<std::string> command{kSelf};
  command.insert(command.end(), arguments.begin(), arguments.end());
  return std::make_unique<testing::ChildProcess>(command);
}

std::unique_ptr<testing::ChildProcess> startBroker() {
  auto made = startSelf({"program", VELTO_DAEMON});
  const auto line = made->readLine();
  if (!line || line->find("listening") == std::string::npos) testing::giveUp("the broker cannot be started");
  return made;
}

void becomeChild() {
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  ::setpgid(0, 0);
}

void becomeProgram(const std::string& path) {
  becomeChild();
  ::execl(path.c_str(), path.c_str(), nullptr);
  ::_exit(127);
}

bool hasEnded(const testing::ChildProcess& process) {
  siginfo_t information{};
  return ::waitid(P_PID, static_cast<id_t>(process.processID()), &information, WEXITED | WNOHANG | WNOWAIT) == 0 &&
         information.si_pid == process.processID();
}

}  // namespace velto::soak
