#include "platform/xpc/transport/ExecutorRunner.h"

#include <atomic>
#include <chrono>
#include <new>
#include <utility>

#include "platform/logging/VeltoLogging.h"
#include "platform/xpc/transport/Reactor.h"

namespace velto::transport {

namespace {

constexpr std::chrono::milliseconds kPauseBeforeExecutorRetry{10};

}  // namespace

// A turn of one queue, to be run once. One that the executor lets go of unrun lets go of what waits.
class ExecutorRunner::Turn {
 public:
  explicit Turn(std::shared_ptr<ExecutorRunner> runner) : runner_(std::move(runner)) {}
  ~Turn() {
    if (const auto queue = takeNext()) queue->abandon();
  }
  Turn(const Turn&) = delete;
  Turn& operator=(const Turn&) = delete;

  void run() {
    if (const auto queue = takeNext()) queue->drain();
  }
  // It has not been taken.
  void comeToNothing() noexcept { isOver_ = true; }

 private:
  std::shared_ptr<SerialQueue> takeNext() { return isOver_.exchange(true) ? nullptr : runner_->takeNext(); }

  const std::shared_ptr<ExecutorRunner> runner_;
  std::atomic<bool> isOver_{false};
};

void ExecutorRunner::schedule(std::shared_ptr<SerialQueue> queue) noexcept {
  std::size_t times = 1;
  {
    MutexLock lock(mutex_);
    waiting_.push(std::move(queue));
    ++count_;
    times += std::exchange(left_, 0);
  }
  for (; times > 0; --times) ask();
}

bool ExecutorRunner::othersWait() const noexcept {
  MutexLock lock(mutex_);
  return count_ > 0;
}

void ExecutorRunner::ask() noexcept {
  std::shared_ptr<Turn> turn;
  try {
    turn = std::make_shared<Turn>(shared_from_this());
    executor_([turn] { turn->run(); });
    return;
  } catch (const std::exception& exception) {
    VKTLoggingLog(VKTLogGetAnchor(), VKTLogLevelFailure, "An executor did not take a task: %s", exception.what());
  } catch (...) {
    VKTLoggingLog(VKTLogGetAnchor(), VKTLogLevelFailure, "An executor did not take a task");
  }
  if (turn) turn->comeToNothing();
  askLater();
}

void ExecutorRunner::askLater() noexcept {
  try {
    Reactor::shared().timers().add(kPauseBeforeExecutorRetry, [weak = weak_from_this()] {
      if (const auto self = weak.lock()) self->ask();
    });
  } catch (const std::bad_alloc&) {
    // What waits goes with the next that comes.
    MutexLock lock(mutex_);
    ++left_;
  }
}

std::shared_ptr<SerialQueue> ExecutorRunner::takeNext() {
  MutexLock lock(mutex_);
  auto queue = waiting_.pop();
  if (queue) --count_;
  return queue;
}

}  // namespace velto::transport
