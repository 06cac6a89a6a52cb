// Sockets that have, or for a moment need, a name in the runtime directory. A socket is always bound under a name of
// its own making and then moved or unlinked: a name that others look for shows a socket that already listens, or
// nothing.

#include "platform/xpc/transport/Sockets.h"

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <unistd.h>

#include "platform/foundation/NSUUID.h"
#include "platform/xpc/contract/Limits.h"
#include "platform/xpc/system/Observation.h"
#include "platform/xpc/system/SystemCalls.h"
#include "platform/xpc/transport/RuntimeDirectory.h"

namespace velto::transport {

namespace {

std::string withError(std::string_view what) {
  return std::string(what) + ": " + std::strerror(errno);
}

ConnectAttempt failed(std::string reason) {
  return {{}, false, false, std::move(reason)};
}

// Opens what is under a name without following links; none unless it is a socket of this user.
system::Descriptor openSocketHandle(const RuntimeDirectory& runtime, const std::string& name, std::string& reason) {
  auto& calls = system::systemCalls();
  system::Descriptor handle(calls.openAt(runtime.directory.get(), name.c_str(), O_PATH | O_NOFOLLOW));
  struct stat status {};
  if (!handle || calls.status(handle.get(), status) != 0) {
    reason = withError("no service under " + runtime.path + "/" + name);
    return {};
  }
  if (!S_ISSOCK(status.st_mode) || status.st_uid != ::geteuid()) {
    reason = runtime.path + "/" + name + " is not a socket of this user";
    return {};
  }
  return handle;
}

// A socket that listens under a fresh name in the directory, open to nobody else; none, and the reason, when it cannot
// be.
system::Descriptor listenUnderFreshName(const RuntimeDirectory& runtime, std::string& name, std::string& reason) {
  auto& calls = system::systemCalls();
  name = ".velto-" + NSUUID::UUID().UUIDString().string();
  const std::string path = runtime.pathOf(name);
  system::Descriptor socket(calls.socketStream());
  if (!socket) {
    reason = withError("making a socket failed");
    return {};
  }
  if (calls.bind(socket.get(), path.c_str()) != 0) {
    reason = withError("binding a socket in " + runtime.path + " failed");
    return {};
  }
  if (calls.changeMode(path.c_str(), S_IRUSR | S_IWUSR) == 0 && calls.listen(socket.get(), limits::kBacklog) == 0) {
    return socket;
  }
  reason = withError("listening in " + runtime.path + " failed");
  calls.unlinkAt(runtime.directory.get(), name.c_str());
  return {};
}

// Whether the name may be taken: nobody has it, or who had it is dead. One that is only slow counts as alive, and so
// does one of whom the kernel cannot tell just now; then the reason is set.
bool isFree(const RuntimeDirectory& runtime, const std::string& name, std::string& reason) {
  auto& calls = system::systemCalls();
  const std::string path = runtime.path + "/" + name;
  const system::Descriptor handle(calls.openAt(runtime.directory.get(), name.c_str(), O_PATH | O_NOFOLLOW));
  struct stat status {};
  if (!handle && errno == ENOENT) return true;
  if (!handle || calls.status(handle.get(), status) != 0) {
    reason = withError("whether " + path + " is served cannot be told");
    return false;
  }
  if (!S_ISSOCK(status.st_mode) || status.st_uid != ::geteuid()) return true;
  const auto attempt = connectToEndpoint(handle.get());
  if (attempt.refused) return true;
  reason = attempt.socket || attempt.full ? path + " is served already by another process"
                                          : "whether " + path + " is served cannot be told: " + attempt.reason;
  return false;
}

}  // namespace

bool isOwnUser(int borrowedSocket, std::string& reason) {
  uid_t user = 0;
  if (system::systemCalls().peerUser(borrowedSocket, user) != 0) {
    reason = withError("the other end's user cannot be told");
    return false;
  }
  if (user == ::geteuid()) return true;
  reason =
      "the other end runs as user " + std::to_string(user) + ", this process as user " + std::to_string(::geteuid());
  return false;
}

ConnectAttempt connectToEndpoint(int borrowedDescriptor) {
  auto& calls = system::systemCalls();
  system::Descriptor socket(calls.socketStream());
  if (!socket) return failed(withError("making a socket failed"));
  system::nameSocketForTrace(socket.get());
  if (calls.connect(socket.get(), pathOfDescriptor(borrowedDescriptor).c_str()) != 0) {
    return {{}, errno == EAGAIN, errno == ECONNREFUSED, withError("nobody can be reached")};
  }
  std::string reason;
  if (!isOwnUser(socket.get(), reason)) return failed(std::move(reason));
  return {std::move(socket), false, false, {}};
}

ConnectAttempt connectToService(std::string_view name, const std::string& fromEnvironment) {
  const auto runtime = RuntimeDirectory::open(fromEnvironment);
  if (!runtime.directory) return failed(runtime.reason);
  std::string reason;
  const auto handle = openSocketHandle(runtime, std::string(name), reason);
  if (!handle) return failed(std::move(reason));
  return connectToEndpoint(handle.get());
}

NamedSocket serveName(std::string_view name) {
  auto& calls = system::systemCalls();
  NamedSocket result;
  result.name = name;
  result.fromEnvironment = RuntimeDirectory::named();
  if (!isFileName(name, result.reason)) return result;
  const auto runtime = RuntimeDirectory::open(result.fromEnvironment);
  if (!runtime.directory) {
    result.reason = runtime.reason;
    return result;
  }
  result.path = runtime.path + "/" + result.name;
  // Held until the name is taken: of two processes that start at once, one is told to stay away.
  if (calls.lockDirectory(runtime.directory.get()) != 0) {
    result.reason = withError(runtime.path + " is locked by a process that starts a service there");
    return result;
  }
  if (!isFree(runtime, result.name, result.reason)) return result;
  std::string freshName;
  auto socket = listenUnderFreshName(runtime, freshName, result.reason);
  if (!socket) return result;
  const auto handle = openSocketHandle(runtime, freshName, result.reason);
  struct stat status {};
  if (!handle || calls.status(handle.get(), status) != 0 ||
      calls.renameAt(runtime.directory.get(), freshName.c_str(), result.name.c_str()) != 0) {
    result.reason = withError("taking the name " + result.path + " failed");
    calls.unlinkAt(runtime.directory.get(), freshName.c_str());
    return result;
  }
  result.device = status.st_dev;
  result.inode = status.st_ino;
  result.socket = std::move(socket);
  return result;
}

void stopServingName(const NamedSocket& served) {
  auto& calls = system::systemCalls();
  const auto runtime = RuntimeDirectory::open(served.fromEnvironment);
  std::string reason;
  if (!runtime.directory || calls.lockDirectory(runtime.directory.get()) != 0) return;
  const auto handle = openSocketHandle(runtime, served.name, reason);
  struct stat status {};
  if (!handle || calls.status(handle.get(), status) != 0) return;
  if (status.st_dev == served.device && status.st_ino == served.inode) {
    calls.unlinkAt(runtime.directory.get(), served.name.c_str());
  }
}

AnonymousSocket makeAnonymousSocket() {
  auto& calls = system::systemCalls();
  AnonymousSocket result;
  const auto runtime = RuntimeDirectory::open();
  if (!runtime.directory) {
    result.reason = runtime.reason;
    return result;
  }
  int ends[2] = {-1, -1};
  if (calls.pipe(ends) != 0) {
    result.reason = withError("making a pipe failed");
    return result;
  }
  result.hangUpRead = system::Descriptor(ends[0]);
  result.hangUpWrite = system::Descriptor(ends[1]);
  std::string name;
  auto socket = listenUnderFreshName(runtime, name, result.reason);
  if (!socket) return result;
  result.handle = openSocketHandle(runtime, name, result.reason);
  if (calls.unlinkAt(runtime.directory.get(), name.c_str()) != 0) {
    // Whoever looks into the directory could connect: that is not what was asked for.
    result.reason = withError("taking a socket's name away in " + runtime.path + " failed");
    return result;
  }
  if (result.handle) result.socket = std::move(socket);
  return result;
}

}  // namespace velto::transport
