// The sink that a program has before it sets one of its own: a line to standard error, written at once so that the
// lines of several threads and processes do not mix, and never at the price of the process.
#include <algorithm>
#include <cerrno>
#include <csignal>
#include <ctime>
#include <string>

#include <unistd.h>

#include "platform/logging/LogSink.h"

namespace velto {
namespace {

// Bytes of a text that are shown: texts may hold what a peer has sent.
constexpr std::size_t kMaximumTextBytes = std::size_t{16} * 1024;

// Keeps a broken pipe from killing the process: the signal is blocked on this thread, and taken away if it came.
class BrokenPipeGuard {
 public:
  BrokenPipeGuard() {
    sigemptyset(&brokenPipe_);
    sigaddset(&brokenPipe_, SIGPIPE);
    sigset_t pending;
    sigpending(&pending);
    wasPending_ = sigismember(&pending, SIGPIPE) == 1;
    pthread_sigmask(SIG_BLOCK, &brokenPipe_, &former_);
  }
  ~BrokenPipeGuard() {
    const timespec noWait{};
    if (!wasPending_) sigtimedwait(&brokenPipe_, nullptr, &noWait);
    pthread_sigmask(SIG_SETMASK, &former_, nullptr);
  }
  BrokenPipeGuard(const BrokenPipeGuard&) = delete;
  BrokenPipeGuard& operator=(const BrokenPipeGuard&) = delete;

 private:
  sigset_t brokenPipe_{};
  sigset_t former_{};
  bool wasPending_ = false;
};

bool isControl(char character) {
  const auto code = static_cast<unsigned char>(character);
  return code < 0x20 || code == 0x7f;
}

}  // namespace

void writeToStandardError(const VKTLogAnchor&, int, const NSString& text) {
  std::string line = "VeltoIPC: ";
  line += text.view().substr(0, kMaximumTextBytes);
  // A text must not be able to fake further lines, nor to steer a terminal.
  std::replace_if(line.begin(), line.end(), isControl, ' ');
  line += '\n';
  const int formerError = errno;
  const BrokenPipeGuard guard;
  while (write(STDERR_FILENO, line.data(), line.size()) < 0 && errno == EINTR) {
  }
  errno = formerError;
}

}  // namespace velto
