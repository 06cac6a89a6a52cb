#pragma once

#include <functional>
#include <memory>
#include <utility>

#include "platform/foundation/Export.h"

namespace velto {

namespace transport {
class LoopRunner;
class QueueRunner;
class SerialQueue;
}  // namespace transport

// A place in an event loop of the user's where callbacks run, and nowhere else:
//
//   velto::Loop loop;
//   pollfd watched{loop.fd(), POLLIN, 0};
//   while (poll(&watched, 1, -1) > 0) loop.dispatch();
//
// What has come and is not dispatched counts against its sender's credit: a loop that is busy bounds those who send.
// Copies are the same loop. When the last of them goes, what has not been dispatched is let go of, on that thread, and
// nothing is delivered there any more: close first what delivers on it. Thread-safe, but dispatch() is one thread's at
// a time.
class VELTO_EXPORT Loop {
 public:
  // Raises std::system_error when the kernel has no descriptor left.
  Loop();

  // Readable (level-triggered) for as long as something waits. Borrowed; stays the same.
  [[nodiscard]] int fd() const noexcept;
  // Runs what waits now, and not what comes meanwhile. Never blocks by itself. True when something is left, for which
  // fd() stays readable. Not from inside of a callback.
  bool dispatch() const;
  // Whether the current thread is inside of a dispatch().
  [[nodiscard]] static bool isDispatching() noexcept;

 private:
  friend class Delivery;
  std::shared_ptr<transport::LoopRunner> runner_;
};

// Where callbacks run: on threads of the platform (the default), in a loop, or wherever an executor runs what it is
// given, such as a pool of threads. Callbacks of one connection always run one at a time and in order.
class VELTO_EXPORT Delivery {
 public:
  // Called on any thread, several at once; is to run the task later, on whichever thread it likes, but not inside of
  // the call. One that raises is asked again soon. One that lets go of a task without running it has what waits then
  // let go of. It must be possible to call it for as long as something delivers there.
  using Executor = std::function<void(std::function<void()> task)>;

  Delivery() noexcept = default;
  Delivery(const Loop& loop) noexcept;
  explicit Delivery(Executor executor);

  // Null on threads of the platform.
  [[nodiscard]] const std::shared_ptr<transport::QueueRunner>& runner() const noexcept { return runner_; }

 private:
  std::shared_ptr<transport::QueueRunner> runner_;
};

}  // namespace velto
