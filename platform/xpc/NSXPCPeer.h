#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>

#include <sys/types.h>

#include "platform/foundation/Export.h"

namespace velto::transport {
class PeerProcess;
}

// The process at the other end of a connection, as the kernel tells it, not as that process states it. A small nullable
// value: peers of all connections of one process are equal for as long as somebody holds one of them, or one of the
// connections; and no other process is ever equal to it, not even one that is given the same identifier later. A
// process of another namespace, which the kernel does not tell, is not equal to any other. Copies may be used on any
// thread.
class VELTO_EXPORT NSXPCPeer final {
 public:
  NSXPCPeer() noexcept = default;
  NSXPCPeer(std::nullptr_t) noexcept {}

  explicit operator bool() const noexcept { return process_ != nullptr; }
  friend bool operator==(const NSXPCPeer& one, const NSXPCPeer& other) noexcept {
    return one.process_ == other.process_;
  }
  // Equal for equal peers, and never used again in the life of this process. 0 for nil.
  std::uint64_t number() const noexcept;
  // 0 for nil, and for a process that has none here.
  pid_t processIdentifier() const noexcept;
  // The process's user, as the kernel told when this process first met it. -1 for nil, and when the kernel did not
  // tell.
  uid_t userIdentifier() const noexcept;
  // A descriptor of the process (a pidfd, as of pidfd_open()), from the moment of connecting on: a signal that is sent
  // by it reaches that process or nobody. Borrowed: it stays open for as long as somebody holds a peer of this process.
  // -1 for nil, for a process that had died before this was asked for the first time, and where the kernel has none.
  int processDescriptor() const;

  // Calls `handler` once, on a thread of the platform, when the process has died; soon when it already has. The handler
  // must not block. Nothing is called after the returned watch is destroyed (a call that has begun may still be
  // running). Null for nil. A process that the kernel cannot watch, and this one, never die here.
  class Watch;
  std::shared_ptr<Watch> watch(std::function<void()> handler) const;

 private:
  friend class NSXPCConnection;
  explicit NSXPCPeer(std::shared_ptr<velto::transport::PeerProcess> process) noexcept;

  std::shared_ptr<velto::transport::PeerProcess> process_;
};
