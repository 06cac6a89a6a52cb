#include "tests/activation/StandIn.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <sstream>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/support/Waiting.h"

namespace velto::testing {
namespace {

constexpr int kFirst = 3;

system::Descriptor bound(int type, const std::string& path) {
  system::Descriptor made(::socket(AF_UNIX, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
  const bool isBound = ::bind(made.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  EXPECT_TRUE(isBound) << path << ": " << std::strerror(errno);
  return made;
}

}  // namespace

StandIn::StandIn() {
  const auto sockets = path() / "velto-ipc";
  ::mkdir(sockets.c_str(), 0700);
  listening_ = bound(SOCK_STREAM, (sockets / "org.velto.VeltoIPCDaemon").string());
  EXPECT_EQ(::listen(listening_.get(), 128), 0);
  notified_ = bound(SOCK_DGRAM, (path() / "notify").string());
}

StandIn::~StandIn() {
  kill();
}

pid_t StandIn::run(int borrowedSocket) const {
  std::vector<int> passed{borrowedSocket};
  std::string names = "socket";
  for (const auto& [name, descriptors] : stored_) {
    for (const auto& each : descriptors) {
      passed.push_back(each.get());
      names += ":" + name;
    }
  }
  const std::string notify = (path() / "notify").string();
  const std::string count = std::to_string(passed.size());
  const pid_t child = ::fork();
  if (child != 0) return child;
  // Out of the way first: a place may be one that is to be passed.
  std::vector<int> moved;
  for (const int each : passed) moved.push_back(::fcntl(each, F_DUPFD, kFirst + static_cast<int>(passed.size())));
  for (std::size_t index = 0; index < moved.size(); ++index) ::dup2(moved[index], kFirst + static_cast<int>(index));
  for (const int each : moved) ::close(each);
  ::setenv("NOTIFY_SOCKET", notify.c_str(), 1);
  ::setenv("LISTEN_FDS", count.c_str(), 1);
  ::setenv("LISTEN_FDNAMES", names.c_str(), 1);
  ::setenv("LISTEN_PID", std::to_string(::getpid()).c_str(), 1);
  ::execl(VELTO_DAEMON, VELTO_DAEMON, nullptr);
  ::_exit(127);
}

void StandIn::start() {
  said_.clear();
  // What it said before it was killed has been sent, and counts.
  hear(0);
  process_ = run(listening_.get());
  const auto end = std::chrono::steady_clock::now() + kBound;
  const auto isReady = [this] { return std::find(said_.begin(), said_.end(), "READY=1") != said_.end(); };
  while (!isReady() && std::chrono::steady_clock::now() < end) hear(10);
  EXPECT_TRUE(isReady());
}

int StandIn::startWith(int borrowedSocket) {
  int status = -1;
  EXPECT_GT(::waitpid(run(borrowedSocket), &status, 0), 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

void StandIn::kill() {
  if (process_ == 0) return;
  ::kill(process_, SIGKILL);
  ::waitpid(process_, nullptr, 0);
  process_ = 0;
}

bool StandIn::waitFor(const std::function<bool(const Stored&)>& isSo) {
  const auto end = std::chrono::steady_clock::now() + kBound;
  while (!isSo(stored_) && std::chrono::steady_clock::now() < end) hear(10);
  return isSo(stored_);
}

void StandIn::hear(int milliseconds) {
  pollfd asked{notified_.get(), POLLIN, 0};
  while (::poll(&asked, 1, milliseconds) > 0) {
    milliseconds = 0;
    std::array<char, 4096> bytes{};
    alignas(cmsghdr) std::array<char, 512> control{};
    iovec part{bytes.data(), bytes.size()};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    const ssize_t length = ::recvmsg(notified_.get(), &message, MSG_CMSG_CLOEXEC);
    if (length < 0) return;
    std::vector<system::Descriptor> descriptors;
    for (cmsghdr* each = CMSG_FIRSTHDR(&message); each != nullptr; each = CMSG_NXTHDR(&message, each)) {
      if (each->cmsg_type != SCM_RIGHTS) continue;
      std::vector<int> numbers((each->cmsg_len - CMSG_LEN(0)) / sizeof(int));
      std::memcpy(numbers.data(), CMSG_DATA(each), numbers.size() * sizeof(int));
      for (const int number : numbers) descriptors.emplace_back(number);
    }
    take(std::string(bytes.data(), static_cast<std::size_t>(length)), std::move(descriptors));
  }
}

void StandIn::take(const std::string& text, std::vector<system::Descriptor> descriptors) {
  std::istringstream lines(text);
  std::string name;
  bool isKept = false;
  bool isRemoved = false;
  for (std::string line; std::getline(lines, line);) {
    if (line == "FDSTORE=1") {
      isKept = true;
    } else if (line == "FDSTOREREMOVE=1") {
      isRemoved = true;
    } else if (line.starts_with("FDNAME=")) {
      name = line.substr(7);
    } else if (line != "FDPOLL=0") {
      said_.push_back(line);
    }
  }
  if (isRemoved) stored_.erase(name);
  if (!isKept) return;
  for (auto& each : descriptors) stored_[name].push_back(std::move(each));
}

}  // namespace velto::testing
