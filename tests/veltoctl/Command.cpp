#include "tests/veltoctl/Command.h"

#include <array>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tools/ValueFromJSON.h"

namespace velto::testing {
namespace {

std::string contentsOf(const std::filesystem::path& path) {
  std::ostringstream text;
  text << std::ifstream(path, std::ios::binary).rdbuf();
  return text.str();
}

std::vector<char*> pointersTo(std::vector<std::string>& words) {
  std::vector<char*> pointers;
  for (std::string& each : words) pointers.push_back(each.data());
  pointers.push_back(nullptr);
  return pointers;
}

std::vector<std::string> commandOf(const std::vector<std::string>& arguments) {
  std::vector<std::string> words{VELTO_CTL};
  words.insert(words.end(), arguments.begin(), arguments.end());
  return words;
}

int codeOf(pid_t process) {
  int status = 0;
  while (::waitpid(process, &status, 0) < 0 && errno == EINTR) {
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

}  // namespace

std::vector<std::string> Ran::lines() const {
  std::vector<std::string> lines;
  std::istringstream text(output);
  for (std::string line; std::getline(text, line);) lines.push_back(line);
  return lines;
}

NSObject Ran::json() const {
  NSError error;
  NSObject value = tools::valueFromJSON(output, &error);
  if (value.isNil()) ADD_FAILURE() << output << errors << error.localizedDescription().string();
  return value;
}

Ran run(const std::vector<std::string>& arguments, const std::string& input) {
  std::string name = (std::filesystem::temp_directory_path() / "velto-run-XXXXXX").string();
  if (mkdtemp(name.data()) == nullptr) giveUp("no directory can be made");
  const std::filesystem::path directory = name;
  std::ofstream(directory / "in", std::ios::binary) << input;
  std::vector<std::string> words{"/bin/sh", "-c", R"(exec "$@" < "$0/in" > "$0/out" 2> "$0/err")", name};
  for (std::string& each : commandOf(arguments)) words.push_back(std::move(each));
  Ran ran;
  {
    ChildProcess process(words);
    ran.code = process.wait();
  }
  ran.output = contentsOf(directory / "out");
  ran.errors = contentsOf(directory / "err");
  std::filesystem::remove_all(directory);
  return ran;
}

Ran runOnTerminal(const std::vector<std::string>& arguments) {
  auto words = commandOf(arguments);
  auto pointers = pointersTo(words);
  int terminal = -1;
  const pid_t process = ::forkpty(&terminal, nullptr, nullptr, nullptr);
  if (process == 0) {
    ::setenv("TERM", "xterm", 1);
    ::execv(pointers[0], pointers.data());
    ::_exit(127);
  }
  Ran ran;
  std::array<char, 4096> room{};
  for (ssize_t count = 1; count > 0;) {
    count = ::read(terminal, room.data(), room.size());
    if (count > 0) ran.output.append(room.data(), static_cast<std::size_t>(count));
  }
  ran.code = codeOf(process);
  ::close(terminal);
  return ran;
}

Running::Running(const std::vector<std::string>& arguments, Errors errors)
    : ChildProcess(commandOf(arguments), errors) {}

std::string Running::lineWith(const std::string& text) {
  while (const auto line = readLine()) {
    if (line->find(text) != std::string::npos) return *line;
  }
  return "";
}

int code(ctl::ExitCode code) {
  return static_cast<int>(code);
}

void WithBroker::start(Service& service) {
  service.start();
  const auto error = service.waitUntilRegistered(kBound);
  if (error) giveUp(error->text().c_str());
}

NSDictionary WithBroker::infoOf(const std::string& name) {
  const Ran ran = run({"info", name, "--json"});
  return ran.code == 0 ? ran.json().as<NSDictionary>() : NSDictionary();
}

bool WithBroker::isServed(const std::string& name) {
  return run({"wait", name, "--timeout", "20"}).code == 0;
}

}  // namespace velto::testing
