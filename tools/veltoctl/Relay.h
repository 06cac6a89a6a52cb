#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "platform/xpc/system/Descriptor.h"
#include "platform/xpc/transport/Channel.h"
#include "tools/veltoctl/FrameText.h"

namespace velto::ctl {

// Passes frames on between a client and its service as they are: identifiers, replies, refusals, credit, descriptors
// and goodbyes are the two ends' own. When one end goes, the other's socket is closed once all that was sent has been
// passed on; so whoever vanishes without a goodbye vanishes for the other, too.
//
// Memory is bounded by the credit that the two ends give each other. Thread-safe.
class Relay : public std::enable_shared_from_this<Relay> {
 public:
  ~Relay() { hooks_.gone(); }
  Relay(const Relay&) = delete;
  Relay& operator=(const Relay&) = delete;

  enum class Direction { toService, toClient };
  // Told on threads that others wait for: they must not block.
  struct Hooks {
    std::function<void(Direction direction, PassedFrame frame)> passed;
    // Once, when one end has gone. The reason is empty unless the protocol was broken.
    std::function<void(Direction endedBy, const std::string& reason)> ended;
    // Once, when all has been passed on that could be, and both sockets are closed.
    std::function<void()> gone;
  };

  // Both sockets are connected. False when the kernel cannot watch them; then nothing is told.
  static bool begin(system::Descriptor client, system::Descriptor service, Hooks hooks);

 private:
  class Side;

  explicit Relay(Hooks hooks) : hooks_(std::move(hooks)) {}
  std::shared_ptr<transport::Channel> other(Direction direction);
  void ended(Direction direction, const std::string& reason);

  const Hooks hooks_;
  std::mutex mutex_;
  std::shared_ptr<transport::Channel> toClient_;
  std::shared_ptr<transport::Channel> toService_;
  bool hasEnded_ = false;
};

}  // namespace velto::ctl
