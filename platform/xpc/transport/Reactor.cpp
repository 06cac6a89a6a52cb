// All idle threads sleep in epoll_wait on one epoll descriptor, and the kernel wakes one of them per event. Handing the
// duty of reading from thread to thread therefore costs nothing: it is enough that one thread too many waits there.
//
// Handlers that report a failure run on these threads too. So the threads do their work even while the kernel has no
// epoll descriptor to give, or waiting fails: they look for it after short pauses until the kernel has recovered.

#include "platform/xpc/transport/Reactor.h"

#include <cerrno>
#include <chrono>
#include <cstring>
#include <exception>
#include <string>
#include <thread>

#include <pthread.h>
#include <signal.h>
#include <sys/epoll.h>

#include "VeltoIPC/Limits.h"
#include "platform/logging/VeltoLogging.h"
#include "platform/xpc/system/SystemCalls.h"

namespace velto::transport {

namespace {

constexpr Reactor::Identifier kWakeUp = 0;
constexpr Reactor::Identifier kTimer = 1;
constexpr Reactor::Identifier kFirstSource = 2;
// Between two tries to wait for events that cannot be waited for.
constexpr std::chrono::milliseconds kPauseAfterFailure{10};

// What the current thread is to drain once it has read; set only while a reactor's thread deals with an event.
thread_local std::vector<std::shared_ptr<SerialQueue>>* queuesToDrain = nullptr;

epoll_event eventFor(Reactor::Identifier identifier, std::uint32_t events) {
  epoll_event event{};
  event.events = events | EPOLLET;
  event.data.u64 = identifier;
  return event;
}

// Signals belong to the program's own threads.
class SignalsBlocked {
 public:
  SignalsBlocked() {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before_);
  }
  ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
  SignalsBlocked(const SignalsBlocked&) = delete;
  SignalsBlocked& operator=(const SignalsBlocked&) = delete;

 private:
  sigset_t before_{};
};

struct SharedReactor {
  unsigned generation;
  Reactor* reactor;
};

}  // namespace

Reactor& Reactor::shared() {
  // Found without a lock: the child of a fork may have inherited a locked one.
  static std::atomic<const SharedReactor*> current{nullptr};
  const SharedReactor* found = current.load(std::memory_order_acquire);
  while (found == nullptr || found->generation != system::forkGeneration()) {
    const auto* made = new SharedReactor{system::forkGeneration(), new Reactor};
    if (current.compare_exchange_strong(found, made, std::memory_order_acq_rel)) {
      found = made;
      break;
    }
    delete made->reactor;
    delete made;
  }
  return *found->reactor;
}

Reactor::Reactor() : lastIdentifier_(kFirstSource) {
  setUp();
}

bool Reactor::setUp() {
  if (isSetUp_.load(std::memory_order_acquire)) return true;
  MutexLock lock(setUpMutex_);
  if (isSetUp_.load(std::memory_order_relaxed)) return true;
  auto& calls = system::systemCalls();
  if (!epoll_) epoll_ = system::Descriptor(calls.epollCreate());
  if (!epoll_) return false;
  if (!wakeUp_) wakeUp_ = system::Descriptor(calls.eventCounter());
  if (!wakeUp_ || !timers_.makeTimer()) return false;
  const auto watch = [&](bool& watches, int descriptor, Identifier identifier) {
    auto event = eventFor(identifier, EPOLLIN);
    watches = watches || calls.epollControl(epoll_.get(), EPOLL_CTL_ADD, descriptor, event) == 0;
    return watches;
  };
  if (!watch(watchesWakeUp_, wakeUp_.get(), kWakeUp)) return false;
  if (!watch(watchesTimers_, timers_.descriptor(), kTimer)) return false;
  isSetUp_.store(true, std::memory_order_release);
  return true;
}

Reactor::Identifier Reactor::add(int descriptor, std::uint32_t events, std::shared_ptr<EventSource> source) {
  if (!setUp()) return 0;
  Identifier identifier = 0;
  {
    MutexLock lock(mutex_);
    identifier = ++lastIdentifier_;
    sources_.emplace(identifier, std::move(source));
  }
  auto event = eventFor(identifier, events);
  if (system::systemCalls().epollControl(epoll_.get(), EPOLL_CTL_ADD, descriptor, event) != 0) {
    const int error = errno;
    MutexLock lock(mutex_);
    sources_.erase(identifier);
    errno = error;
    return 0;
  }
  ensureSpare();
  return identifier;
}

bool Reactor::changeEvents(Identifier identifier, int descriptor, std::uint32_t events) {
  auto event = eventFor(identifier, events);
  return system::systemCalls().epollControl(epoll_.get(), EPOLL_CTL_MOD, descriptor, event) == 0;
}

void Reactor::remove(Identifier identifier, int descriptor) {
  epoll_event unused{};
  system::systemCalls().epollControl(epoll_.get(), EPOLL_CTL_DEL, descriptor, unused);
  std::shared_ptr<EventSource> source;  // let go of after the lock
  MutexLock lock(mutex_);
  const auto place = sources_.find(identifier);
  if (place == sources_.end()) return;
  source = std::move(place->second);
  sources_.erase(place);
}

std::shared_ptr<SerialQueue> Reactor::makeQueue() {
  return std::make_shared<SerialQueue>([this](std::shared_ptr<SerialQueue> queue) { schedule(std::move(queue)); });
}

void Reactor::schedule(std::shared_ptr<SerialQueue> queue) {
  if (queuesToDrain != nullptr) {
    queuesToDrain->push_back(std::move(queue));
    return;
  }
  {
    MutexLock lock(mutex_);
    scheduled_.push_back(std::move(queue));
  }
  ensureSpare();
  wakeOne();
}

void Reactor::wakeOne() {
  // Never read: edge-triggered, each write wakes one thread, and the counter has room for ever.
  const std::uint64_t one = 1;
  if (!isSetUp_.load(std::memory_order_acquire)) return;
  if (system::systemCalls().write(wakeUp_.get(), &one, sizeof(one)) >= 0) return;
  // Nobody can be woken: a new thread looks for what is scheduled before it waits.
  startWorker();
}

bool Reactor::ensureSpare() {
  return waiting_.load() > 0 || startWorker();
}

bool Reactor::startWorker() {
  if (workers_.fetch_add(1) >= limits::kMaximumWorkers) {
    workers_.fetch_sub(1);
    return false;
  }
  // Counted as waiting from here on: whoever asks next need not start another.
  waiting_.fetch_add(1);
  try {
    SignalsBlocked blocked;
    std::thread([this] { work(); }).detach();
    return true;
  } catch (const std::exception& error) {
    waiting_.fetch_sub(1);
    workers_.fetch_sub(1);
    VKTLoggingLog(VKTLogGetAnchor(), VKTLogLevelFailure, "No further thread can be started: %s", error.what());
    return false;
  }
}

void Reactor::work() {
  pthread_setname_np(pthread_self(), "velto-worker");
  if (hasScheduled()) {
    waiting_.fetch_sub(1);
    runScheduled();
    waiting_.fetch_add(1);
  }
  for (;;) {
    serveOne();
    if (waiting_.fetch_add(1) >= limits::kSpareWorkers) {
      waiting_.fetch_sub(1);
      break;
    }
    // A queue that had to wait for a thread may have been put back since this one last looked.
    if (waiting_.load() > 1 && hasScheduled()) wakeOne();
  }
  workers_.fetch_sub(1);
}

int Reactor::waitForEvent(epoll_event& event) {
  const int count = setUp() ? system::systemCalls().epollWait(epoll_.get(), &event, 1) : -1;
  if (count >= 0) {
    complained_.store(false, std::memory_order_relaxed);
  } else {
    pauseAfterFailure();
  }
  return count;
}

void Reactor::pauseAfterFailure() {
  const int error = errno;
  if (!complained_.exchange(true)) {
    VKTLoggingLog(VKTLogGetAnchor(), VKTLogLevelFailure, "Events cannot be waited for: %s", std::strerror(error));
  }
  std::this_thread::sleep_for(kPauseAfterFailure);
}

void Reactor::serveOne() {
  epoll_event event{};
  const int count = waitForEvent(event);
  waiting_.fetch_sub(1);
  std::vector<std::shared_ptr<SerialQueue>> queues;
  if (count > 0) {
    queuesToDrain = &queues;
    try {
      dispatch(event);
    } catch (const std::exception& exception) {
      // Only memory can fail here. What it was needed for is lost, and the process is not.
      VKTLoggingLog(VKTLogGetAnchor(), VKTLogLevelFailure, "An event could not be dealt with: %s", exception.what());
    }
    queuesToDrain = nullptr;
  }
  // One queue this thread drains itself; any others must not wait for it.
  while (queues.size() > 1) {
    schedule(std::move(queues.back()));
    queues.pop_back();
  }
  if (!queues.empty()) drain(std::move(queues.front()));
  runScheduled();
}

void Reactor::runScheduled() {
  while (auto queue = takeScheduled()) {
    if (!drain(std::move(queue))) return;
  }
}

void Reactor::dispatch(const epoll_event& event) {
  // A copy: the kernel's structure is packed, and nothing may refer to what lies askew in it.
  const Identifier identifier = event.data.u64;
  if (identifier == kWakeUp) return;
  if (identifier == kTimer) {
    for (const auto& action : timers_.takeDue()) action();
    return;
  }
  std::shared_ptr<EventSource> source;
  {
    MutexLock lock(mutex_);
    const auto place = sources_.find(identifier);
    if (place != sources_.end()) source = place->second;
  }
  if (source) source->eventsArrived(event.events);
}

std::shared_ptr<SerialQueue> Reactor::takeScheduled() {
  std::shared_ptr<SerialQueue> queue;
  bool leavesMore = false;
  {
    MutexLock lock(mutex_);
    if (scheduled_.empty()) return nullptr;
    queue = std::move(scheduled_.front());
    scheduled_.pop_front();
    leavesMore = !scheduled_.empty();
  }
  // Several wake-ups may have reached this thread as one event, and what it has taken may keep it busy for long.
  if (leavesMore) wakeOne();
  return queue;
}

bool Reactor::hasScheduled() {
  MutexLock lock(mutex_);
  return !scheduled_.empty();
}

bool Reactor::drain(std::shared_ptr<SerialQueue> queue) {
  // Without a spare nobody would read while the callback runs. Then it waits until a thread that runs one is done; only
  // when there is no such thread, there is no choice.
  if (!ensureSpare() && workers_.load() > 1) {
    MutexLock lock(mutex_);
    scheduled_.push_back(std::move(queue));
    return false;
  }
  queue->drain();
  return true;
}

}  // namespace velto::transport
