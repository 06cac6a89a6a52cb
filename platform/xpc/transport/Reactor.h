#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <unordered_map>

#include <sys/epoll.h>

#include "platform/foundation/ThreadAnnotations.h"
#include "platform/xpc/contract/Limits.h"
#include "platform/xpc/system/PerProcess.h"
#include "platform/xpc/transport/Events.h"
#include "platform/xpc/transport/LaterTurns.h"
#include "platform/xpc/transport/SerialQueue.h"
#include "platform/xpc/transport/TimerQueue.h"

namespace velto::transport {

// Something with a descriptor that the reactor watches, edge-triggered: an event says that something has changed, and
// not again until it changes once more.
class EventSource {
 public:
  virtual ~EventSource() = default;
  // Called by the reactor's threads, possibly by several at once and possibly once more after remove(). Never blocks
  // and calls no user code; what user code there is to run goes into a SerialQueue.
  virtual void eventsArrived(std::uint32_t events) = 0;
};

// The threads that serve every connection of the process. Each waits for an event, reads what there is, and then runs
// the callbacks that the reading brought on itself, having made sure that another thread stands ready to read. So there
// are as many threads as are busy, plus a spare or two, and a message whose receiver is idle never changes threads.
//
// Threads are scarce: a limit, or the kernel, says how many there may be, and callbacks may sleep for ever. So a
// callback never takes one of the last threads: there is always one that reads and one that runs what is urgent, which
// is what ends connections, and so frees those who sleep. And more callbacks than there are processors are awake at
// once only for a queue that has waited too long: threads without end would not make a flood of calls any shorter, but
// everybody else's turn later.
//
// Made at first use and never destroyed: threads may still run when static objects are torn down at exit. The child of
// a fork gets a new one.
class Reactor final : public QueueRunner {
 public:
  using Identifier = std::uint64_t;

  static Reactor& shared();
  // Whether the current thread is one of these.
  static bool isOwnThread() noexcept;

  // Watches a descriptor (borrowed until remove()). 0 and errno when the kernel has no room for it.
  Identifier add(int descriptor, std::uint32_t events, std::shared_ptr<EventSource> source);
  // False, and everything as before, when the kernel refuses.
  bool changeEvents(Identifier identifier, int descriptor, std::uint32_t events);
  void remove(Identifier identifier, int descriptor);
  // The same for a descriptor that is closed now, which the kernel need not be told: it forgets the descriptor with its
  // last copy. Events that come until then come to nothing.
  void forget(Identifier identifier);

  // For a thread of the reactor that reads and has found long work: makes sure that another stands ready to read, if
  // that can be.
  void standIn() noexcept;
  // The same for one that has read much at once.
  void foundMuch() noexcept { events_.foundMuch(); }
  // For those that have had their turn.
  LaterTurns& laterTurns() noexcept { return laterTurns_; }

  // For a task that may block and can be left undone: whether it should run. False when its queue is urgent, and the
  // threads that are left are needed for the ends of others.
  bool mayLinger() noexcept;

  // A queue whose tasks run on these threads.
  std::shared_ptr<SerialQueue> makeQueue();
  // What is due here is done by whoever stands ready; where nothing is watched, ensureThread() first.
  TimerQueue& timers() noexcept { return timers_; }
  // Makes sure that there is a thread that has no seat, or is about to be.
  void ensureThread() noexcept;

  void schedule(std::shared_ptr<SerialQueue> queue) noexcept override;
  void promote(SerialQueue& queue) noexcept override;
  bool othersWait() const noexcept override { return scheduled_.load(std::memory_order_relaxed) > 0; }
  void taskSleeps() noexcept override;
  void taskWakes() noexcept override;

 private:
  friend Reactor& system::perProcess<Reactor>();
  using Clock = std::chrono::steady_clock;
  // Threads besides the one that takes up an ordinary queue: one that reads, and one for what is urgent.
  static constexpr std::size_t kStandBy = 2;
  static constexpr std::size_t kMaximumThreads = limits::kMaximumWorkers + limits::kReservedWorkers;

  // A thread's right to drain a queue; it may come later, when those that run get on, or do not.
  enum class Seat { taken, needsThread, none, later };

  Reactor();

  // Makes what is missing of the kernel's objects. False, and errno, while it cannot be had: then callbacks still run,
  // nothing can be watched, and the threads try again until it can.
  bool setUp();
  void wakeOne() noexcept;
  void work();
  bool mayWait() noexcept;
  // Waits for one event and deals with it.
  void serveOne();
  int waitForEvent(epoll_event& event);
  void pauseAfterFailure();
  void dispatch(const epoll_event& event);
  void runTimers();

  void drainOrLeave(std::shared_ptr<SerialQueue> queue);
  void runScheduled();
  // The next queue that may be drained, with a seat for it; nothing when there is none.
  std::shared_ptr<SerialQueue> takeScheduled(bool& urgent);
  void drain(const std::shared_ptr<SerialQueue>& queue, bool urgent);
  void enlist(std::shared_ptr<SerialQueue> queue) VELTO_REQUIRES(mutex_);
  bool isCrowded() const VELTO_REQUIRES(mutex_);
  Seat takeSeat(bool urgent, bool canGrow) VELTO_REQUIRES(mutex_);
  // For a queue of this kind; tells which kind of seat it is.
  Seat takeSeatFor(bool overtakes, bool hasEnded, bool canGrow, bool& urgent) VELTO_REQUIRES(mutex_);
  QueueList& nextList() VELTO_REQUIRES(mutex_);
  bool hasScheduled() const noexcept { return othersWait(); }
  bool startWorker() noexcept;
  void threadWasRefused(int error) noexcept;
  void tryAgainLater() noexcept;
  void lookWhoWaits() noexcept;
  void letPass() noexcept;
  void drainLogSoon() noexcept;

  Mutex setUpMutex_;
  std::atomic<bool> isSetUp_{false};
  bool watchesTimers_ VELTO_GUARDED_BY(setUpMutex_) = false;
  bool watchesLater_ VELTO_GUARDED_BY(setUpMutex_) = false;
  Events events_;
  TimerQueue timers_;
  LaterTurns laterTurns_;
  const std::shared_ptr<SerialQueue> logQueue_;
  // The failure that lasts has been logged.
  std::atomic<bool> complained_{false};
  std::atomic<std::size_t> waiting_{0};
  // Queues in the two lists.
  std::atomic<std::size_t> scheduled_{0};

  Mutex mutex_;
  std::unordered_map<Identifier, std::shared_ptr<EventSource>> sources_ VELTO_GUARDED_BY(mutex_);
  Identifier lastIdentifier_ VELTO_GUARDED_BY(mutex_) = 0;
  // Those that overtake a sleeper, those of connections that have ended, and all others. The first go before; the other
  // two take turns, so that ends without end keep nobody waiting.
  QueueList overtaking_ VELTO_GUARDED_BY(mutex_);
  QueueList ended_ VELTO_GUARDED_BY(mutex_);
  QueueList ordinary_ VELTO_GUARDED_BY(mutex_);
  bool endedIsNext_ VELTO_GUARDED_BY(mutex_) = false;
  // All threads, and those that have a seat, ordinary or urgent.
  std::size_t threads_ VELTO_GUARDED_BY(mutex_) = 0;
  // Of them, those that the kernel has not granted yet.
  std::size_t starting_ VELTO_GUARDED_BY(mutex_) = 0;
  std::size_t inOrdinary_ VELTO_GUARDED_BY(mutex_) = 0;
  std::size_t inUrgent_ VELTO_GUARDED_BY(mutex_) = 0;
  // Of those in an ordinary queue, how many sleep; and how many queues may take a thread although as many are awake as
  // there are processors.
  std::size_t asleep_ VELTO_GUARDED_BY(mutex_) = 0;
  std::size_t passes_ VELTO_GUARDED_BY(mutex_) = 0;
  // A queue has had its turn since that was looked at.
  bool getsOn_ VELTO_GUARDED_BY(mutex_) = false;
  bool looks_ VELTO_GUARDED_BY(mutex_) = false;
  const std::size_t processors_;
  // The kernel has refused a thread: until then it is not asked again, and somebody will be reminded to.
  Clock::time_point refusedUntil_ VELTO_GUARDED_BY(mutex_);
  bool saidRefused_ VELTO_GUARDED_BY(mutex_) = false;
  bool willTryAgain_ VELTO_GUARDED_BY(mutex_) = false;
};

}  // namespace velto::transport
