// One write for each kind of descriptor that standard error can be. That a write must not wait can be said in it
// (sockets, newer pipes), or to an open file description; where neither is to be had, the room is asked for first.
#include "platform/logging/WriteWithoutWaiting.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

namespace velto {
namespace {

template <class Write>
std::size_t taken(Write write) noexcept {
  ssize_t length;
  do {
    length = write();
  } while (length < 0 && errno == EINTR);
  return length < 0 ? 0 : static_cast<std::size_t>(length);
}

// What was not taken although nothing is wrong did not fit.
std::size_t withReason(std::size_t written, std::string_view bytes) noexcept {
  if (written > 0 && written < bytes.size()) errno = EAGAIN;
  return written;
}

std::size_t writeAtOnce(int descriptor, std::string_view bytes) noexcept {
  return withReason(taken([&] { return ::write(descriptor, bytes.data(), bytes.size()); }), bytes);
}

std::size_t sendAtOnce(int descriptor, std::string_view bytes) noexcept {
  constexpr int kFlags = MSG_DONTWAIT | MSG_NOSIGNAL;
  return withReason(taken([&] { return send(descriptor, bytes.data(), bytes.size(), kFlags); }), bytes);
}

bool hasRoom(int descriptor) noexcept {
  pollfd watched{descriptor, POLLOUT, 0};
  // An error is for the write to report.
  return poll(&watched, 1, 0) == 1 && (watched.revents & POLLNVAL) == 0;
}

}  // namespace

std::size_t writeMarkedNotToWait(int descriptor, std::string_view bytes) noexcept {
  iovec piece{const_cast<char*>(bytes.data()), bytes.size()};
  constexpr off_t kNowhere = -1;
  const std::size_t written = taken([&] { return pwritev2(descriptor, &piece, 1, kNowhere, RWF_NOWAIT); });
  // Kernels and filters that know nothing of it have several words for that.
  if (written == 0 && (errno == ENOSYS || errno == EINVAL || errno == EPERM)) errno = EOPNOTSUPP;
  return withReason(written, bytes);
}

std::size_t writeReopened(int descriptor, std::string_view bytes) noexcept {
  char path[64];
  std::snprintf(path, sizeof path, "/proc/thread-self/fd/%d", descriptor);
  const int own = open(path, O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
  if (own < 0) {
    // ENXIO: a pipe that nobody reads from any more.
    errno = errno == ENXIO ? EPIPE : EOPNOTSUPP;
    return 0;
  }
  const std::size_t written = writeAtOnce(own, bytes);
  const int reason = errno;
  close(own);
  errno = reason;
  return written;
}

std::size_t writeWhileThereIsRoom(int descriptor, std::string_view bytes) noexcept {
  // A pipe that is said to have room takes so much; a terminal may have room for one byte only.
  const std::size_t piece = isatty(descriptor) != 0 ? 1 : PIPE_BUF;
  std::size_t written = 0;
  while (written < bytes.size()) {
    if (!hasRoom(descriptor)) {
      errno = EAGAIN;
      break;
    }
    const std::size_t now = writeAtOnce(descriptor, bytes.substr(written, piece));
    if (now == 0) break;
    written += now;
  }
  return written;
}

std::size_t writeWithoutWaiting(int descriptor, std::string_view bytes) noexcept {
  struct stat status {};
  if (fstat(descriptor, &status) != 0) return 0;
  if (S_ISSOCK(status.st_mode)) return sendAtOnce(descriptor, bytes);
  if (S_ISREG(status.st_mode)) return writeAtOnce(descriptor, bytes);
  const bool isPipe = S_ISFIFO(status.st_mode);
  if (isPipe) {
    const std::size_t written = writeMarkedNotToWait(descriptor, bytes);
    if (written > 0 || errno != EOPNOTSUPP) return written;
  }
  if (isPipe || isatty(descriptor) != 0) {
    const std::size_t written = writeReopened(descriptor, bytes);
    if (written > 0 || errno != EOPNOTSUPP) return written;
  }
  return writeWhileThereIsRoom(descriptor, bytes);
}

}  // namespace velto
