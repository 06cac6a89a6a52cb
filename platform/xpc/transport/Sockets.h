#pragma once

#include <string>
#include <string_view>

#include <sys/types.h>

#include "platform/xpc/system/Descriptor.h"
#include "platform/xpc/transport/RuntimeDirectory.h"

namespace velto::transport {

// What came of an attempt to connect.
struct ConnectAttempt {
  system::Descriptor socket;  // none when it failed
  bool full = false;          // nobody has accepted the connections before this one yet: try again later
  bool refused = false;       // nobody listens there any more
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
  std::string path;
  std::string fromEnvironment;  // where it was served, see RuntimeDirectory::open()
  dev_t device = 0;
  ino_t inode = 0;
  std::string reason;
};
// Takes the name over from a process that is dead, never from one that lives.
NamedSocket serveName(std::string_view name);
// Takes the name away again, if it is still this socket's.
void stopServingName(const NamedSocket& served);

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
