#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>

#include "platform/foundation/Fifo.h"
#include "platform/foundation/NSCondition.h"
#include "platform/foundation/ThreadAnnotations.h"

namespace velto::transport {

class QueueList;
class SerialQueue;

// Brings queues to threads that drain them. Nothing of it needs memory, since a thread that goes to sleep must be able
// to give its queue away whatever the state of the process is.
class QueueRunner {
 public:
  virtual void schedule(std::shared_ptr<SerialQueue> queue) noexcept = 0;
  // A queue that has been scheduled has become urgent.
  virtual void promote(SerialQueue& queue) noexcept = 0;
  // Whether other queues wait for a thread.
  virtual bool othersWait() const noexcept = 0;
  // The task that the current thread runs sleeps, and is awake again.
  virtual void taskSleeps() noexcept = 0;
  virtual void taskWakes() noexcept = 0;

 protected:
  virtual ~QueueRunner() = default;
};

// What can be done again and again: a turn of it in a queue needs no memory of its own.
class Repeatable {
 public:
  virtual ~Repeatable() = default;
  virtual void takeTurn(unsigned kind) = 0;
};

// Something that tasks leave to be done once for many of them.
class Aftermath {
 public:
  virtual ~Aftermath() = default;
  virtual void tasksPause() noexcept = 0;
};

// Runs tasks one at a time, in the order in which they were added, on whichever thread drains it.
//
// One exception keeps a dead connection from stranding a thread: after letOvertake(), tasks no longer wait behind one
// that sleeps in an NSCondition. (The sleeper may be waiting for exactly what those tasks would tell it.) They then run
// on another thread, still one at a time among themselves; and the sleeper, once it wakes, goes on only when the task
// that runs then has ended or sleeps itself, and before any other begins. It does not wait for that for ever: it may
// hold a lock of its own that the other wants.
class SerialQueue : public std::enable_shared_from_this<SerialQueue> {
 public:
  using Task = std::function<void()>;

  explicit SerialQueue(QueueRunner& runner) : runner_(&runner) {}
  SerialQueue(const SerialQueue&) = delete;
  SerialQueue& operator=(const SerialQueue&) = delete;

  // Adds a task. Nothing runs on the calling thread: the queue is scheduled when nobody drains it already.
  void add(Task task);
  // Adds so many turns of this kind.
  void add(std::shared_ptr<Repeatable> work, unsigned kind, std::size_t turns);
  // Runs tasks until none is left, or, after a turn, until it is scheduled again behind others that wait. Called only
  // by whom the runner brought it to.
  void drain();
  void letOvertake() noexcept;
  // From now on this runner brings it to threads, and the queue holds it. A task that runs goes on where it is.
  void moveTo(std::shared_ptr<QueueRunner> runner) noexcept;
  // For a runner: nobody will drain it. What waits is let go of, here and not run; what is added later is scheduled
  // again.
  void abandon() noexcept;
  // Whether tasks that wait should find a thread even when few are left: after letOvertake().
  bool isUrgent() const noexcept { return urgent_.load(std::memory_order_acquire); }
  // Whether it was scheduled last because a task sleeps that others may overtake.
  bool overtakes() const noexcept { return overtakes_.load(std::memory_order_acquire); }
  // For a task: whether it has overtaken one that sleeps.
  bool hasSleeper();
  // For a task of this queue: whether others wait behind it. Then the aftermath is told as soon as none does, and
  // before the thread does anything but run them, or sleeps in an NSCondition. One at a time: false for another.
  bool leaves(const std::shared_ptr<Aftermath>& aftermath);

 private:
  friend class QueueList;
  // Follows one thread through one drain.
  class Drainer;
  // A task, or turns.
  struct Entry {
    Task task;
    std::shared_ptr<Repeatable> work;
    unsigned kind = 0;
    std::size_t turns = 1;
  };

  bool mayTake() const VELTO_REQUIRES(mutex_);
  // Whether the caller is to schedule the queue: it counts as scheduled from then on.
  bool mustSchedule() VELTO_REQUIRES(mutex_);
  void taskEnds() VELTO_REQUIRES(mutex_);
  bool takeNext(bool afterTask, Entry& next, bool& leavesMore);
  void giveWay();
  void schedule() noexcept;
  bool hasMoved(const QueueRunner* from) const noexcept { return runner_.load(std::memory_order_acquire) != from; }

  std::atomic<QueueRunner*> runner_;
  // The one that it was brought to last.
  std::atomic<QueueRunner*> scheduledOn_{nullptr};
  std::atomic<bool> urgent_{false};
  std::atomic<bool> overtakes_{false};

  Mutex mutex_;
  std::condition_variable atRest_;
  std::shared_ptr<QueueRunner> heldRunner_ VELTO_GUARDED_BY(mutex_);
  Fifo<Entry> tasks_ VELTO_GUARDED_BY(mutex_);
  // Brought, or about to be, to a thread that has not begun to drain.
  bool scheduled_ VELTO_GUARDED_BY(mutex_) = false;
  // Tasks that have begun: awake, asleep, and awake again but not going on yet.
  unsigned running_ VELTO_GUARDED_BY(mutex_) = 0;
  unsigned sleeping_ VELTO_GUARDED_BY(mutex_) = 0;
  unsigned waking_ VELTO_GUARDED_BY(mutex_) = 0;

  // Of the list that the queue is in; guarded by whoever owns that.
  std::chrono::steady_clock::time_point listedAt_;
  QueueList* list_ = nullptr;
  std::shared_ptr<SerialQueue> listed_;
  SerialQueue* before_ = nullptr;
  SerialQueue* after_ = nullptr;
};

// Queues in order. Needs no memory of its own: a queue is in one list at most. Not synchronised.
class QueueList {
 public:
  bool isEmpty() const noexcept { return first_ == nullptr; }
  bool holds(const SerialQueue& queue) const noexcept { return queue.list_ == this; }
  void push(std::shared_ptr<SerialQueue> queue) noexcept;
  // When the first of it was put there; it is not empty.
  std::chrono::steady_clock::time_point waitsSince() const noexcept { return first_->listedAt_; }
  // Nothing when it is empty.
  std::shared_ptr<SerialQueue> pop() noexcept;
  std::shared_ptr<SerialQueue> remove(SerialQueue& queue) noexcept;

 private:
  SerialQueue* first_ = nullptr;
  SerialQueue* last_ = nullptr;
};

}  // namespace velto::transport
