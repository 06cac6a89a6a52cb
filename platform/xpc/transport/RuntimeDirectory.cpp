// The directory is opened once and everything in it is reached through the descriptor: no path is put together from
// names that come from outside, and the directory cannot be exchanged under us.
//
// What the environment names is the one place that counts, or nothing does: a process that quietly used another would
// neither find nor be found.

#include "platform/xpc/transport/RuntimeDirectory.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <unistd.h>

#include "platform/xpc/contract/Limits.h"
#include "platform/xpc/system/SystemCalls.h"

namespace velto::transport {

namespace {

constexpr char kOwnDirectory[] = "velto-ipc";

// Opens a directory that belongs to this user and that nobody else can write to; otherwise says why not, and whether
// that is because there is none.
system::Descriptor openOwn(int within, const std::string& name, const std::string& path, std::string& reason,
                           bool& isMissing) {
  auto& calls = system::systemCalls();
  system::Descriptor directory(calls.openAt(within, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW));
  isMissing = !directory && errno == ENOENT;
  struct stat status {};
  if (!directory || calls.status(directory.get(), status) != 0) {
    reason = path + ": " + std::strerror(errno);
  } else if (status.st_uid != ::geteuid()) {
    reason = path + " belongs to user " + std::to_string(status.st_uid) + ", this process runs as user " +
             std::to_string(::geteuid());
  } else if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
    reason = path + " can be written to by others";
  } else {
    return directory;
  }
  return {};
}

// The user's own place for what runs. None and the reason when there is none.
system::Descriptor openPlace(const std::string& fromEnvironment, std::string& path, std::string& reason) {
  bool isMissing = false;
  if (!fromEnvironment.empty()) {
    path = fromEnvironment;
    if (path.starts_with('/')) {
      auto directory = openOwn(AT_FDCWD, path, path, reason, isMissing);
      if (!directory) reason = "$XDG_RUNTIME_DIR cannot be used: " + reason;
      return directory;
    }
    reason = "$XDG_RUNTIME_DIR cannot be used: " + path + " is not an absolute path";
    return {};
  }
  const std::string user = std::to_string(::geteuid());
  path = "/run/user/" + user;
  if (auto directory = openOwn(AT_FDCWD, path, path, reason, isMissing)) return directory;
  if (!isMissing) return {};
  path = "/tmp/velto-" + user;
  system::systemCalls().makeDirectory(path.c_str(), S_IRWXU);  // it may be there already
  return openOwn(AT_FDCWD, path, path, reason, isMissing);
}

}  // namespace

std::string RuntimeDirectory::named() {
  const char* fromEnvironment = ::getenv("XDG_RUNTIME_DIR");
  return fromEnvironment != nullptr ? fromEnvironment : "";
}

RuntimeDirectory RuntimeDirectory::open(const std::string& fromEnvironment) {
  RuntimeDirectory result;
  std::string place;
  const auto outer = openPlace(fromEnvironment, place, result.reason);
  if (outer) {
    result.path = place + "/" + kOwnDirectory;
    bool isMissing = false;
    result.directory = openOwn(outer.get(), kOwnDirectory, result.path, result.reason, isMissing);
    if (isMissing) {
      system::systemCalls().makeDirectory(result.path.c_str(), S_IRWXU);  // another may have made it meanwhile
      result.directory = openOwn(outer.get(), kOwnDirectory, result.path, result.reason, isMissing);
    }
  }
  if (!result.directory) result.reason = "no runtime directory for sockets: " + result.reason;
  return result;
}

std::string RuntimeDirectory::pathOf(std::string_view name) const {
  return pathOfDescriptor(directory.get()) + "/" + std::string(name);
}

std::string pathOfDescriptor(int borrowedDescriptor) {
  return "/proc/self/fd/" + std::to_string(borrowedDescriptor);
}

std::string whyNoPathOfDescriptor() {
  const int error = errno;
  const system::Descriptor self(system::systemCalls().openAt(AT_FDCWD, "/proc/self/fd", O_PATH | O_DIRECTORY));
  errno = error;
  return self ? "" : "/proc is not mounted here, and endpoints are reached through /proc/self/fd: mount it (type proc)";
}

bool isFileName(std::string_view name, std::string& reason) {
  if (name.empty()) {
    reason = "the name is empty";
  } else if (name.size() > limits::kMaximumNameBytes) {
    reason = "the name has " + std::to_string(name.size()) + " bytes, the maximum is " +
             std::to_string(limits::kMaximumNameBytes);
  } else if (name.find('/') != name.npos || name.find('\0') != name.npos) {
    reason = "the name holds a \"/\" or a NUL";
  } else if (name == "." || name == "..") {
    reason = "the name is that of a directory";
  } else {
    return true;
  }
  return false;
}

}  // namespace velto::transport
