#pragma once

#include <memory>

#include "platform/foundation/ThreadAnnotations.h"
#include "platform/xpc/system/Descriptor.h"
#include "platform/xpc/transport/SerialQueue.h"

namespace velto::transport {

// Brings queues to whoever calls dispatch(): callbacks run in a loop of the user's and nowhere else. What waits for its
// turn is kept where it came in, so that a loop that is busy bounds those who send to it.
//
// Thread-safe.
class LoopRunner final : public QueueRunner, public std::enable_shared_from_this<LoopRunner> {
 public:
  // Null, and errno, when the kernel has no descriptor left. What is returned is for whoever dispatches: when the last
  // reference of these goes, what waits is let go of, and so is all that comes later. Others take shared_from_this().
  static std::shared_ptr<LoopRunner> make();
  explicit LoopRunner(system::Descriptor wakeUp) : wakeUp_(std::move(wakeUp)) {}
  ~LoopRunner() override = default;

  // Readable for as long as something waits to be run.
  int descriptor() const noexcept { return wakeUp_.get(); }
  // Runs what waits now, each queue for a turn; what comes meanwhile waits for the next call. True when something is
  // left. Not from inside of what it runs.
  bool dispatch();
  static bool isDispatching() noexcept;

  void schedule(std::shared_ptr<SerialQueue> queue) noexcept override;
  void promote(SerialQueue&) noexcept override {}
  bool othersWait() const noexcept override;
  void taskSleeps() noexcept override {}
  void taskWakes() noexcept override {}

 private:
  std::shared_ptr<SerialQueue> takeNext();
  void abandon() noexcept;

  const system::Descriptor wakeUp_;
  mutable Mutex mutex_;
  QueueList waiting_ VELTO_GUARDED_BY(mutex_);
  std::size_t count_ VELTO_GUARDED_BY(mutex_) = 0;
  bool isAbandoned_ VELTO_GUARDED_BY(mutex_) = false;
};

}  // namespace velto::transport
