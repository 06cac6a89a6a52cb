// All idle threads wait for events (see Events), and each event goes to one of them. Handing the duty of reading from
// thread to thread therefore wakes nobody: it is enough that one thread too many waits there.
//
// Handlers that report a failure run on these threads too. So the threads do their work even while the kernel has no
// epoll descriptor to give, or waiting fails: they look for it after short pauses until the kernel has recovered.

#include "platform/xpc/transport/Reactor.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <exception>
#include <new>
#include <thread>
#include <utility>

#include <pthread.h>
#include <sys/epoll.h>

#include "platform/logging/DeferredLog.h"
#include "platform/logging/LogTimer.h"
#include "platform/logging/VeltoLogging.h"
#include "platform/xpc/contract/Limits.h"
#include "platform/xpc/system/PerProcess.h"
#include "platform/xpc/system/SystemCalls.h"

namespace velto::transport {

namespace {

constexpr Reactor::Identifier kTimer = 1;
constexpr Reactor::Identifier kLaterTurn = 2;
constexpr Reactor::Identifier kFirstSource = 3;
// Between two tries to wait for events that cannot be waited for.
constexpr std::chrono::milliseconds kPauseAfterFailure{10};

// How long the kernel is left in peace once it has refused a thread.
constexpr std::chrono::milliseconds kPauseAfterRefusal{100};

// What the current thread is to drain once it has read; set only while a reactor's thread deals with an event.
thread_local std::shared_ptr<SerialQueue>* queueToDrain = nullptr;
// Whether the current thread is the reactor's.
constinit thread_local bool isWorker = false;

}  // namespace

Reactor& Reactor::shared() {
  return system::perProcess<Reactor>();
}

Reactor::Reactor()
    : logQueue_(makeQueue()),
      lastIdentifier_(kFirstSource),
      processors_(std::max<std::size_t>(2, std::thread::hardware_concurrency())) {
  setUp();
  setLogDrainer([] { shared().drainLogSoon(); });
  setLogTimer([](std::chrono::milliseconds delay, void (*call)()) {
    try {
      shared().timers().add(delay, call);
    } catch (const std::bad_alloc&) {
      // It comes with the next line.
    }
  });
}

// A sink is user code, which may block for ever: it takes a thread as a callback does.
void Reactor::drainLogSoon() noexcept {
  try {
    logQueue_->add(drainDeferredLog);
  } catch (const std::bad_alloc&) {
    // The next line asks again.
  }
}

bool Reactor::setUp() {
  if (isSetUp_.load(std::memory_order_acquire)) return true;
  MutexLock lock(setUpMutex_);
  if (isSetUp_.load(std::memory_order_relaxed)) return true;
  if (!events_.setUp() || !timers_.makeTimer() || !laterTurns_.makeBell()) return false;
  watchesTimers_ = watchesTimers_ || events_.add(timers_.descriptor(), EPOLLIN, kTimer);
  watchesLater_ = watchesLater_ || events_.add(laterTurns_.descriptor(), EPOLLIN, kLaterTurn);
  const bool watchesAll = watchesTimers_ && watchesLater_;
  isSetUp_.store(watchesAll, std::memory_order_release);
  return watchesAll;
}

Reactor::Identifier Reactor::add(int descriptor, std::uint32_t events, std::shared_ptr<EventSource> source) {
  if (!setUp()) return 0;
  Identifier identifier = 0;
  {
    MutexLock lock(mutex_);
    identifier = ++lastIdentifier_;
    sources_.emplace(identifier, std::move(source));
  }
  if (!events_.add(descriptor, events, identifier)) {
    const int error = errno;
    MutexLock lock(mutex_);
    sources_.erase(identifier);
    errno = error;
    return 0;
  }
  ensureThread();
  return identifier;
}

bool Reactor::changeEvents(Identifier identifier, int descriptor, std::uint32_t events) {
  return events_.change(descriptor, events, identifier);
}

void Reactor::remove(Identifier identifier, int descriptor) {
  events_.remove(descriptor);
  forget(identifier);
}

void Reactor::forget(Identifier identifier) {
  std::shared_ptr<EventSource> source;  // let go of after the lock
  MutexLock lock(mutex_);
  const auto place = sources_.find(identifier);
  if (place == sources_.end()) return;
  source = std::move(place->second);
  sources_.erase(place);
}

void Reactor::standIn() noexcept {
  // One more than reads: it takes the kernel its time to bring another while everybody is busy.
  if (waiting_.load() < kStandBy) startWorker();
}

std::shared_ptr<SerialQueue> Reactor::makeQueue() {
  return std::make_shared<SerialQueue>(*this);
}

void Reactor::schedule(std::shared_ptr<SerialQueue> queue) noexcept {
  if (queueToDrain != nullptr && !*queueToDrain) {
    *queueToDrain = std::move(queue);
    return;
  }
  {
    MutexLock lock(mutex_);
    enlist(std::move(queue));
  }
  ensureThread();
  wakeOne();
}

void Reactor::promote(SerialQueue& queue) noexcept {
  {
    MutexLock lock(mutex_);
    if (!ordinary_.holds(queue)) return;
    ended_.push(ordinary_.remove(queue));
  }
  ensureThread();
  wakeOne();
}

void Reactor::wakeOne() noexcept {
  // If nobody can be woken: a new thread looks for what is scheduled before it waits.
  if (!events_.wakeOne()) startWorker();
}

// Threads without a seat read, and wait again when they have: that there is one is enough.
void Reactor::ensureThread() noexcept {
  {
    MutexLock lock(mutex_);
    if (threads_ > inOrdinary_ + inUrgent_) return;
  }
  startWorker();
}

bool Reactor::startWorker() noexcept {
  {
    MutexLock lock(mutex_);
    if (threads_ >= kMaximumThreads || Clock::now() < refusedUntil_) return false;
    ++threads_;
    ++starting_;
  }
  // Counted as waiting from here on: whoever asks next need not start another.
  waiting_.fetch_add(1);
  const auto run = [](void* reactor) -> void* {
    static_cast<Reactor*>(reactor)->work();
    return nullptr;
  };
  if (const int error = system::systemCalls().startThread(run, this)) {
    waiting_.fetch_sub(1);
    threadWasRefused(error);
    return false;
  }
  bool leavesMore = false;
  {
    MutexLock lock(mutex_);
    --starting_;
    saidRefused_ = false;
    leavesMore = hasScheduled();
  }
  // Until now the thread did not count as one that stands by: who has looked meanwhile may have left something.
  if (leavesMore) wakeOne();
  return true;
}

void Reactor::threadWasRefused(int error) noexcept {
  bool says = false;
  {
    MutexLock lock(mutex_);
    --threads_;
    --starting_;
    refusedUntil_ = Clock::now() + kPauseAfterRefusal;
    says = !std::exchange(saidRefused_, true);
  }
  if (says)
    logLater(VKTLogGetAnchor(), VKTLogLevelFailure, "No further thread can be started: %s", std::strerror(error));
}

// What waits for a thread that the kernel has refused is not forgotten, even if nothing else ever happens here.
void Reactor::tryAgainLater() noexcept {
  {
    MutexLock lock(mutex_);
    if (Clock::now() >= refusedUntil_ || std::exchange(willTryAgain_, true)) return;
  }
  try {
    timers_.add(kPauseAfterRefusal, [this] {
      {
        MutexLock lock(mutex_);
        willTryAgain_ = false;
      }
      if (hasScheduled()) wakeOne();
    });
  } catch (const std::bad_alloc&) {
    MutexLock lock(mutex_);
    willTryAgain_ = false;
  }
}

bool Reactor::isOwnThread() noexcept {
  return isWorker;
}

void Reactor::work() {
  isWorker = true;
  pthread_setname_np(pthread_self(), "velto-worker");
  if (hasScheduled()) {
    waiting_.fetch_sub(1);
    runScheduled();
    waiting_.fetch_add(1);
  }
  while (mayWait()) {
    serveOne();
    waiting_.fetch_add(1);
  }
  MutexLock lock(mutex_);
  --threads_;
}

// For a thread that is counted as waiting: if too many are, it is not any more.
bool Reactor::mayWait() noexcept {
  std::size_t waiting = waiting_.load();
  while (waiting > limits::kSpareWorkers) {
    if (waiting_.compare_exchange_weak(waiting, waiting - 1)) return false;
  }
  return true;
}

int Reactor::waitForEvent(epoll_event& event) {
  const int count = setUp() ? events_.wait(event) : -1;
  if (count < 0) pauseAfterFailure();
  if (count >= 0) complained_.store(false, std::memory_order_relaxed);
  // Those who stand by will not hear of the next event: a new thread will.
  if (!events_.isOpen()) startWorker();
  return count;
}

void Reactor::pauseAfterFailure() {
  const int error = errno;
  if (!complained_.exchange(true)) {
    logLater(VKTLogGetAnchor(), VKTLogLevelFailure, "Events cannot be waited for: %s", std::strerror(error));
  }
  std::this_thread::sleep_for(kPauseAfterFailure);
}

void Reactor::serveOne() {
  epoll_event event{};
  const int count = waitForEvent(event);
  waiting_.fetch_sub(1);
  std::shared_ptr<SerialQueue> queue;
  if (count > 0) {
    queueToDrain = &queue;
    const LogDeferral deferral;
    try {
      dispatch(event);
    } catch (const std::exception& exception) {
      // Only memory can fail here. What it was needed for is lost, and the process is not.
      VKTLoggingLog(VKTLogGetAnchor(), VKTLogLevelFailure, "An event could not be dealt with: %s", exception.what());
    }
    queueToDrain = nullptr;
  }
  if (queue) drainOrLeave(std::move(queue));
  runScheduled();
}

void Reactor::dispatch(const epoll_event& event) {
  // A copy: the kernel's structure is packed, and nothing may refer to what lies askew in it.
  const Identifier identifier = event.data.u64;
  if (identifier == Events::kWakeUp) return;
  if (identifier == kTimer) return runTimers();
  if (identifier == kLaterTurn) return laterTurns_.takeNext();
  std::shared_ptr<EventSource> source;
  {
    MutexLock lock(mutex_);
    const auto place = sources_.find(identifier);
    if (place != sources_.end()) source = place->second;
  }
  if (source) source->eventsArrived(event.events);
}

void Reactor::runTimers() {
  for (const auto& action : timers_.takeDue()) {
    try {
      action();
    } catch (const std::exception& exception) {
      VKTLoggingLog(VKTLogGetAnchor(), VKTLogLevelFailure, "What was due could not be done: %s", exception.what());
    }
  }
}

}  // namespace velto::transport
