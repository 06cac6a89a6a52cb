// Last words come on the same pipe as answers: whatever is read is looked at for them.

#include "tests/death/DyingProcess.h"

#include <algorithm>
#include <sstream>

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

namespace velto::testing {

namespace {

std::vector<std::string> commandOf(const std::string& role, const DeathPlan& plan) {
  std::vector<std::string> command{VELTO_DEATH_ACTOR, role};
  for (const std::string& word : plan.words()) command.push_back(word);
  return command;
}

// Stopped, as the kernel tells its parent; not reaped by asking.
bool hasStopped(pid_t process) {
  siginfo_t information{};
  return waitid(P_PID, static_cast<id_t>(process), &information, WSTOPPED | WNOHANG) == 0 &&
         information.si_pid == process;
}

}  // namespace

Words::Words(const std::string& line) : line_(line) {
  std::istringstream groups(line);
  std::string group;
  std::getline(groups, group, ';');
  // A living process may be about to say the rest.
  if (std::getline(groups, group, ';') && line.starts_with("dying")) partial_ = std::stoul(group);
  while (std::getline(groups, group, ';')) {
    said_.emplace_back();
    heard_.emplace_back();
    Frames* direction = &said_;
    std::istringstream words(group);
    for (std::string word; words >> word;) {
      if (word == "said" || word == "heard") {
        direction = word == "said" ? &said_ : &heard_;
      } else {
        direction->back().push_back(word);
      }
    }
  }
}

bool Words::isAmong(const Frames& frames, std::size_t stream, const std::string& frame) {
  if (stream > frames.size()) return false;
  const auto& names = frames[stream - 1];
  return std::find(names.begin(), names.end(), frame) != names.end();
}

DyingProcess::DyingProcess(const std::string& role, const DeathPlan& plan)
    : plan_(plan), process_(commandOf(role, plan)) {
  if (role != "broker") return;
  EXPECT_EQ(process_.readLine(), "listening");
}

std::optional<std::string> DyingProcess::ask(const std::string& command) {
  if (dead_) return std::nullopt;
  // A process that has just died does not take the line, but may have left its last words.
  process_.writeLine(command);
  return readAnswer();
}

std::optional<std::string> DyingProcess::readAnswer() {
  while (const auto line = process_.readLine()) {
    if (!line->starts_with("dying")) return line;
    lastWords_ = *line;
    if (plan_.way == DeathPlan::Way::kill) break;
  }
  dead_ = true;
  const int status = process_.wait();
  EXPECT_EQ(status, -SIGKILL) << "the process ended in another way than planned, after: " << lastWords_;
  return std::nullopt;
}

Words DyingProcess::words() {
  const auto alive = ask("words");
  return Words(alive ? *alive : lastWords_);
}

std::vector<std::string> DyingProcess::steps() {
  std::istringstream words(ask("steps").value_or(""));
  std::vector<std::string> all;
  for (std::string word; words >> word;) all.push_back(word);
  if (!all.empty()) all.erase(all.begin());
  return all;
}

HaltWatch::HaltWatch(DyingProcess& process, std::function<void()> probe)
    : thread_([this, id = process.process().processID(), probe = std::move(probe)] {
        while (!stopped_ && !finished_) {
          if (!eventually([&] { return finished_ || hasStopped(id); })) return;
          if (finished_) return;
          stopped_ = true;
          probe();
          kill(id, SIGCONT);
        }
      }) {}

HaltWatch::~HaltWatch() {
  finish();
}

bool HaltWatch::finish() {
  finished_ = true;
  if (thread_.joinable()) thread_.join();
  return stopped_;
}

}  // namespace velto::testing
