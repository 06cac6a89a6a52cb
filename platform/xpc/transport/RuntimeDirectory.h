#pragma once

#include <string>
#include <string_view>

#include "platform/xpc/system/Descriptor.h"

namespace velto::transport {

// The directory in which this user's services have their sockets: velto-ipc, which is made with mode 0700, in
// $XDG_RUNTIME_DIR if that is set, else in /run/user/<uid>, else, where there is none, in /tmp/velto-<uid>, which is
// made too. Each must belong to this user and be closed to the writing of others.
struct RuntimeDirectory {
  system::Descriptor directory;  // none when it cannot be used
  std::string path;
  std::string reason;  // why it cannot

  static RuntimeDirectory open() { return open(named()); }
  // The same with what $XDG_RUNTIME_DIR was when named() was called: the environment is to be read only on threads of
  // the program's own, which may change it.
  static RuntimeDirectory open(const std::string& fromEnvironment);
  static std::string named();
  // How the kernel is told of a name in the directory whatever the length of its path: "/proc/self/fd/N/name".
  std::string pathOf(std::string_view name) const;
};

// How the kernel is told of what a descriptor stands for: "/proc/self/fd/N".
std::string pathOfDescriptor(int borrowedDescriptor);
// After such a path could not be used: says so if that is for want of /proc; "" otherwise. Keeps errno.
std::string whyNoPathOfDescriptor();

// Whether a name can be a file's: not empty, at most 255 bytes, no "/", no NUL, not "." or "..". Otherwise the reason
// is set.
bool isFileName(std::string_view name, std::string& reason);

}  // namespace velto::transport
