#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <string>

#include "platform/xpc/system/SystemCalls.h"

namespace velto::testing {

// The system calls of the seam, by name.
enum class SystemCall {
  socketStream,
  bind,
  connect,
  listen,
  accept,
  shutdown,
  peerUser,
  peerProcess,
  openPeerProcess,
  openProcess,
  isReadable,
  awaitReadable,
  sendMessage,
  receiveMessage,
  openAt,
  makeDirectory,
  unlinkAt,
  renameAt,
  changeMode,
  lockDirectory,
  status,
  statusFlags,
  pipe,
  duplicate,
  epollCreate,
  epollControl,
  epollWait,
  epollLook,
  eventCounter,
  timer,
  setTimer,
  read,
  write,
  close,
};
inline constexpr std::size_t kSystemCallCount = static_cast<std::size_t>(SystemCall::close) + 1;

std::string nameOf(SystemCall call);
std::optional<SystemCall> systemCallNamed(const std::string& name);

// What becomes of a call: it goes to the kernel as it is, it goes there with fewer bytes, or it fails without going
// there.
struct Verdict {
  int error = 0;
  std::optional<std::size_t> bytes;

  static Verdict pass() { return {}; }
  static Verdict fail(int error) { return {.error = error, .bytes = {}}; }
  // For sendMessage, receiveMessage, read and write: at most so many bytes.
  static Verdict atMost(std::size_t bytes) { return {.error = 0, .bytes = bytes}; }
};

// In the kernel's place for as long as it lives: every call is judged by the script, on the thread that makes it and
// before it is made; what passes goes to the kernel. A close that fails has closed its descriptor nevertheless, as the
// kernel does it. The script is called by several threads at once.
//
// One at a time, made while no other thread is inside a system call that it should judge.
class ScriptedSystemCalls final : public system::SystemCalls {
 public:
  // `descriptor` is the call's first one, -1 for calls that have none.
  using Script = std::function<Verdict(SystemCall call, int descriptor)>;

  explicit ScriptedSystemCalls(Script script);
  ~ScriptedSystemCalls() override;

  int socketStream() override;
  int bind(int socket, const char* path) override;
  int connect(int socket, const char* path) override;
  int listen(int socket, int backlog) override;
  int accept(int socket) override;
  int shutdown(int socket) override;
  int peerUser(int socket, uid_t& user) override;
  int peerProcess(int socket, pid_t& process) override;
  int openPeerProcess(int socket) override;
  int openProcess(pid_t process) override;
  int isReadable(int descriptor) override;
  int awaitReadable(int descriptor, int other, std::uint64_t nanoseconds) override;
  ssize_t sendMessage(int socket, const msghdr& message) override;
  ssize_t receiveMessage(int socket, msghdr& message) override;
  int openAt(int directory, const char* name, int flags) override;
  int makeDirectory(const char* path, mode_t mode) override;
  int unlinkAt(int directory, const char* name) override;
  int renameAt(int directory, const char* from, const char* to) override;
  int changeMode(const char* path, mode_t mode) override;
  int lockDirectory(int directory) override;
  int status(int descriptor, struct stat& result) override;
  int statusFlags(int descriptor) override;
  int pipe(int (&ends)[2]) override;
  int duplicate(int descriptor) override;
  int epollCreate() override;
  int epollControl(int epoll, int operation, int descriptor, epoll_event& event) override;
  int epollWait(int epoll, epoll_event* events, int capacity) override;
  int epollLook(int epoll, epoll_event* events, int capacity) override;
  int eventCounter() override;
  int timer() override;
  int setTimer(int timer, std::uint64_t nanoseconds) override;
  ssize_t read(int descriptor, void* bytes, std::size_t length) override;
  ssize_t write(int descriptor, const void* bytes, std::size_t length) override;
  int close(int descriptor) override;

 private:
  // Whether the call goes to the kernel; if not, errno is set.
  bool passes(SystemCall call, int descriptor = -1);

  const Script script_;
};

}  // namespace velto::testing
