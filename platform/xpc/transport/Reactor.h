#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <memory>
#include <unordered_map>
#include <vector>

#include <sys/epoll.h>

#include "platform/foundation/ThreadAnnotations.h"
#include "platform/xpc/system/Descriptor.h"
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
// Made at first use and never destroyed: threads may still run when static objects are torn down at exit. The child of
// a fork gets a new one.
class Reactor {
 public:
  using Identifier = std::uint64_t;

  static Reactor& shared();

  // Watches a descriptor (borrowed until remove()). 0 and errno when the kernel has no room for it.
  Identifier add(int descriptor, std::uint32_t events, std::shared_ptr<EventSource> source);
  // False, and everything as before, when the kernel refuses.
  bool changeEvents(Identifier identifier, int descriptor, std::uint32_t events);
  void remove(Identifier identifier, int descriptor);

  // A queue whose tasks run on these threads.
  std::shared_ptr<SerialQueue> makeQueue();
  TimerQueue& timers() noexcept { return timers_; }

 private:
  Reactor();

  // Makes what is missing of the kernel's objects. False, and errno, while it cannot be had: then callbacks still run,
  // nothing can be watched, and the threads try again until it can.
  bool setUp();
  void schedule(std::shared_ptr<SerialQueue> queue);
  void wakeOne();
  void work();
  // Waits for one event and deals with it.
  void serveOne();
  int waitForEvent(epoll_event& event);
  void pauseAfterFailure();
  void runScheduled();
  void dispatch(const epoll_event& event);
  // False when no thread may run callbacks now; the queue is then scheduled again.
  bool drain(std::shared_ptr<SerialQueue> queue);
  std::shared_ptr<SerialQueue> takeScheduled();
  bool hasScheduled();
  // Makes sure that a thread waits for events, or is about to, besides this one.
  bool ensureSpare();
  bool startWorker();

  Mutex setUpMutex_;
  std::atomic<bool> isSetUp_{false};
  // Written with setUpMutex_ held, until it is set up; then read by everybody.
  system::Descriptor epoll_;
  system::Descriptor wakeUp_;
  bool watchesWakeUp_ VELTO_GUARDED_BY(setUpMutex_) = false;
  bool watchesTimers_ VELTO_GUARDED_BY(setUpMutex_) = false;
  TimerQueue timers_;
  // The failure that lasts has been logged.
  std::atomic<bool> complained_{false};
  std::atomic<std::size_t> waiting_{0};
  std::atomic<std::size_t> workers_{0};

  Mutex mutex_;
  std::unordered_map<Identifier, std::shared_ptr<EventSource>> sources_ VELTO_GUARDED_BY(mutex_);
  Identifier lastIdentifier_ VELTO_GUARDED_BY(mutex_) = 0;
  std::deque<std::shared_ptr<SerialQueue>> scheduled_ VELTO_GUARDED_BY(mutex_);
};

}  // namespace velto::transport
