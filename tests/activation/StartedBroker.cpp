#include "tests/activation/StartedBroker.h"

#include <csignal>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>

#include <gtest/gtest.h>

#include "tests/support/Waiting.h"

namespace velto::testing {
namespace {

constexpr char kVariable[] = "VELTO_IPC_DAEMON";

bool isAlive(pid_t process) {
  std::ifstream file("/proc/" + std::to_string(process) + "/stat");
  std::string stat;
  std::getline(file, stat);
  const auto state = stat.rfind(") ");
  return state != std::string::npos && stat[state + 2] != 'Z' && stat[state + 2] != 'X';
}

void endAndWait(pid_t process) {
  ::kill(process, SIGKILL);
  EXPECT_TRUE(eventually([process] { return !isAlive(process); })) << process;
}

}  // namespace

StartedBroker::StartedBroker(const std::string& options, const std::string& before) {
  const auto script = path() / "broker";
  std::ofstream(script) << "#!/bin/sh\ncd '" << path().string() << "'\necho $$ >> started\n"
                        << before << "\nexec '" VELTO_DAEMON "' " << options << " > words 2>&1\n";
  std::filesystem::permissions(script, std::filesystem::perms::owner_all);
  ::setenv(kVariable, script.c_str(), 1);
}

StartedBroker::~StartedBroker() {
  ::setenv(kVariable, "", 1);
  for (const pid_t process : started()) endAndWait(process);
}

std::vector<pid_t> StartedBroker::started() const {
  std::ifstream file(path() / "started");
  return {std::istream_iterator<pid_t>(file), {}};
}

void StartedBroker::kill() const {
  const auto all = started();
  if (all.empty()) return ADD_FAILURE() << "no broker was started";
  endAndWait(all.back());
}

std::string StartedBroker::words(const std::string& file) const {
  std::ostringstream text;
  text << std::ifstream(path() / file).rdbuf();
  return text.str();
}

bool Guest::isThere() {
  std::string said = says();
  if (said == "found") said = says();
  return said == "listening" || said == "serving";
}

std::string found(const std::string& name) {
  return Guest("find", name).says();
}

}  // namespace velto::testing
