#include "tools/veltoctl/Answering.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <optional>

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "platform/foundation/JSON.h"
#include "platform/xpc/system/Descriptor.h"
#include "tools/veltoctl/Context.h"
#include "tools/veltoctl/ExitCode.h"

namespace velto::ctl {
namespace {

// More than any message can be that travels.
constexpr std::size_t kMostOutputBytes = std::size_t{64} << 20;

struct Pipe {
  Pipe() {
    std::array<int, 2> ends{-1, -1};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) throw CommandError(ExitCode::failure, std::strerror(errno));
    read = system::Descriptor(ends[0]);
    write = system::Descriptor(ends[1]);
  }
  system::Descriptor read;
  system::Descriptor write;
};

pid_t start(const std::string& command, const Pipe& input, const Pipe& output) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, input.read.get(), STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, output.write.get(), STDOUT_FILENO);
  // Threads of the platform block signals, and this program ignores one: not so the command.
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t none, all;
  sigemptyset(&none);
  sigfillset(&all);
  posix_spawnattr_setsigmask(&attributes, &none);
  posix_spawnattr_setsigdefault(&attributes, &all);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  std::array<std::string, 3> words{"sh", "-c", command};
  std::array<char*, 4> arguments{words[0].data(), words[1].data(), words[2].data(), nullptr};
  pid_t process = -1;
  const int error = posix_spawn(&process, "/bin/sh", &actions, &attributes, arguments.data(), environ);
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&actions);
  if (error != 0) throw CommandError(ExitCode::failure, std::string("/bin/sh: ") + std::strerror(error));
  return process;
}

// Writes and reads side by side: the command may do so, too.
std::string exchange(std::string_view text, Pipe& input, Pipe& output) {
  std::string answer;
  input.read.reset();
  output.write.reset();
  fcntl(input.write.get(), F_SETFL, O_NONBLOCK);
  std::array<char, 65536> room{};
  for (;;) {
    if (text.empty()) input.write.reset();
    std::array<pollfd, 2> ends{{{output.read.get(), POLLIN, 0}, {input.write.get(), POLLOUT, 0}}};
    if (::poll(ends.data(), ends.size(), -1) < 0 && errno != EINTR) break;
    if ((ends[1].revents & POLLOUT) != 0) {
      const ssize_t written = ::write(input.write.get(), text.data(), text.size());
      if (written > 0) text.remove_prefix(static_cast<std::size_t>(written));
      if (written < 0 && errno != EAGAIN && errno != EINTR) text = {};
    } else if ((ends[1].revents & (POLLERR | POLLHUP)) != 0) {
      text = {};
    }
    if (ends[0].revents == 0) continue;
    const ssize_t count = ::read(output.read.get(), room.data(), room.size());
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) break;
    answer.append(room.data(), static_cast<std::size_t>(count));
    if (answer.size() > kMostOutputBytes) throw CommandError(ExitCode::failure, "the command writes too much");
  }
  return answer;
}

std::string run(const std::string& command, const std::string& text) {
  Pipe input, output;
  const pid_t process = start(command, input, output);
  std::optional<CommandError> failure;
  std::string answer;
  try {
    answer = exchange(text, input, output);
  } catch (const CommandError& error) {
    failure = error;
    ::kill(process, SIGKILL);
  }
  int status = 0;
  while (::waitpid(process, &status, 0) < 0 && errno == EINTR) {
  }
  if (failure) throw *failure;
  if (WIFSIGNALED(status)) {
    throw CommandError(ExitCode::failure, "the command was ended by signal " + std::to_string(WTERMSIG(status)));
  }
  if (WEXITSTATUS(status) != 0) {
    throw CommandError(ExitCode::failure, "the command ended with " + std::to_string(WEXITSTATUS(status)));
  }
  return answer;
}

}  // namespace

void answerByCommand(const std::string& command, const Request& request) {
  try {
    const std::string answer = run(command, toJSON(request.message()) + "\n");
    request.reply(messageFrom(answer, "the command's answer"));
  } catch (const CommandError& error) {
    request.fail(error.what(), static_cast<int>(error.code()));
  }
}

}  // namespace velto::ctl
