// Child processes of the tests: spawned, never forked, since a test has threads.

#include "tests/support/ChildProcess.h"

#include <cerrno>
#include <cstring>
#include <utility>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace velto::testing {

namespace {

pid_t spawn(const std::vector<std::string>& command, int input, int output, ChildProcess::Errors errors) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, input, STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
  if (errors == ChildProcess::Errors::joinOutput) {
    posix_spawn_file_actions_adddup2(&actions, output, STDERR_FILENO);
  }
  std::vector<char*> arguments;
  for (const std::string& word : command) arguments.push_back(const_cast<char*>(word.c_str()));
  arguments.push_back(nullptr);
  pid_t process = -1;
  const int error = posix_spawn(&process, arguments[0], &actions, nullptr, arguments.data(), environ);
  if (error != 0) ADD_FAILURE() << command[0] << " cannot be started: " << std::strerror(error);
  posix_spawn_file_actions_destroy(&actions);
  return error == 0 ? process : -1;
}

}  // namespace

ChildProcess::ChildProcess(const std::vector<std::string>& command, Errors errors) {
  // A child that has died is found out by the result of a write, not by a signal.
  ::signal(SIGPIPE, SIG_IGN);
  int toChild[2];
  int fromChild[2];
  if (pipe2(toChild, O_CLOEXEC) != 0 || pipe2(fromChild, O_CLOEXEC) != 0) giveUp("no pipe can be made");
  process_ = spawn(command, toChild[0], fromChild[1], errors);
  close(toChild[0]);
  close(fromChild[1]);
  input_ = toChild[1];
  output_ = fromChild[0];
}

ChildProcess::~ChildProcess() {
  signal(SIGKILL);
  wait();
  closeInput();
  close(output_);
}

std::optional<std::string> ChildProcess::readLine() {
  for (;;) {
    const std::size_t end = pending_.find('\n');
    if (end != std::string::npos) {
      std::string line = pending_.substr(0, end);
      pending_.erase(0, end + 1);
      return line;
    }
    pollfd waiting{output_, POLLIN, 0};
    // Twice the bound: the child itself may wait for something that long, and say so afterwards.
    const int ready = poll(&waiting, 1, static_cast<int>(std::chrono::milliseconds(2 * kBound).count()));
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0) {
      ADD_FAILURE() << "the child process says nothing";
      return std::nullopt;
    }
    char bytes[4096];
    const ssize_t count = read(output_, bytes, sizeof bytes);
    if (count <= 0) return std::nullopt;
    pending_.append(bytes, static_cast<std::size_t>(count));
  }
}

bool ChildProcess::writeLine(const std::string& line) {
  const std::string text = line + "\n";
  return write(input_, text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

void ChildProcess::closeInput() {
  if (input_ >= 0) close(std::exchange(input_, -1));
}

void ChildProcess::signal(int number) {
  if (process_ > 0) kill(process_, number);
}

int ChildProcess::wait() {
  if (process_ <= 0) return 0;
  int status = 0;
  const pid_t process = process_;
  const bool ended = eventually([&] {
    const pid_t reaped = waitpid(process, &status, WNOHANG);
    return reaped == process || (reaped < 0 && errno != EINTR);
  });
  if (!ended) {
    ADD_FAILURE() << "the child process does not end";
    kill(process, SIGKILL);
    waitpid(process, &status, 0);
  }
  process_ = -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

}  // namespace velto::testing
