// The kernel, one wrapper per call. EINTR is dealt with here and nowhere else; sockets, pipes and all the rest are made
// close-on-exec and, where data flows, non-blocking, so that no call of the connection layer can wait for a peer.

#include "platform/xpc/system/SystemCalls.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <malloc.h>
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/timerfd.h>
#include <sys/un.h>
#include <unistd.h>

#include "platform/xpc/system/ProgramMask.h"

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

// Not in the headers of every system that this is built on.
#ifdef SO_PEERPIDFD
constexpr int kPeerProcessOption = SO_PEERPIDFD;
#else
constexpr int kPeerProcessOption = 77;
#endif

constexpr std::size_t kUsualDescriptorLimit = 1024;
constexpr std::uint64_t kNanosecondsPerSecond = 1'000'000'000;

int askForPeer(int socket, ucred& credentials) {
  socklen_t length = sizeof(credentials);
  return ::getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &credentials, &length);
}

SystemCalls& kernel() {
  static SystemCalls& calls = *new SystemCalls;
  return calls;
}

std::atomic<SystemCalls*> replacement{nullptr};

}  // namespace

int SystemCalls::socketStream() {
  return ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
}

int SystemCalls::socketPair(int (&ends)[2]) {
  return ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends);
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
  const int result = askForPeer(socket, credentials);
  if (result == 0) user = credentials.uid;
  return result;
}

int SystemCalls::peerProcess(int socket, pid_t& process) {
  ucred credentials{};
  const int result = askForPeer(socket, credentials);
  if (result == 0) process = credentials.pid;
  return result;
}

int SystemCalls::openPeerProcess(int socket) {
  int process = -1;
  socklen_t length = sizeof(process);
  return ::getsockopt(socket, SOL_SOCKET, kPeerProcessOption, &process, &length) == 0 ? process : -1;
}

int SystemCalls::openProcess(pid_t process) {
  return static_cast<int>(::syscall(SYS_pidfd_open, process, 0));
}

int SystemCalls::isReadable(int descriptor) {
  pollfd asked{descriptor, POLLIN, 0};
  return uninterrupted([&] { return ::poll(&asked, 1, 0); });
}

int SystemCalls::awaitReadable(int descriptor, int other, std::uint64_t nanoseconds) {
  std::array<pollfd, 2> asked{pollfd{descriptor, POLLIN | POLLRDHUP, 0}, pollfd{other, POLLIN, 0}};
  const timespec time{static_cast<time_t>(nanoseconds / kNanosecondsPerSecond),
                      static_cast<long>(nanoseconds % kNanosecondsPerSecond)};
  const int result = ::ppoll(asked.data(), asked.size(), &time, nullptr);
  return result < 0 && errno == EINTR ? 0 : result;
}

int SystemCalls::setSendBuffer(int socket, int bytes) {
  return ::setsockopt(socket, SOL_SOCKET, SO_SNDBUF, &bytes, sizeof bytes);
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

int SystemCalls::closeOnExec(int descriptor) {
  return ::fcntl(descriptor, F_SETFD, FD_CLOEXEC);
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

int SystemCalls::epollLook(int epoll, epoll_event* events, int capacity) {
  return uninterrupted([&] { return ::epoll_wait(epoll, events, capacity, 0); });
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

int SystemCalls::makeMemory() {
  return ::memfd_create("velto", MFD_CLOEXEC | MFD_ALLOW_SEALING);
}

int SystemCalls::addSeals(int memory, int seals) {
  return ::fcntl(memory, F_ADD_SEALS, seals);
}

int SystemCalls::seals(int descriptor) {
  return ::fcntl(descriptor, F_GET_SEALS);
}

// Not repeated on EINTR: Linux has closed the descriptor by then, and the number may be somebody else's.
int SystemCalls::close(int descriptor) {
  return ::close(descriptor);
}

void SystemCalls::yield() {
  sched_yield();
}

int SystemCalls::startThread(void* (*run)(void*), void* argument) {
  // Signals belong to the program's own threads. A new thread inherits the mask.
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  ::pthread_sigmask(SIG_SETMASK, &all, &before);
  keepProgramMask(before);
  pthread_t thread{};
  const int error = ::pthread_create(&thread, nullptr, run, argument);
  if (error == 0) ::pthread_detach(thread);
  ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
  return error;
}

void SystemCalls::giveMemoryBack() {
#ifdef __GLIBC__
  ::malloc_trim(0);
#endif
}

std::size_t SystemCalls::descriptorLimit() {
  rlimit limit{};
  // The kernel has no reason to refuse this, but then the usual limit holds.
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) return kUsualDescriptorLimit;
  return limit.rlim_cur;
}

std::uint64_t SystemCalls::fileSizeLimit() {
  rlimit limit{};
  return ::getrlimit(RLIMIT_FSIZE, &limit) == 0 ? limit.rlim_cur : RLIM_INFINITY;
}

SystemCalls& systemCalls() noexcept {
  SystemCalls* calls = replacement.load(std::memory_order_acquire);
  return calls != nullptr ? *calls : kernel();
}

SystemCalls* replaceSystemCalls(SystemCalls* calls) noexcept {
  return replacement.exchange(calls, std::memory_order_acq_rel);
}

}  // namespace velto::system
