// Sockets that have, or for a moment need, a name in the runtime directory. A socket is always bound under a name of
// its own making and then moved or unlinked: a name that others look for shows a socket that already listens, or
// nothing.

#include "platform/xpc/transport/Sockets.h"

#include <cerrno>
#include <cstring>
#include <utility>

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include "platform/foundation/NSUUID.h"
#include "platform/xpc/contract/Limits.h"
#include "platform/xpc/system/SystemCalls.h"
#include "platform/xpc/transport/RuntimeDirectory.h"

namespace velto::transport {

namespace {

std::string withError(std::string_view what) {
  return std::string(what) + ": " + std::strerror(errno);
}

std::string withWhyNoPath(std::string reason) {
  const std::string why = whyNoPathOfDescriptor();
  return why.empty() ? reason : reason + "; " + why;
}

ConnectAttempt failed(std::string reason) {
  ConnectAttempt attempt;
  attempt.reason = std::move(reason);
  return attempt;
}

// Opens what is under a name without following links; none unless it is a socket of this user.
system::Descriptor openSocketHandle(const RuntimeDirectory& runtime, const std::string& name, std::string& reason,
                                    bool* isMissing = nullptr) {
  auto& calls = system::systemCalls();
  system::Descriptor handle(calls.openAt(runtime.directory.get(), name.c_str(), O_PATH | O_NOFOLLOW));
  if (isMissing != nullptr) *isMissing = !handle && errno == ENOENT;
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
    const bool isMissing = errno == ENOENT;
    reason = withError("binding a socket in " + runtime.path + " failed");
    if (isMissing) reason = withWhyNoPath(std::move(reason));
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
  if (calls.connect(socket.get(), pathOfDescriptor(borrowedDescriptor).c_str()) != 0) {
    const int error = errno;
    ConnectAttempt attempt = failed(withError("nobody can be reached"));
    attempt.full = error == EAGAIN;
    attempt.refused = error == ECONNREFUSED;
    if (error == ENOENT) attempt.reason = withWhyNoPath(std::move(attempt.reason));
    return attempt;
  }
  std::string reason;
  if (!isOwnUser(socket.get(), reason)) return failed(std::move(reason));
  ConnectAttempt attempt;
  attempt.socket = std::move(socket);
  return attempt;
}

ConnectAttempt connectToService(std::string_view name, const std::string& fromEnvironment) {
  const auto runtime = RuntimeDirectory::open(fromEnvironment);
  if (!runtime.directory) return failed(runtime.reason);
  std::string reason;
  bool isMissing = false;
  const auto handle = openSocketHandle(runtime, std::string(name), reason, &isMissing);
  if (!handle) {
    ConnectAttempt attempt = failed(std::move(reason));
    attempt.absent = isMissing;
    return attempt;
  }
  ConnectAttempt attempt = connectToEndpoint(handle.get());
  attempt.isByName = true;
  if (attempt.refused) attempt.reason += " at " + runtime.path + "/" + std::string(name);
  return attempt;
}

NameLock::NameLock(const std::string& fromEnvironment) : runtime(RuntimeDirectory::open(fromEnvironment)) {
  if (!runtime.directory) {
    reason = runtime.reason;
    return;
  }
  isHeld = system::systemCalls().lockDirectory(runtime.directory.get()) == 0;
  if (isHeld) return;
  isTaken = errno == EWOULDBLOCK;
  reason = withError(runtime.path + " is locked by a process that starts a service there");
}

void serveUnseen(const NameLock& lock, NamedSocket& result) {
  auto& calls = system::systemCalls();
  result.path = lock.runtime.path + "/" + result.name;
  auto socket = listenUnderFreshName(lock.runtime, result.unseenName, result.reason);
  if (!socket) return;
  const auto handle = openSocketHandle(lock.runtime, result.unseenName, result.reason);
  struct stat status {};
  if (!handle || calls.status(handle.get(), status) != 0) {
    result.reason = withError("taking the name " + result.path + " failed");
    return forgetUnseen(lock, result);
  }
  result.device = status.st_dev;
  result.inode = status.st_ino;
  result.socket = std::move(socket);
}

void forgetUnseen(const NameLock& lock, NamedSocket& unseen) {
  system::systemCalls().unlinkAt(lock.runtime.directory.get(), std::exchange(unseen.unseenName, "").c_str());
  unseen.socket.reset();
}

void show(const NameLock& lock, NamedSocket& unseen) {
  auto& calls = system::systemCalls();
  const int directory = lock.runtime.directory.get();
  if (calls.renameAt(directory, unseen.unseenName.c_str(), unseen.name.c_str()) == 0) {
    unseen.unseenName.clear();
    return;
  }
  unseen.reason = withError("taking the name " + unseen.path + " failed");
  forgetUnseen(lock, unseen);
}

void serveAnew(const NameLock& lock, NamedSocket& result) {
  serveUnseen(lock, result);
  if (result.socket) show(lock, result);
}

NamedSocket serveName(std::string_view name) {
  NamedSocket result;
  result.name = name;
  result.fromEnvironment = RuntimeDirectory::named();
  if (!isFileName(name, result.reason)) return result;
  // Held until the name is taken: of two processes that start at once, one is told to stay away.
  const NameLock lock(result.fromEnvironment);
  if (!lock.isHeld) {
    result.reason = lock.reason;
    return result;
  }
  result.path = lock.runtime.path + "/" + result.name;
  if (isFree(lock.runtime, result.name, result.reason)) serveAnew(lock, result);
  return result;
}

// Nobody else can want the name, so there is nothing to lock.
NamedSocket serveFreshName(std::string_view prefix) {
  NamedSocket result;
  result.name = std::string(prefix) + NSUUID::UUID().UUIDString().string();
  result.fromEnvironment = RuntimeDirectory::named();
  NameLock lock;
  lock.runtime = RuntimeDirectory::open(result.fromEnvironment);
  if (lock.runtime.directory) {
    serveAnew(lock, result);
  } else {
    result.reason = lock.runtime.reason;
  }
  return result;
}

NamedSocket takeOverServing(system::Descriptor listening, std::string_view name) {
  auto& calls = system::systemCalls();
  NamedSocket result;
  const int listens = calls.isListening(listening.get());
  if (listens <= 0) {
    result.reason = listens < 0 ? withError("what was passed on is no socket") : "the socket that was passed on does not listen";
    return result;
  }
  // The kernel tells who connects of whoever listened last.
  if (calls.listen(listening.get(), limits::kBacklog) != 0) {
    result.reason = withError("listening at the socket that was passed on failed");
    return result;
  }
  result.fromEnvironment = RuntimeDirectory::named();
  if (!name.empty()) {
    const auto runtime = RuntimeDirectory::open(result.fromEnvironment);
    struct stat status {};
    const auto handle = runtime.directory ? openSocketHandle(runtime, std::string(name), result.reason) : system::Descriptor();
    if (!handle || calls.status(handle.get(), status) != 0) {
      if (result.reason.empty()) result.reason = runtime.reason;
      return result;
    }
    result.name = name;
    result.path = runtime.path + "/" + result.name;
    result.device = status.st_dev;
    result.inode = status.st_ino;
  }
  result.socket = std::move(listening);
  return result;
}

void takeNameAway(const NameLock& lock, const NamedSocket& served) {
  auto& calls = system::systemCalls();
  std::string reason;
  const auto handle = openSocketHandle(lock.runtime, served.name, reason);
  struct stat status {};
  if (!handle || calls.status(handle.get(), status) != 0) return;
  if (status.st_dev == served.device && status.st_ino == served.inode) {
    calls.unlinkAt(lock.runtime.directory.get(), served.name.c_str());
  }
}

void stopServingName(const NamedSocket& served) {
  const NameLock lock(served.fromEnvironment);
  if (lock.isHeld) takeNameAway(lock, served);
}

std::vector<std::string> namesBeginningWith(std::string_view prefix, const std::string& fromEnvironment) {
  std::vector<std::string> names;
  const auto runtime = RuntimeDirectory::open(fromEnvironment);
  if (!runtime.directory) return names;
  const int again = system::systemCalls().openAt(runtime.directory.get(), ".", O_RDONLY | O_DIRECTORY);
  DIR* const directory = again >= 0 ? ::fdopendir(again) : nullptr;
  if (directory == nullptr) {
    if (again >= 0) system::systemCalls().close(again);
    return names;
  }
  while (const dirent* const entry = ::readdir(directory)) {
    if (std::string_view(entry->d_name).starts_with(prefix)) names.emplace_back(entry->d_name);
  }
  ::closedir(directory);
  return names;
}

void forgetName(const std::string& name, const std::string& fromEnvironment) {
  const NameLock lock(fromEnvironment);
  std::string reason;
  if (lock.isHeld && isFree(lock.runtime, name, reason)) {
    system::systemCalls().unlinkAt(lock.runtime.directory.get(), name.c_str());
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
