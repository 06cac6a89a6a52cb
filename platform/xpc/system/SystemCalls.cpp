// The kernel, one wrapper per call. EINTR is dealt with here and nowhere else; sockets, pipes and all the rest are made
// close-on-exec and, where data flows, non-blocking, so that no call of the connection layer can wait for a peer.

#include "platform/xpc/system/SystemCalls.h"

#include <atomic>
#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/timerfd.h>
#include <sys/un.h>
#include <unistd.h>

namespace velto::system {

namespace {

template <class Call>
auto uninterrupted(Call call) {
  auto result = call();
  while (result < 0 && errno == EINTR) result = call();
  return result;
}

// False, and ENAMETOOLONG, when the path has no room in an address.
bool fillAddress(const char* path, sockaddr_un& address) {
  address = {};
  address.sun_family = AF_UNIX;
  if (std::strlen(path) >= sizeof(address.sun_path)) {
    errno = ENAMETOOLONG;
    return false;
  }
  std::strcpy(address.sun_path, path);
  return true;
}

constexpr std::uint64_t kNanosecondsPerSecond = 1'000'000'000;

SystemCalls& kernel() {
  static SystemCalls& calls = *new SystemCalls;
  return calls;
}

std::atomic<SystemCalls*> replacement{nullptr};

}  // namespace

int SystemCalls::socketStream() {
  return ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
}

int SystemCalls::bind(int socket, const char* path) {
  sockaddr_un address;
  if (!fillAddress(path, address)) return -1;
  return ::bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
}

int SystemCalls::connect(int socket, const char* path) {
  sockaddr_un address;
  if (!fillAddress(path, address)) return -1;
  return uninterrupted([&] { return ::connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof(address)); });
}

int SystemCalls::listen(int socket, int backlog) {
  return ::listen(socket, backlog);
}

int SystemCalls::accept(int socket) {
  return uninterrupted([&] { return ::accept4(socket, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK); });
}

int SystemCalls::shutdown(int socket) {
  return ::shutdown(socket, SHUT_RDWR);
}

int SystemCalls::peerUser(int socket, uid_t& user) {
  ucred credentials{};
  socklen_t length = sizeof(credentials);
  const int result = ::getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &credentials, &length);
  if (result == 0) user = credentials.uid;
  return result;
}

ssize_t SystemCalls::sendMessage(int socket, const msghdr& message) {
  return uninterrupted([&] { return ::sendmsg(socket, &message, MSG_NOSIGNAL | MSG_DONTWAIT); });
}

ssize_t SystemCalls::receiveMessage(int socket, msghdr& message) {
  return uninterrupted([&] { return ::recvmsg(socket, &message, MSG_CMSG_CLOEXEC | MSG_DONTWAIT); });
}

int SystemCalls::openAt(int directory, const char* name, int flags) {
  return uninterrupted([&] { return ::openat(directory, name, flags | O_CLOEXEC); });
}

int SystemCalls::makeDirectory(const char* path, mode_t mode) {
  return ::mkdir(path, mode);
}

int SystemCalls::unlinkAt(int directory, const char* name) {
  return ::unlinkat(directory, name, 0);
}

int SystemCalls::renameAt(int directory, const char* from, const char* to) {
  return ::renameat(directory, from, directory, to);
}

int SystemCalls::changeMode(const char* path, mode_t mode) {
  return ::chmod(path, mode);
}

int SystemCalls::lockDirectory(int directory) {
  return ::flock(directory, LOCK_EX | LOCK_NB);
}

int SystemCalls::status(int descriptor, struct stat& result) {
  return ::fstat(descriptor, &result);
}

int SystemCalls::statusFlags(int descriptor) {
  return ::fcntl(descriptor, F_GETFL);
}

int SystemCalls::pipe(int (&ends)[2]) {
  return ::pipe2(ends, O_CLOEXEC | O_NONBLOCK);
}

int SystemCalls::duplicate(int descriptor) {
  return ::fcntl(descriptor, F_DUPFD_CLOEXEC, 0);
}

int SystemCalls::epollCreate() {
  return ::epoll_create1(EPOLL_CLOEXEC);
}

int SystemCalls::epollControl(int epoll, int operation, int descriptor, epoll_event& event) {
  return ::epoll_ctl(epoll, operation, descriptor, &event);
}

int SystemCalls::epollWait(int epoll, epoll_event* events, int capacity) {
  return uninterrupted([&] { return ::epoll_wait(epoll, events, capacity, -1); });
}

int SystemCalls::eventCounter() {
  return ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
}

int SystemCalls::timer() {
  return ::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK);
}

int SystemCalls::setTimer(int timer, std::uint64_t nanoseconds) {
  itimerspec setting{};
  setting.it_value.tv_sec = static_cast<time_t>(nanoseconds / kNanosecondsPerSecond);
  setting.it_value.tv_nsec = static_cast<long>(nanoseconds % kNanosecondsPerSecond);
  return ::timerfd_settime(timer, 0, &setting, nullptr);
}

ssize_t SystemCalls::read(int descriptor, void* bytes, std::size_t length) {
  return uninterrupted([&] { return ::read(descriptor, bytes, length); });
}

ssize_t SystemCalls::write(int descriptor, const void* bytes, std::size_t length) {
  return uninterrupted([&] { return ::write(descriptor, bytes, length); });
}

// Not repeated on EINTR: Linux has closed the descriptor by then, and the number may be somebody else's.
int SystemCalls::close(int descriptor) {
  return ::close(descriptor);
}

SystemCalls& systemCalls() noexcept {
  SystemCalls* calls = replacement.load(std::memory_order_acquire);
  return calls != nullptr ? *calls : kernel();
}

SystemCalls* replaceSystemCalls(SystemCalls* calls) noexcept {
  return replacement.exchange(calls, std::memory_order_acq_rel);
}

}  // namespace velto::system
