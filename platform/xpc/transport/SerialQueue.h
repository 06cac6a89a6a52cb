#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>

#include "platform/foundation/NSCondition.h"
#include "platform/foundation/ThreadAnnotations.h"

namespace velto::transport {

// Runs tasks one at a time, in the order in which they were added, on whichever thread drains it.
//
// One exception keeps a dead connection from stranding a thread: after letOvertake(), tasks no longer wait behind one
// that sleeps in an NSCondition. (The sleeper may be waiting for exactly what those tasks would tell it.) They then run
// on another thread, still one at a time among themselves.
class SerialQueue : public std::enable_shared_from_this<SerialQueue> {
 public:
  using Task = std::function<void()>;
  // Brings a queue to a thread that drains it.
  using Scheduler = std::function<void(std::shared_ptr<SerialQueue>)>;

  explicit SerialQueue(Scheduler scheduler) : scheduler_(std::move(scheduler)) {}

  // Adds a task. Nothing runs on the calling thread: the scheduler is called when nobody drains the queue already.
  void add(Task task);
  // Runs tasks until none is left. Called only by whom the scheduler brought it to.
  void drain();
  void letOvertake();

 private:
  // Follows one thread through one drain.
  class Drainer;

  // Gives the queue to another thread when the one that drains it sleeps and tasks may pass.
  bool overtakes() VELTO_REQUIRES(mutex_);
  bool takeTask(std::uint64_t drainer, Task& task);

  const Scheduler scheduler_;
  Mutex mutex_;
  std::deque<Task> tasks_ VELTO_GUARDED_BY(mutex_);
  bool draining_ VELTO_GUARDED_BY(mutex_) = false;
  bool asleep_ VELTO_GUARDED_BY(mutex_) = false;
  bool mayOvertake_ VELTO_GUARDED_BY(mutex_) = false;
  // Counts up each time the queue changes hands: a drainer with an older number has lost it.
  std::uint64_t drainer_ VELTO_GUARDED_BY(mutex_) = 0;
};

}  // namespace velto::transport
