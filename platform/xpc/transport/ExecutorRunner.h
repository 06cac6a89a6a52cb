#pragma once

#include <functional>
#include <memory>

#include "platform/foundation/ThreadAnnotations.h"
#include "platform/xpc/transport/SerialQueue.h"

namespace velto::transport {

// Brings queues to an executor of the user's, such as a pool of threads: a function that runs what it is given, later,
// on whichever thread it likes.
//
// Thread-safe.
class ExecutorRunner final : public QueueRunner, public std::enable_shared_from_this<ExecutorRunner> {
 public:
  using Executor = std::function<void(std::function<void()>)>;

  // The executor may be called by several threads at once. One that raises is asked again a little later.
  explicit ExecutorRunner(Executor executor) : executor_(std::move(executor)) {}
  ~ExecutorRunner() override = default;

  void schedule(std::shared_ptr<SerialQueue> queue) noexcept override;
  void promote(SerialQueue&) noexcept override {}
  bool othersWait() const noexcept override;
  void taskSleeps() noexcept override {}
  void taskWakes() noexcept override {}

 private:
  // What the executor is given.
  class Turn;

  void ask() noexcept;
  void askLater() noexcept;
  std::shared_ptr<SerialQueue> takeNext();

  const Executor executor_;
  mutable Mutex mutex_;
  QueueList waiting_ VELTO_GUARDED_BY(mutex_);
  std::size_t count_ VELTO_GUARDED_BY(mutex_) = 0;
  // For which nobody could be asked.
  std::size_t left_ VELTO_GUARDED_BY(mutex_) = 0;
};

}  // namespace velto::transport
