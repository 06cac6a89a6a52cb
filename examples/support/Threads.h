#pragma once

#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>
#include <utility>

// Runs each task on a thread of its own, and waits at its end until all have returned.
class Threads {
 public:
  Threads() = default;
  ~Threads() {
    std::unique_lock lock(mutex_);
    ended_.wait(lock, [this] { return count_ == 0; });
  }
  Threads(const Threads&) = delete;
  Threads& operator=(const Threads&) = delete;

  void run(std::function<void()> task) {
    {
      const std::lock_guard lock(mutex_);
      ++count_;
    }
    std::thread([this, task = std::move(task)]() mutable {
      task();
      task = nullptr;
      const std::lock_guard lock(mutex_);
      --count_;
      ended_.notify_all();
    }).detach();
  }

 private:
  std::mutex mutex_;
  std::condition_variable ended_;
  int count_ = 0;
};
