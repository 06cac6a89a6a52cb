// The directory is opened once and everything in it is reached through the descriptor: no path is put together from
// names that come from outside, and the directory cannot be exchanged under us.

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

// What says nothing about the directory, only about this moment.
bool isPassingFailure(int error) {
  return error == EMFILE || error == ENFILE || error == ENOMEM || error == EIO;
}

// Opens the directory if only this user can put things into it; otherwise says why not, and whether that may change.
system::Descriptor openOwn(const std::string& path, std::string& reason, bool& passing) {
  auto& calls = system::systemCalls();
  system::Descriptor directory(calls.openAt(AT_FDCWD, path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW));
  struct stat status {};
  if (!directory || calls.status(directory.get(), status) != 0) {
    passing = isPassingFailure(errno);
    reason += path + ": " + std::strerror(errno) + "; ";
    return {};
  }
  if (status.st_uid != ::geteuid()) {
    reason += path + " belongs to user " + std::to_string(status.st_uid) + "; ";
    return {};
  }
  if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
    reason += path + " can be written to by others; ";
    return {};
  }
  return directory;
}

}  // namespace

std::string RuntimeDirectory::named() {
  const char* fromEnvironment = ::getenv("XDG_RUNTIME_DIR");
  return fromEnvironment != nullptr ? fromEnvironment : "";
}

RuntimeDirectory RuntimeDirectory::open(const std::string& fromEnvironment) {
  RuntimeDirectory result;
  const std::string user = std::to_string(::geteuid());
  // True when the search is over: it is this one, or it may be and cannot be opened just now. In the latter case
  // another would be a place where nobody looks.
  const auto take = [&result](const std::string& candidate) {
    bool passing = false;
    result.directory = openOwn(candidate, result.reason, passing);
    if (result.directory) result.path = candidate;
    return result.directory || passing;
  };
  if (fromEnvironment.starts_with('/') && take(fromEnvironment)) return result;
  if (take("/run/user/" + user)) return result;
  const std::string last = "/tmp/velto-" + user;
  system::systemCalls().makeDirectory(last.c_str(), S_IRWXU);  // it may be there already
  take(last);
  if (!result.directory) result.reason = "no runtime directory for sockets: " + result.reason;
  return result;
}

std::string RuntimeDirectory::pathOf(std::string_view name) const {
  return pathOfDescriptor(directory.get()) + "/" + std::string(name);
}

std::string pathOfDescriptor(int borrowedDescriptor) {
  return "/proc/self/fd/" + std::to_string(borrowedDescriptor);
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
