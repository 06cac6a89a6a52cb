#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

namespace velto::testing {

// A process that has connected to a socket's path as often as it was told, has said the same on each connection, and
// lives until it is killed. It is forked from a process with threads: so it makes system calls and nothing else.
class ConnectedChild {
 public:
  explicit ConnectedChild(const std::string& path, std::size_t connections = 1,
                          const std::vector<std::uint8_t>& words = {}) {
    sockaddr_un address{AF_UNIX, {}};
    std::strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
    int ready[2] = {-1, -1};
    EXPECT_EQ(::pipe2(ready, O_CLOEXEC), 0);
    process_ = ::fork();
    if (process_ == 0) {
      bool isWell = true;
      for (std::size_t count = 0; count < connections; ++count) isWell = connects(address, words) && isWell;
      if (isWell && ::write(ready[1], "r", 1) == 1) ::pause();
      ::_exit(1);
    }
    ::close(ready[1]);
    char byte = 0;
    EXPECT_EQ(::read(ready[0], &byte, 1), 1) << "the child could not connect";
    ::close(ready[0]);
  }
  ~ConnectedChild() { dies(); }
  ConnectedChild(const ConnectedChild&) = delete;
  ConnectedChild& operator=(const ConnectedChild&) = delete;

  pid_t process() const { return process_; }
  // Until its parent has asked for its end, the kernel keeps the number of a dead process.
  void diesUnburied() { ::kill(process_, SIGKILL); }
  void dies() {
    if (process_ <= 0) return;
    ::kill(process_, SIGKILL);
    ::waitpid(process_, nullptr, 0);
    process_ = -1;
  }

 private:
  static bool connects(const sockaddr_un& address, const std::vector<std::uint8_t>& words) {
    const int socket = ::socket(AF_UNIX, SOCK_STREAM, 0);
    return ::connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0 &&
           ::write(socket, words.data(), words.size()) == static_cast<ssize_t>(words.size());
  }

  pid_t process_ = -1;
};

}  // namespace velto::testing
