// The seam with a script in it. Short transfers are made by handing the kernel fewer bytes, so that what the kernel
// then says, descriptors included, is its own.

#include "tests/support/ScriptedSystemCalls.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <vector>

namespace velto::testing {

namespace {

constexpr std::array<const char*, kSystemCallCount> kNames = {
    "socketStream", "bind",           "connect",         "listen",        "accept",       "shutdown",
    "peerUser",     "peerProcess",    "openPeerProcess", "openProcess",   "isReadable",   "awaitReadable",
    "sendMessage",  "receiveMessage", "openAt",          "makeDirectory", "unlinkAt",     "renameAt",
    "changeMode",   "lockDirectory",  "status",          "statusFlags",   "pipe",         "duplicate",
    "epollCreate",  "epollControl",   "epollWait",       "epollLook",     "eventCounter", "timer",
    "setTimer",     "read",           "write",           "close"};

// The first `bytes` bytes of what a message's vectors describe.
std::vector<iovec> shortened(const msghdr& message, std::size_t bytes) {
  std::vector<iovec> vectors(message.msg_iov, message.msg_iov + message.msg_iovlen);
  for (iovec& vector : vectors) {
    vector.iov_len = std::min(vector.iov_len, bytes);
    bytes -= vector.iov_len;
  }
  return vectors;
}

}  // namespace

std::string nameOf(SystemCall call) {
  return kNames.at(static_cast<std::size_t>(call));
}

std::optional<SystemCall> systemCallNamed(const std::string& name) {
  const auto found = std::find(kNames.begin(), kNames.end(), name);
  if (found == kNames.end()) return std::nullopt;
  return static_cast<SystemCall>(found - kNames.begin());
}

ScriptedSystemCalls::ScriptedSystemCalls(Script script) : script_(std::move(script)) {
  system::replaceSystemCalls(this);
}

ScriptedSystemCalls::~ScriptedSystemCalls() {
  system::replaceSystemCalls(nullptr);
}

bool ScriptedSystemCalls::passes(SystemCall call, int descriptor) {
  const Verdict verdict = script_(call, descriptor);
  if (verdict.error != 0) errno = verdict.error;
  return verdict.error == 0;
}

ssize_t ScriptedSystemCalls::sendMessage(int socket, const msghdr& message) {
  const Verdict verdict = script_(SystemCall::sendMessage, socket);
  if (verdict.error != 0) return errno = verdict.error, -1;
  if (!verdict.bytes) return SystemCalls::sendMessage(socket, message);
  auto vectors = shortened(message, *verdict.bytes);
  msghdr part = message;
  part.msg_iov = vectors.data();
  return SystemCalls::sendMessage(socket, part);
}

ssize_t ScriptedSystemCalls::receiveMessage(int socket, msghdr& message) {
  const Verdict verdict = script_(SystemCall::receiveMessage, socket);
  if (verdict.error != 0) return errno = verdict.error, -1;
  if (!verdict.bytes) return SystemCalls::receiveMessage(socket, message);
  auto vectors = shortened(message, *verdict.bytes);
  iovec* const whole = message.msg_iov;
  message.msg_iov = vectors.data();
  const ssize_t result = SystemCalls::receiveMessage(socket, message);
  message.msg_iov = whole;
  return result;
}

ssize_t ScriptedSystemCalls::read(int descriptor, void* bytes, std::size_t length) {
  const Verdict verdict = script_(SystemCall::read, descriptor);
  if (verdict.error != 0) return errno = verdict.error, -1;
  return SystemCalls::read(descriptor, bytes, std::min(length, verdict.bytes.value_or(length)));
}

ssize_t ScriptedSystemCalls::write(int descriptor, const void* bytes, std::size_t length) {
  const Verdict verdict = script_(SystemCall::write, descriptor);
  if (verdict.error != 0) return errno = verdict.error, -1;
  return SystemCalls::write(descriptor, bytes, std::min(length, verdict.bytes.value_or(length)));
}

int ScriptedSystemCalls::close(int descriptor) {
  const bool isPassed = passes(SystemCall::close, descriptor);
  const int error = errno;
  const int result = SystemCalls::close(descriptor);
  if (isPassed) return result;
  errno = error;
  return -1;
}

int ScriptedSystemCalls::socketStream() {
  return passes(SystemCall::socketStream) ? SystemCalls::socketStream() : -1;
}

int ScriptedSystemCalls::bind(int socket, const char* path) {
  return passes(SystemCall::bind, socket) ? SystemCalls::bind(socket, path) : -1;
}

int ScriptedSystemCalls::connect(int socket, const char* path) {
  return passes(SystemCall::connect, socket) ? SystemCalls::connect(socket, path) : -1;
}

int ScriptedSystemCalls::listen(int socket, int backlog) {
  return passes(SystemCall::listen, socket) ? SystemCalls::listen(socket, backlog) : -1;
}

int ScriptedSystemCalls::accept(int socket) {
  return passes(SystemCall::accept, socket) ? SystemCalls::accept(socket) : -1;
}

int ScriptedSystemCalls::shutdown(int socket) {
  return passes(SystemCall::shutdown, socket) ? SystemCalls::shutdown(socket) : -1;
}

int ScriptedSystemCalls::peerUser(int socket, uid_t& user) {
  return passes(SystemCall::peerUser, socket) ? SystemCalls::peerUser(socket, user) : -1;
}

int ScriptedSystemCalls::peerProcess(int socket, pid_t& process) {
  return passes(SystemCall::peerProcess, socket) ? SystemCalls::peerProcess(socket, process) : -1;
}

int ScriptedSystemCalls::openPeerProcess(int socket) {
  return passes(SystemCall::openPeerProcess, socket) ? SystemCalls::openPeerProcess(socket) : -1;
}

int ScriptedSystemCalls::openProcess(pid_t process) {
  return passes(SystemCall::openProcess) ? SystemCalls::openProcess(process) : -1;
}

int ScriptedSystemCalls::isReadable(int descriptor) {
  return passes(SystemCall::isReadable, descriptor) ? SystemCalls::isReadable(descriptor) : -1;
}

int ScriptedSystemCalls::awaitReadable(int descriptor, int other, std::uint64_t nanoseconds) {
  return passes(SystemCall::awaitReadable, descriptor) ? SystemCalls::awaitReadable(descriptor, other, nanoseconds)
                                                       : -1;
}

int ScriptedSystemCalls::openAt(int directory, const char* name, int flags) {
  return passes(SystemCall::openAt, directory) ? SystemCalls::openAt(directory, name, flags) : -1;
}

int ScriptedSystemCalls::makeDirectory(const char* path, mode_t mode) {
  return passes(SystemCall::makeDirectory) ? SystemCalls::makeDirectory(path, mode) : -1;
}

int ScriptedSystemCalls::unlinkAt(int directory, const char* name) {
  return passes(SystemCall::unlinkAt, directory) ? SystemCalls::unlinkAt(directory, name) : -1;
}

int ScriptedSystemCalls::renameAt(int directory, const char* from, const char* to) {
  return passes(SystemCall::renameAt, directory) ? SystemCalls::renameAt(directory, from, to) : -1;
}

int ScriptedSystemCalls::changeMode(const char* path, mode_t mode) {
  return passes(SystemCall::changeMode) ? SystemCalls::changeMode(path, mode) : -1;
}

int ScriptedSystemCalls::lockDirectory(int directory) {
  return passes(SystemCall::lockDirectory, directory) ? SystemCalls::lockDirectory(directory) : -1;
}

int ScriptedSystemCalls::status(int descriptor, struct stat& result) {
  return passes(SystemCall::status, descriptor) ? SystemCalls::status(descriptor, result) : -1;
}

int ScriptedSystemCalls::statusFlags(int descriptor) {
  return passes(SystemCall::statusFlags, descriptor) ? SystemCalls::statusFlags(descriptor) : -1;
}

int ScriptedSystemCalls::pipe(int (&ends)[2]) {
  return passes(SystemCall::pipe) ? SystemCalls::pipe(ends) : -1;
}

int ScriptedSystemCalls::duplicate(int descriptor) {
  return passes(SystemCall::duplicate, descriptor) ? SystemCalls::duplicate(descriptor) : -1;
}

int ScriptedSystemCalls::epollCreate() {
  return passes(SystemCall::epollCreate) ? SystemCalls::epollCreate() : -1;
}

int ScriptedSystemCalls::epollControl(int epoll, int operation, int descriptor, epoll_event& event) {
  return passes(SystemCall::epollControl, epoll) ? SystemCalls::epollControl(epoll, operation, descriptor, event) : -1;
}

int ScriptedSystemCalls::epollWait(int epoll, epoll_event* events, int capacity) {
  return passes(SystemCall::epollWait, epoll) ? SystemCalls::epollWait(epoll, events, capacity) : -1;
}

int ScriptedSystemCalls::epollLook(int epoll, epoll_event* events, int capacity) {
  return passes(SystemCall::epollLook, epoll) ? SystemCalls::epollLook(epoll, events, capacity) : -1;
}

int ScriptedSystemCalls::eventCounter() {
  return passes(SystemCall::eventCounter) ? SystemCalls::eventCounter() : -1;
}

int ScriptedSystemCalls::timer() {
  return passes(SystemCall::timer) ? SystemCalls::timer() : -1;
}

int ScriptedSystemCalls::setTimer(int timer, std::uint64_t nanoseconds) {
  return passes(SystemCall::setTimer, timer) ? SystemCalls::setTimer(timer, nanoseconds) : -1;
}

}  // namespace velto::testing
