// The half of the reactor that says which thread drains which queue. A queue that is scheduled waits in one of three
// lists until a thread has a seat for it. Who leaves a seat looks into the lists; nobody is woken for what cannot run,
// so that a shortage of threads costs no time.

#include <chrono>
#include <cstddef>
#include <memory>
#include <new>
#include <utility>

#include "platform/xpc/contract/Limits.h"
#include "platform/xpc/transport/Reactor.h"

namespace velto::transport {

namespace {

// A queue that has waited so long gets a thread beyond those that the processors are for: whoever has them may be
// blocked, or busy for long. How often that is looked at, and how many get one then: one as long as anybody gets on,
// since what all wait for may be the processors themselves.
constexpr std::chrono::milliseconds kLongestWait{5};
constexpr std::chrono::milliseconds kLookPause{2};
constexpr std::size_t kPasses = 4;

// Whether the seat that the current thread has is an urgent queue's; none while it has no seat.
thread_local bool* seatIsUrgent = nullptr;

}  // namespace

bool Reactor::mayLinger() noexcept {
  if (seatIsUrgent == nullptr || !*seatIsUrgent) return true;
  for (bool canGrow = true;; canGrow = startWorker()) {
    MutexLock lock(mutex_);
    --inUrgent_;
    const Seat seat = takeSeat(false, canGrow);
    if (seat == Seat::taken) {
      *seatIsUrgent = false;
      return true;
    }
    ++inUrgent_;
    if (seat != Seat::needsThread) return false;
  }
}

void Reactor::taskSleeps() noexcept {
  if (seatIsUrgent == nullptr || *seatIsUrgent) return;
  bool leavesRoom = false;
  {
    MutexLock lock(mutex_);
    ++asleep_;
    leavesRoom = hasScheduled();
  }
  if (!leavesRoom) return;
  ensureThread();
  wakeOne();
}

void Reactor::taskWakes() noexcept {
  if (seatIsUrgent == nullptr || *seatIsUrgent) return;
  MutexLock lock(mutex_);
  --asleep_;
}

void Reactor::enlist(std::shared_ptr<SerialQueue> queue) {
  QueueList& list = queue->overtakes() ? overtaking_ : queue->isUrgent() ? ended_ : ordinary_;
  list.push(std::move(queue));
  scheduled_.fetch_add(1, std::memory_order_relaxed);
}

// Whether as many callbacks are awake as get on at once.
bool Reactor::isCrowded() const {
  return inOrdinary_ - asleep_ >= processors_ && passes_ == 0;
}

// An ordinary queue takes a thread only if enough are left, or no further one can be had and nobody else is in a
// callback: then there is no choice.
Reactor::Seat Reactor::takeSeat(bool urgent, bool canGrow) {
  // A thread that the kernel may still refuse is none.
  const std::size_t taken = inOrdinary_ + inUrgent_ + 1 + starting_;
  const std::size_t others = threads_ > taken ? threads_ - taken : 0;
  if (!urgent && inOrdinary_ >= limits::kMaximumWorkers) return Seat::none;
  // For a single one the thread that reads can do what is urgent, too.
  if (others < (urgent || inOrdinary_ == 0 ? 1 : kStandBy)) {
    if (canGrow && threads_ < kMaximumThreads) return Seat::needsThread;
    if (inUrgent_ > 0 || (!urgent && (inOrdinary_ > 0 || threads_ > kStandBy))) return Seat::none;
  }
  if (!urgent && inOrdinary_ - asleep_ >= processors_ && passes_ > 0) --passes_;
  ++(urgent ? inUrgent_ : inOrdinary_);
  return Seat::taken;
}

// What has ended can do with an urgent seat when threads are short, but has no other privilege.
Reactor::Seat Reactor::takeSeatFor(bool overtakes, bool hasEnded, bool canGrow, bool& urgent) {
  urgent = overtakes;
  if (overtakes) return takeSeat(true, canGrow);
  if (isCrowded()) return Seat::later;
  const Seat seat = takeSeat(false, canGrow);
  if (seat != Seat::none || !hasEnded) return seat;
  urgent = true;
  return takeSeat(true, canGrow);
}

void Reactor::drainOrLeave(std::shared_ptr<SerialQueue> queue) {
  bool urgent = false;
  for (bool canGrow = true;; canGrow = startWorker()) {
    {
      MutexLock lock(mutex_);
      const Seat seat = takeSeatFor(queue->overtakes(), queue->isUrgent(), canGrow, urgent);
      if (seat == Seat::needsThread) continue;
      if (seat != Seat::taken) enlist(std::move(queue));
      if (seat == Seat::none) return;
    }
    return queue ? drain(queue, urgent) : lookWhoWaits();
  }
}

QueueList& Reactor::nextList() {
  if (!overtaking_.isEmpty()) return overtaking_;
  if (ended_.isEmpty() || ordinary_.isEmpty()) return ended_.isEmpty() ? ordinary_ : ended_;
  return std::exchange(endedIsNext_, !endedIsNext_) ? ended_ : ordinary_;
}

std::shared_ptr<SerialQueue> Reactor::takeScheduled(bool& urgent) {
  for (bool canGrow = true;; canGrow = startWorker()) {
    std::shared_ptr<SerialQueue> queue;
    bool leavesMore = false;
    {
      MutexLock lock(mutex_);
      QueueList* list = &nextList();
      if (list->isEmpty()) return nullptr;
      Seat seat = takeSeatFor(list == &overtaking_, list == &ended_, canGrow, urgent);
      if (seat == Seat::none && list == &ordinary_ && !ended_.isEmpty()) {
        list = &ended_;
        seat = takeSeatFor(false, true, canGrow, urgent);
      }
      if (seat == Seat::needsThread) continue;
      if (seat == Seat::none) return nullptr;
      if (seat == Seat::taken) queue = list->pop();
      leavesMore = queue && scheduled_.fetch_sub(1, std::memory_order_relaxed) > 1;
    }
    if (!queue) lookWhoWaits();
    // Several wake-ups may have reached this thread as one event, and what it has taken may keep it busy for long.
    if (leavesMore) wakeOne();
    return queue;
  }
}

void Reactor::runScheduled() {
  if (!hasScheduled()) return;
  bool urgent = false;
  while (const auto queue = takeScheduled(urgent)) drain(queue, urgent);
  if (hasScheduled()) tryAgainLater();
}

void Reactor::drain(const std::shared_ptr<SerialQueue>& queue, bool urgent) {
  seatIsUrgent = &urgent;
  queue->drain();
  seatIsUrgent = nullptr;
  MutexLock lock(mutex_);
  --(urgent ? inUrgent_ : inOrdinary_);
  getsOn_ = true;
}

// While queues wait for their turn although there are threads enough.
void Reactor::lookWhoWaits() noexcept {
  {
    MutexLock lock(mutex_);
    if (std::exchange(looks_, true)) return;
  }
  try {
    timers_.add(kLookPause, [this] { letPass(); });
  } catch (const std::bad_alloc&) {
    MutexLock lock(mutex_);
    looks_ = false;
  }
}

void Reactor::letPass() noexcept {
  {
    MutexLock lock(mutex_);
    looks_ = false;
    const auto late = Clock::now() - kLongestWait;
    const auto isLate = [late](const QueueList& list) { return !list.isEmpty() && list.waitsSince() <= late; };
    if (ordinary_.isEmpty() && ended_.isEmpty()) return;
    const std::size_t passes = std::exchange(getsOn_, false) ? 1 : kPasses;
    passes_ = isLate(ordinary_) || isLate(ended_) ? passes : 0;
  }
  // Whoever looks and leaves them waiting for a turn, and not for a thread, has this done again.
  ensureThread();
  wakeOne();
}

}  // namespace velto::transport
