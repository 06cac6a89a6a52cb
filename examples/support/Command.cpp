#include "examples/support/Command.h"

#include <cstdlib>

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

Command::Command(const std::string& line) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) return;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, ends[1], STDERR_FILENO);
  // In a group of its own, and with no signal blocked, whatever is blocked here.
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t none;
  sigemptyset(&none);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK);
  posix_spawnattr_setsigmask(&attributes, &none);
  char shell[] = "/bin/sh";
  char option[] = "-c";
  std::string text = line;
  char* const words[] = {shell, option, text.data(), nullptr};
  if (posix_spawn(&process_, shell, &actions, &attributes, words, environ) != 0) process_ = -1;
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&actions);
  close(ends[1]);
  output_ = fdopen(ends[0], "r");
}

Command::~Command() {
  kill();
  wait();
  if (output_ != nullptr) std::fclose(output_);
}

std::optional<std::string> Command::readLine() {
  if (output_ == nullptr) return std::nullopt;
  char* bytes = nullptr;
  std::size_t room = 0;
  const ssize_t length = getline(&bytes, &room, output_);
  std::optional<std::string> line;
  if (length > 0) line.emplace(bytes, static_cast<std::size_t>(length - (bytes[length - 1] == '\n' ? 1 : 0)));
  std::free(bytes);
  return line;
}

void Command::kill() {
  const std::lock_guard lock(mutex_);
  if (process_ > 0) ::kill(-process_, SIGKILL);
}

int Command::wait() {
  if (process_ <= 0) return 127;
  siginfo_t ended{};
  // Its number stays taken until nobody can kill it any more.
  while (waitid(P_PID, static_cast<id_t>(process_), &ended, WEXITED | WNOWAIT) != 0) continue;
  const std::lock_guard lock(mutex_);
  waitpid(process_, nullptr, 0);
  process_ = -1;
  return ended.si_code == CLD_EXITED ? ended.si_status : 128 + ended.si_status;
}
