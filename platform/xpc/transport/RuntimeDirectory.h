#pragma once

#include <string>
#include <string_view>

#include "platform/xpc/system/Descriptor.h"

namespace velto::transport {

// The directory in which this user's services have their sockets: $XDG_RUNTIME_DIR, else /run/user/<uid>, else
// /tmp/velto-<uid>, which is made. The first is taken that belongs to this user and that nobody else can write to.
struct RuntimeDirectory {
  system::Descriptor directory;  // none when no directory will do
  std::string path;
  std::string reason;  // why none will do

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

// Whether a name can be a file's: not empty, at most 255 bytes, no "/", no NUL, not "." or "..". Otherwise the reason
// is set.
bool isFileName(std::string_view name, std::string& reason);

}  // namespace velto::transport
