// A queue that a thread holds while it runs tasks. The hold is a number, not a lock: a thread that goes to sleep inside
// a task can lose it, and finds out when its task returns.

#include "platform/xpc/transport/SerialQueue.h"

#include <exception>
#include <utility>

#include "platform/logging/VeltoLogging.h"

namespace velto::transport {

class SerialQueue::Drainer final : public WaitObserver {
 public:
  Drainer(SerialQueue& queue, std::uint64_t number)
      : queue_(queue), number_(number), before_(WaitObserver::install(this)) {}
  ~Drainer() { WaitObserver::install(before_); }
  Drainer(const Drainer&) = delete;
  Drainer& operator=(const Drainer&) = delete;

  void threadWillWait() noexcept override {
    bool overtaken = false;
    {
      MutexLock lock(queue_.mutex_);
      if (queue_.drainer_ != number_) return;
      queue_.asleep_ = true;
      overtaken = queue_.overtakes();
    }
    if (overtaken) queue_.scheduler_(queue_.shared_from_this());
  }
  void threadDidWait() noexcept override {
    MutexLock lock(queue_.mutex_);
    if (queue_.drainer_ == number_) queue_.asleep_ = false;
  }

 private:
  SerialQueue& queue_;
  const std::uint64_t number_;
  WaitObserver* const before_;
};

namespace {

// A callback of the user's that raises must not end the process that a peer can make call it.
void run(const SerialQueue::Task& task) {
  try {
    task();
  } catch (const std::exception& exception) {
    VKTLoggingLog(VKTLogGetAnchor(), VKTLogLevelFailure, "A callback raised an exception, which is ignored: %s",
                  exception.what());
  } catch (...) {
    VKTLoggingLog(VKTLogGetAnchor(), VKTLogLevelFailure, "A callback raised an unknown exception, which is ignored");
  }
}

}  // namespace

bool SerialQueue::overtakes() {
  if (!draining_ || !asleep_ || !mayOvertake_ || tasks_.empty()) return false;
  ++drainer_;
  asleep_ = false;
  return true;
}

void SerialQueue::add(Task task) {
  {
    MutexLock lock(mutex_);
    tasks_.push_back(std::move(task));
    if (draining_ && !overtakes()) return;
    draining_ = true;
  }
  scheduler_(shared_from_this());
}

void SerialQueue::letOvertake() {
  {
    MutexLock lock(mutex_);
    mayOvertake_ = true;
    if (!overtakes()) return;
  }
  scheduler_(shared_from_this());
}

bool SerialQueue::takeTask(std::uint64_t drainer, Task& task) {
  MutexLock lock(mutex_);
  if (drainer_ != drainer) return false;
  if (tasks_.empty()) {
    draining_ = false;
    return false;
  }
  task = std::move(tasks_.front());
  tasks_.pop_front();
  return true;
}

void SerialQueue::drain() {
  std::uint64_t number = 0;
  {
    MutexLock lock(mutex_);
    number = drainer_;
  }
  Drainer drainer(*this, number);
  Task task;
  while (takeTask(number, task)) {
    run(task);
    task = nullptr;
  }
}

}  // namespace velto::transport
