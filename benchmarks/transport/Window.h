#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <vector>

namespace velto::transport {

// Ways to have many round trips on the way at a time.

// Of one thread that sends ahead: send(number), receive().
template <class Send, class Receive>
void sendAhead(std::int64_t count, std::int64_t outstanding, const Send& send, const Receive& receive) {
  std::int64_t sent = 0;
  for (std::int64_t received = 0; received < count; ++received) {
    while (sent < count && sent - received < outstanding) send(++sent);
    receive();
  }
}

// Of askers that go on by themselves, on whatever threads: each takes the next number when its reply has come.
class Progress {
 public:
  Progress(std::int64_t count, std::int64_t askers) : count_(count), asking_(askers) {}

  // 0 when none is left: then the asker has ended.
  std::int64_t next() {
    const std::int64_t number = ++taken_;
    if (number <= count_) return number;
    end(true);
    return 0;
  }
  // Instead of next(), when the reply is not as it should be.
  void fail() { end(false); }

  void await() {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [&] { return asking_ == 0; });
    if (hasFailed_) throw std::runtime_error("a reply is missing");
  }

 private:
  void end(bool isGood) {
    const std::lock_guard lock(mutex_);
    hasFailed_ = hasFailed_ || !isGood;
    if (--asking_ == 0) changed_.notify_all();
  }

  const std::int64_t count_;
  std::atomic<std::int64_t> taken_ = 0;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::int64_t asking_;
  bool hasFailed_ = false;
};

// So many askers of the class, each of which is made of the source and the progress and starts with ask().
template <class Asking, class Source>
void askTogether(Source& source, std::int64_t count, std::int64_t outstanding) {
  Progress progress(count, outstanding);
  std::vector<std::unique_ptr<Asking>> all;
  for (std::int64_t index = 0; index < outstanding; ++index) all.push_back(std::make_unique<Asking>(source, progress));
  for (const auto& each : all) each->ask();
  progress.await();
}

}  // namespace velto::transport
