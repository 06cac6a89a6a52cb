// A client, a listener or a broker that dies as planned: velto_death_actor ROLE WAY STEP MOMENT. Driven by lines, as an
// end is; beyond the commands of an end it knows
//
//   steps                 the steps it has made
//   words                 what it has said and heard
//   fork [ID]             forks a process that lives until standard input ends; tells what became of a synchronous
//                         send there, and how many sockets it holds
//   leave WAY             ends the process with its connections alive: "exit" closes them in a static destructor,
//                         "atexit" talks and closes in an exit handler, "abandon" calls exit() and closes nothing,
//                         "_exit" leaves without any of that

#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <memory>
#include <optional>
#include <string>

#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

#include "platform/logging/VeltoLogging.h"
#include "tests/death/actor/DeathSeam.h"
#include "tests/peer/End.h"
#include "tests/support/Brokers.h"
#include "tests/support/Waiting.h"

namespace velto::testing {
namespace {

// The one end of the process: a static object, destroyed after main().
std::unique_ptr<End>& end() {
  static std::unique_ptr<End> made;
  return made;
}

void talkAndClose() {
  const std::string answer = end()->perform("sync 20 echo:last");
  end()->perform("close");
  if (answer != "reply echo:last") ::_exit(1);
}

std::size_t openSockets() {
  std::size_t count = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code ignored;
    if (std::filesystem::read_symlink(entry, ignored).string().starts_with("socket:")) ++count;
  }
  return count;
}

[[noreturn]] void liveAsFork(int report, const std::string& to) {
  const std::string answer = end()->perform("sync 0.05 echo:fork" + to);
  const std::string line = answer + ", " + std::to_string(openSockets()) + " sockets";
  if (::write(report, line.data(), line.size()) < 0) ::_exit(1);
  ::close(report);
  ::close(STDOUT_FILENO);
  // The input itself is the parent's to read; its end is everybody's.
  pollfd input{STDIN_FILENO, 0, 0};
  ::poll(&input, 1, -1);
  ::_exit(0);
}

std::string forkOne(const std::string& to, const DeathSeam& seam) {
  // What another thread has locked at this moment stays locked in the fork for good.
  if (!eventually([&] { return seam.isIdle(); })) return "never idle";
  int report[2];
  if (::pipe(report) != 0) return "no pipe";
  const pid_t child = ::fork();
  if (child < 0) return "no fork";
  if (child == 0) {
    ::close(report[0]);
    liveAsFork(report[1], to);
  }
  ::close(report[1]);
  std::string line;
  char byte = 0;
  while (::read(report[0], &byte, 1) > 0) line += byte;
  ::close(report[0]);
  return line;
}

[[noreturn]] void leave(const std::string& way) {
  if (way == "_exit") ::_exit(0);
  // Never destroyed, and not lost either: a leak checker looks for what nobody points to.
  [[maybe_unused]] static End* abandoned = nullptr;
  if (way == "abandon") abandoned = end().release();
  if (way == "atexit") std::atexit(talkAndClose);
  std::exit(0);
}

std::string answerTo(const std::string& line, const DeathSeam& seam) {
  if (line == "steps") return seam.steps();
  if (line == "words") return seam.words();
  if (line.starts_with("fork")) return forkOne(line.substr(4), seam);
  return end()->perform(line);
}

int serve(const std::string& role, DeathSeam& seam) {
  std::optional<BrokerHere> broker;
  if (role == "broker") broker.emplace();
  if (role != "broker") end() = std::make_unique<End>();
  seam.arm();
  if (role == "broker") std::cout << "listening" << std::endl;
  for (std::string line; std::getline(std::cin, line);) {
    if (line.starts_with("leave ")) leave(line.substr(6));
    std::cout << answerTo(line, seam) << std::endl;
  }
  // Nobody listens any more.
  ::_exit(0);
}

}  // namespace
}  // namespace velto::testing

int main(int argumentCount, char** arguments) {
  if (argumentCount != 5) return 2;
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  VKTLogSetSink([](const VKTLogAnchor&, int, const NSString&) {});
  // Never destroyed: threads of the platform may be inside it when the process ends.
  auto* const seam =
      new velto::testing::DeathSeam(velto::testing::DeathPlan::of(arguments[2], arguments[3], arguments[4]));
  return velto::testing::serve(arguments[1], *seam);
}
