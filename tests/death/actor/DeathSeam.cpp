// The lock is held while the kernel works: none of these calls blocks, and whoever dies holds it for good.

#include "tests/death/actor/DeathSeam.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>

#include <signal.h>
#include <unistd.h>

namespace velto::testing {

namespace {

// The first `count` bytes of what a message's vectors describe.
std::string bytesOf(const msghdr& message, std::size_t count) {
  std::string bytes;
  for (std::size_t index = 0; index < message.msg_iovlen && bytes.size() < count; ++index) {
    const iovec& vector = message.msg_iov[index];
    bytes.append(static_cast<const char*>(vector.iov_base), std::min(vector.iov_len, count - bytes.size()));
  }
  return bytes;
}

std::size_t sizeOf(const msghdr& message) {
  std::size_t size = 0;
  for (std::size_t index = 0; index < message.msg_iovlen; ++index) size += message.msg_iov[index].iov_len;
  return size;
}

std::string joined(const std::vector<std::string>& words) {
  std::string all;
  for (const std::string& word : words) all += " " + word;
  return all;
}

}  // namespace

DeathSeam::DeathSeam(const DeathPlan& plan) : plan_(plan) {
  system::replaceSystemCalls(this);
}

DeathSeam::~DeathSeam() {
  system::replaceSystemCalls(nullptr);
}

void DeathSeam::arm() {
  MutexLock lock(mutex_);
  armed_ = true;
}

std::string DeathSeam::steps() const {
  MutexLock lock(mutex_);
  return "steps" + joined(steps_);
}

std::string DeathSeam::words() const {
  MutexLock lock(mutex_);
  return describe("alive");
}

bool DeathSeam::isIdle() const {
  std::size_t workers = 0;
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
    std::string name;
    std::getline(std::ifstream(task.path() / "comm"), name);
    if (name == "velto-worker") ++workers;
  }
  return workers == waiting_;
}

int DeathSeam::epollWait(int epoll, epoll_event* events, int capacity) {
  ++waiting_;
  const int result = SystemCalls::epollWait(epoll, events, capacity);
  const int error = errno;
  --waiting_;
  errno = error;
  return result;
}

int DeathSeam::connect(int socket, const char* path) {
  MutexLock lock(mutex_);
  const bool due = begin("connect");
  const int result = SystemCalls::connect(socket, path);
  if (result == 0) addStream(socket);
  end(due);
  return result;
}

int DeathSeam::accept(int socket) {
  MutexLock lock(mutex_);
  const bool due = begin("accept");
  const int result = SystemCalls::accept(socket);
  if (result >= 0) addStream(result);
  end(due);
  return result;
}

ssize_t DeathSeam::sendMessage(int socket, const msghdr& message) {
  MutexLock lock(mutex_);
  const bool due = begin("sendMessage");
  const bool half = due && plan_.moment == DeathPlan::Moment::during;
  const std::size_t count = half ? sizeOf(message) / 2 : sizeOf(message);
  std::string bytes = bytesOf(message, count);
  iovec whole{bytes.data(), bytes.size()};
  msghdr sent = message;
  sent.msg_iov = &whole;
  sent.msg_iovlen = 1;
  const ssize_t result = SystemCalls::sendMessage(socket, sent);
  Stream* const stream = streamOf(socket);
  if (result > 0 && stream != nullptr) stream->said.passed(bytes.substr(0, static_cast<std::size_t>(result)));
  end(due);
  return result;
}

ssize_t DeathSeam::receiveMessage(int socket, msghdr& message) {
  MutexLock lock(mutex_);
  const bool due = begin("receiveMessage");
  const ssize_t result = SystemCalls::receiveMessage(socket, message);
  Stream* const stream = streamOf(socket);
  if (result > 0 && stream != nullptr) stream->heard.passed(bytesOf(message, static_cast<std::size_t>(result)));
  end(due);
  return result;
}

int DeathSeam::close(int descriptor) {
  MutexLock lock(mutex_);
  const bool due = begin("close");
  open_.erase(descriptor);
  const int result = SystemCalls::close(descriptor);
  end(due);
  return result;
}

bool DeathSeam::begin(const char* call) {
  if (!armed_) return false;
  steps_.emplace_back(call);
  const bool due = plan_.way != DeathPlan::Way::none && steps_.size() == plan_.step;
  if (due && plan_.moment == DeathPlan::Moment::before) die();
  return due;
}

void DeathSeam::end(bool due) {
  if (due && plan_.moment != DeathPlan::Moment::before) die();
}

void DeathSeam::die() {
  const int error = errno;
  const std::string line = describe("dying at " + std::to_string(steps_.size()) + " " + steps_.back()) + "\n";
  if (::write(STDOUT_FILENO, line.data(), line.size()) < 0) ::_exit(1);
  // To this very thread: it goes no further. Sent to the process, another thread might take it a moment later.
  ::raise(plan_.way == DeathPlan::Way::kill ? SIGKILL : SIGSTOP);
  errno = error;
}

void DeathSeam::addStream(int socket) {
  streams_.push_back(std::make_shared<Stream>());
  open_[socket] = streams_.back();
}

DeathSeam::Stream* DeathSeam::streamOf(int socket) {
  const auto found = open_.find(socket);
  return found != open_.end() ? found->second.get() : nullptr;
}

std::string DeathSeam::describe(const std::string& state) const {
  std::size_t partial = 0;
  std::string streams;
  for (const auto& stream : streams_) {
    if (stream->said.hasPartialFrame()) ++partial;
    streams += "; said" + joined(stream->said.names()) + " heard" + joined(stream->heard.names());
  }
  return state + "; " + std::to_string(partial) + streams;
}

}  // namespace velto::testing
