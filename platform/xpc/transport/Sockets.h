#pragma once

#include <string>
#include <string_view>
#include <vector>

#include <sys/types.h>

#include "platform/xpc/system/Descriptor.h"
#include "platform/xpc/transport/RuntimeDirectory.h"

namespace velto::transport {

// What came of an attempt to connect.
struct ConnectAttempt {
  system::Descriptor socket;  // none when it failed
  bool full = false;          // nobody has accepted the connections before this one yet: try again later
  bool refused = false;       // nobody listens there any more
  bool absent = false;        // nothing has the name
  bool isByName = false;      // whoever listened first may have passed the socket on: the kernel tells of that one
  std::string reason;         // why it failed
};

// To the socket of a service name, in the directory that RuntimeDirectory::open() finds from this. The other end is
// proven to be a process of this user.
ConnectAttempt connectToService(std::string_view name, const std::string& fromEnvironment = RuntimeDirectory::named());
// To the socket behind an O_PATH descriptor. The same proof.
ConnectAttempt connectToEndpoint(int borrowedDescriptor);
// Whether the process at the other end of an accepted connection runs as this user; otherwise the reason is set.
bool isOwnUser(int borrowedSocket, std::string& reason);

// A socket that serves a name.
struct NamedSocket {
  system::Descriptor socket;  // listening; none when it failed
  std::string name;
  std::string unseenName;  // until it is shown
  std::string path;
  std::string fromEnvironment;  // where it was served, see RuntimeDirectory::open()
  dev_t device = 0;
  ino_t inode = 0;
  std::string reason;
};
// Takes the name over from a process that is dead, never from one that lives.
NamedSocket serveName(std::string_view name);
// Under a name that nobody has: this, and a UUID behind it.
NamedSocket serveFreshName(std::string_view prefix);
// One that listens already and was passed to this process, in the directory under the name, or nameless. Whoever
// connects from now on is told of this process.
NamedSocket takeOverServing(system::Descriptor listening, std::string_view name);
// Takes the name away again, if it is still this socket's.
void stopServingName(const NamedSocket& served);

// For as long as it lives, nobody else takes a name in the directory.
struct NameLock {
  NameLock() = default;
  explicit NameLock(const std::string& fromEnvironment);

  RuntimeDirectory runtime;
  bool isHeld = false;
  bool isTaken = false;  // by another process, just now
  std::string reason;
};
// A new socket that listens under a name that nobody looks for; then shown under its own, whoever has had that, or
// forgotten. With the lock held. What cannot be done leaves no socket.
void serveUnseen(const NameLock& lock, NamedSocket& result);
void show(const NameLock& lock, NamedSocket& unseen);
void forgetUnseen(const NameLock& lock, NamedSocket& unseen);
// The first two in one.
void serveAnew(const NameLock& lock, NamedSocket& result);
// Takes the name away, if it is still this socket's; with the lock held.
void takeNameAway(const NameLock& lock, const NamedSocket& served);
// The names that begin so; nothing when the directory cannot be read.
std::vector<std::string> namesBeginningWith(std::string_view prefix, const std::string& fromEnvironment);
// Takes a name away that nobody serves any more.
void forgetName(const std::string& name, const std::string& fromEnvironment);

// A socket without a name, and how others reach it.
struct AnonymousSocket {
  system::Descriptor socket;  // listening; none when it failed
  system::Descriptor handle;  // O_PATH: can be connected to, and nothing else
  // The listener keeps the writing end and never writes: the reading end hangs up when the listener is gone.
  system::Descriptor hangUpRead;
  system::Descriptor hangUpWrite;
  std::string reason;
};
AnonymousSocket makeAnonymousSocket();

}  // namespace velto::transport
