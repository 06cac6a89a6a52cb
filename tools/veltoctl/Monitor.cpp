// veltoctl monitor: sits between a service and its clients and shows what they say.
//
// Two processes: what is started, and a child of it that relays. So the connections go on when the monitor ends, by
// whatever signal: the child hears that nobody looks on any more, stands in no more, prints nothing more, and ends with
// the last connection. The child is made before there is any thread.
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <memory>
#include <string>
#include <thread>

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tools/veltoctl/Context.h"
#include "tools/veltoctl/Events.h"
#include "tools/veltoctl/ExitCode.h"
#include "tools/veltoctl/Interposer.h"
#include "tools/veltoctl/Output.h"
#include "tools/veltoctl/Signals.h"
#include <CLI/CLI.hpp>

namespace velto::ctl {
namespace {

constexpr std::chrono::milliseconds kRefresh{500};
// For those who have been sent here and have not connected yet.
constexpr std::chrono::seconds kGrace{2};

// What the child tells: how it has ended, or that it has let go.
struct Word {
  int code = 0;
  std::array<char, 1024> text{};
};

// The parent keeps the writing end of the first, and the child that of the second.
struct Pipes {
  Pipes() {
    for (auto* const each : {&watched, &told}) {
      if (pipe2(each->data(), O_CLOEXEC) != 0) throw CommandError(ExitCode::failure, std::strerror(errno));
    }
  }
  std::array<int, 2> watched{};
  std::array<int, 2> told{};
};

void tell(int descriptor, ExitCode code, const std::string& text) {
  Word word;
  word.code = static_cast<int>(code);
  text.copy(word.text.data(), word.text.size() - 1);
  // Nobody may be there any more.
  [[maybe_unused]] const ssize_t written = ::write(descriptor, &word, sizeof word);
}

bool isWatched(int descriptor, std::chrono::milliseconds patience) {
  pollfd waiting{descriptor, 0, 0};
  return ::poll(&waiting, 1, static_cast<int>(patience.count())) <= 0;
}

// Nothing of the terminal, and of whoever waits for the end of the output, is kept.
void letGoOfOutput() {
  const int nothing = ::open("/dev/null", O_RDWR | O_CLOEXEC);
  for (const int each : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) ::dup2(nothing, each);
}

void relayUntilLeft(const Context& context, const std::string& name, const Pipes& pipes) {
  EventPrinter printer(context.json);
  Interposer interposer(name, printer);
  if (!context.json) say("monitoring " + name + ": connections that are made from now on are shown");
  while (printer.isRead() && isWatched(pipes.watched[0], kRefresh)) {
    if (const auto problem = interposer.refresh()) say(*problem + "; it is tried again");
  }
  interposer.withdraw();
  printer.finish();
  letGoOfOutput();
  tell(pipes.told[1], ExitCode::success, "");
  std::this_thread::sleep_for(kGrace);
  interposer.stop();
  while (interposer.connections() > 0) std::this_thread::sleep_for(kRefresh);
}

[[noreturn]] void beChild(const Context& context, const std::string& name, const Pipes& pipes) {
  ::close(pipes.watched[1]);
  ::close(pipes.told[0]);
  // What is typed at the terminal is for the parent.
  ::setsid();
  try {
    relayUntilLeft(context, name, pipes);
  } catch (const CommandError& error) {
    tell(pipes.told[1], error.code(), error.what());
  } catch (const std::exception& error) {
    tell(pipes.told[1], ExitCode::failure, error.what());
  }
  // The parent's clean-up is the parent's.
  ::_exit(0);
}

int monitor(const Context& context, const std::string& name) {
  Signals signals;
  Pipes pipes;
  const pid_t child = ::fork();
  if (child < 0) throw CommandError(ExitCode::failure, std::string("no process can be made: ") + std::strerror(errno));
  if (child == 0) beChild(context, name, pipes);
  ::close(pipes.watched[0]);
  ::close(pipes.told[1]);
  std::array<pollfd, 2> waiting{{{pipes.told[0], POLLIN, 0}, {signals.descriptor(), POLLIN, 0}}};
  while (::poll(waiting.data(), waiting.size(), -1) < 0 && errno == EINTR) {
  }
  // It hears so, and says when it has let go.
  ::close(pipes.watched[1]);
  Word word;
  const ssize_t count = ::read(pipes.told[0], &word, sizeof word);
  if (count != static_cast<ssize_t>(sizeof word)) {
    throw CommandError(ExitCode::failure, "the process that relayed has ended: connections over it are lost");
  }
  const auto code = static_cast<ExitCode>(word.code);
  if (code != ExitCode::success) throw CommandError(code, word.text.data());
  return 0;
}

}  // namespace

void addMonitor(CLI::App& app, Context& context) {
  auto* const command =
      app.add_subcommand("monitor", "Shows what goes over new connections of a service, both ways, unnoticed");
  const auto name = std::make_shared<std::string>();
  command->add_option("NAME", *name, "The name of the service")->required();
  command->callback([&context, name] { context.chosen = [&context, name] { return monitor(context, *name); }; });
}

}  // namespace velto::ctl
