// A queue is drained by one thread at a time, as long as that is awake. Who goes to sleep inside a task lets go of the
// queue, and somebody else may drain it if tasks may overtake; who wakes has the next turn. So of all tasks that have
// begun one is awake, but for the moment in which a sleeper has lost its patience.

#include "platform/xpc/transport/SerialQueue.h"

#include <chrono>
#include <exception>
#include <utility>

#include "platform/logging/VeltoLogging.h"
#include "platform/xpc/contract/Limits.h"
#include "platform/xpc/system/Descriptor.h"

namespace velto::transport {

namespace {

// Tasks that run before others that wait have a turn.
constexpr unsigned kTurn = 4;

// A callback of the user's that raises must not end the process that a peer can make call it.
template <class Call>
void contained(const Call& call) {
  try {
    call();
  } catch (const std::exception& exception) {
    VKTLoggingLog(VKTLogGetAnchor(), VKTLogLevelFailure, "A callback raised an exception, which is ignored: %s",
                  exception.what());
  } catch (...) {
    VKTLoggingLog(VKTLogGetAnchor(), VKTLogLevelFailure, "A callback raised an unknown exception, which is ignored");
  }
}

}  // namespace

class SerialQueue::Drainer final : public WaitObserver {
 public:
  Drainer(SerialQueue& queue, QueueRunner& runner)
      : queue_(queue), runner_(runner), before_(WaitObserver::install(this)), outer_(std::exchange(current, this)) {}
  ~Drainer() {
    pause();
    current = outer_;
    WaitObserver::install(before_);
  }
  Drainer(const Drainer&) = delete;
  Drainer& operator=(const Drainer&) = delete;

  // Of the current thread; null while it drains nothing.
  static thread_local Drainer* current;

  bool drains(const SerialQueue& queue) const noexcept { return &queue_ == &queue; }
  bool leave(const std::shared_ptr<Aftermath>& aftermath) {
    if (!leavesMore) return false;
    if (!aftermath_) aftermath_ = aftermath;
    return aftermath_ == aftermath;
  }
  void pause() noexcept {
    // In the child of a fork it is its parent's.
    const auto told = std::exchange(aftermath_, nullptr);
    if (told && generation_ == system::forkGeneration()) told->tasksPause();
  }

  void threadWillWait() noexcept override {
    pause();
    leavesMore = false;
    bool schedules = false;
    {
      MutexLock lock(queue_.mutex_);
      queue_.taskEnds();
      ++queue_.sleeping_;
      schedules = queue_.mustSchedule();
    }
    runner_.taskSleeps();
    if (schedules) queue_.schedule();
  }
  void threadDidWait() noexcept override {
    runner_.taskWakes();
    const auto patience = std::chrono::steady_clock::now() + limits::kWakingPatience;
    MutexLock lock(queue_.mutex_);
    --queue_.sleeping_;
    ++queue_.waking_;
    while (queue_.running_ > 0) {
      if (lock.waitUntil(queue_.atRest_, patience) == std::cv_status::timeout) break;
    }
    --queue_.waking_;
    ++queue_.running_;
  }

  // Whether tasks wait behind the one that runs.
  bool leavesMore = false;

 private:
  SerialQueue& queue_;
  QueueRunner& runner_;
  WaitObserver* const before_;
  Drainer* const outer_;
  const unsigned generation_ = system::forkGeneration();
  std::shared_ptr<Aftermath> aftermath_;
};

thread_local SerialQueue::Drainer* SerialQueue::Drainer::current = nullptr;

bool SerialQueue::leaves(const std::shared_ptr<Aftermath>& aftermath) {
  Drainer* const drainer = Drainer::current;
  return drainer != nullptr && drainer->drains(*this) && drainer->leave(aftermath);
}

bool SerialQueue::mayTake() const {
  return running_ == 0 && waking_ == 0 && !tasks_.empty() && (sleeping_ == 0 || isUrgent());
}

bool SerialQueue::mustSchedule() {
  if (scheduled_ || !mayTake()) return false;
  scheduled_ = true;
  overtakes_.store(sleeping_ > 0, std::memory_order_release);
  return true;
}

void SerialQueue::taskEnds() {
  --running_;
  if (waking_ > 0) atRest_.notify_all();
}

void SerialQueue::add(Task task) {
  {
    MutexLock lock(mutex_);
    tasks_.emplace_back().task = std::move(task);
    if (!mustSchedule()) return;
  }
  schedule();
}

void SerialQueue::add(std::shared_ptr<Repeatable> work, unsigned kind, std::size_t turns) {
  {
    MutexLock lock(mutex_);
    Entry& added = tasks_.emplace_back();
    added.work = std::move(work);
    added.kind = kind;
    added.turns = turns;
    if (!mustSchedule()) return;
  }
  schedule();
}

void SerialQueue::schedule() noexcept {
  QueueRunner* const runner = runner_.load(std::memory_order_acquire);
  scheduledOn_.store(runner, std::memory_order_relaxed);
  runner->schedule(shared_from_this());
}

void SerialQueue::moveTo(std::shared_ptr<QueueRunner> runner) noexcept {
  MutexLock lock(mutex_);
  runner_.store(runner.get(), std::memory_order_release);
  std::swap(heldRunner_, runner);
}

void SerialQueue::abandon() noexcept {
  Fifo<Entry> dropped;
  MutexLock lock(mutex_);
  scheduled_ = false;
  std::swap(tasks_, dropped);
}

void SerialQueue::letOvertake() noexcept {
  bool schedules = false;
  {
    MutexLock lock(mutex_);
    urgent_.store(true, std::memory_order_release);
    schedules = mustSchedule();
  }
  schedules ? schedule() : runner_.load(std::memory_order_acquire)->promote(*this);
}

bool SerialQueue::hasSleeper() {
  MutexLock lock(mutex_);
  return sleeping_ > 0;
}

bool SerialQueue::takeNext(bool afterTask, Entry& next, bool& leavesMore) {
  MutexLock lock(mutex_);
  if (afterTask) {
    taskEnds();
  } else {
    scheduled_ = false;
  }
  if (!mayTake()) return false;
  ++running_;
  Entry& first = tasks_.front();
  if (first.turns > 1) {
    --first.turns;
    next.work = first.work;
    next.kind = first.kind;
    leavesMore = true;
    return true;
  }
  next = std::move(first);
  tasks_.pop_front();
  leavesMore = !tasks_.empty();
  return true;
}

// After a task: lets go of the thread.
void SerialQueue::giveWay() {
  bool schedules = false;
  {
    MutexLock lock(mutex_);
    taskEnds();
    schedules = mustSchedule();
  }
  if (schedules) schedule();
}

void SerialQueue::drain() {
  QueueRunner* const here = scheduledOn_.load(std::memory_order_relaxed);
  if (hasMoved(here)) return schedule();
  Drainer drainer(*this, *here);
  Entry next;
  unsigned count = 0;
  while (takeNext(count > 0, next, drainer.leavesMore)) {
    contained([&next] { next.work ? next.work->takeTurn(next.kind) : next.task(); });
    next.task = nullptr;
    next.work = nullptr;
    // Others may wait for the thread.
    if (hasMoved(here) || (++count % kTurn == 0 && here->othersWait())) return giveWay();
  }
}

void QueueList::push(std::shared_ptr<SerialQueue> queue) noexcept {
  SerialQueue& added = *queue;
  added.before_ = std::exchange(last_, &added);
  (added.before_ != nullptr ? added.before_->after_ : first_) = &added;
  added.listedAt_ = std::chrono::steady_clock::now();
  added.list_ = this;
  added.listed_ = std::move(queue);
}

std::shared_ptr<SerialQueue> QueueList::pop() noexcept {
  return first_ != nullptr ? remove(*first_) : nullptr;
}

std::shared_ptr<SerialQueue> QueueList::remove(SerialQueue& queue) noexcept {
  (queue.before_ != nullptr ? queue.before_->after_ : first_) = queue.after_;
  (queue.after_ != nullptr ? queue.after_->before_ : last_) = queue.before_;
  queue.list_ = nullptr;
  queue.before_ = nullptr;
  queue.after_ = nullptr;
  return std::move(queue.listed_);
}

}  // namespace velto::transport
