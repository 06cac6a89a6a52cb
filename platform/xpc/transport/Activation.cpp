// Who finds nobody makes the listening socket himself, under the lock on the directory, and hands it to the program: from
// that moment everybody can connect, and waits in the socket's queue until the program takes it up. Who comes while the
// lock is held tries again a little later, as one does whose listener has no room.

#include "platform/xpc/transport/Activation.h"

#include <array>
#include <cstdlib>
#include <cstring>
#include <utility>

#include <fcntl.h>
#include <unistd.h>

#include "platform/xpc/system/StartProgram.h"
#include "platform/xpc/system/SystemCalls.h"

namespace velto::transport {

namespace {

constexpr char kRuntimeVariable[] = "XDG_RUNTIME_DIR=";
constexpr char kSearchVariable[] = "PATH=";

bool isProgram(const std::string& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) && ::access(path.c_str(), X_OK) == 0;
}

std::string searched(const std::string& name, const std::string& searchPath) {
  for (std::size_t begin = 0; begin <= searchPath.size();) {
    const std::size_t end = std::min(searchPath.find(':', begin), searchPath.size());
    const std::string path = searchPath.substr(begin, end - begin) + "/" + name;
    if (path.starts_with('/') && isProgram(path)) return path;
    begin = end + 1;
  }
  return "";
}

// What this process was started with: what it has set since cannot be read safely from every thread.
std::string initialEnvironment() {
  auto& calls = system::systemCalls();
  std::string text;
  const system::Descriptor file(calls.openAt(AT_FDCWD, "/proc/self/environ", O_RDONLY));
  std::array<char, 4096> part{};
  for (ssize_t length = 1; file && length > 0;) {
    length = calls.read(file.get(), part.data(), part.size());
    if (length > 0) text.append(part.data(), static_cast<std::size_t>(length));
  }
  return text;
}

std::vector<std::string> environmentFor(const std::string& searchPath, const std::string& fromEnvironment) {
  std::vector<std::string> environment;
  const std::string initial = initialEnvironment();
  for (std::size_t begin = 0; begin < initial.size();) {
    const std::size_t end = std::min(initial.find('\0', begin), initial.size());
    std::string each = initial.substr(begin, end - begin);
    begin = end + 1;
    const bool isOurs = each.starts_with(kRuntimeVariable) || each.starts_with(kSearchVariable) ||
                        each.starts_with("LISTEN_") || each.starts_with("NOTIFY_SOCKET=");
    if (!isOurs && !each.empty()) environment.push_back(std::move(each));
  }
  if (!searchPath.empty()) environment.push_back(kSearchVariable + searchPath);
  if (!fromEnvironment.empty()) environment.push_back(kRuntimeVariable + fromEnvironment);
  return environment;
}

bool isUnserved(const ConnectAttempt& attempt) {
  return attempt.absent || attempt.refused;
}

std::string valueOf(const char* variable) {
  const char* const value = ::getenv(variable);
  return value != nullptr ? value : "";
}

}  // namespace

ProgramChoice::ProgramChoice(const xpc::ServingProgram& chosen)
    : program(chosen),
      isNamed(!program.variable.empty() && ::getenv(program.variable.c_str()) != nullptr),
      named(isNamed ? valueOf(program.variable.c_str()) : ""),
      searchPath(valueOf("PATH")) {}

std::string ProgramChoice::find(std::string& reason) const {
  const std::string advice = "; start " + program.name + ", or let $" + program.variable + " name it";
  if (isNamed && named.empty()) {
    reason = "$" + program.variable + " is empty, so it is not started; start " + program.name;
    return "";
  }
  if (isNamed) {
    const std::string path = named.find('/') != named.npos ? named : searched(named, searchPath);
    if (path.starts_with('/') && isProgram(path)) return path;
    reason = "$" + program.variable + " names \"" + named + "\", which is no program that can be run";
    return "";
  }
  if (!program.path.empty() && isProgram(program.path)) return program.path;
  const std::string path = searched(program.name, searchPath);
  if (path.empty()) {
    const std::string installed = program.path.empty() ? "" : program.path + " or ";
    reason = "the program to start was not found at " + installed + "in $PATH" + advice;
  }
  return path;
}

ConnectAttempt connectOrStart(std::string_view name, const ProgramChoice& choice, const std::string& fromEnvironment) {
  ConnectAttempt attempt = connectToService(name, fromEnvironment);
  if (!isUnserved(attempt)) return attempt;
  std::string reason;
  const std::string path = choice.find(reason);
  if (path.empty()) {
    attempt.reason += "; " + reason;
    return attempt;
  }
  const NameLock lock(fromEnvironment);
  attempt.full = lock.isTaken;
  if (!lock.isHeld) {
    attempt.reason = lock.reason;
    return attempt;
  }
  // Another may have started it, and let go of the lock, meanwhile.
  attempt = connectToService(name, fromEnvironment);
  if (!isUnserved(attempt)) return attempt;
  NamedSocket served;
  served.name = name;
  served.fromEnvironment = fromEnvironment;
  serveAnew(lock, served);
  if (!served.socket) {
    attempt.reason = served.reason;
    return attempt;
  }
  const int error = system::systemCalls().startProgram(
      {path, choice.program.arguments, environmentFor(choice.searchPath, fromEnvironment), served.socket.get()});
  if (error != 0) {
    takeNameAway(lock, served);
    attempt.reason = "starting " + path + " failed: " + std::strerror(error);
    return attempt;
  }
  return connectToService(name, fromEnvironment);
}

}  // namespace velto::transport
