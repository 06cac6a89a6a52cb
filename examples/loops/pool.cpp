// pool_counter: the same as poll_counter, on a pool of threads. The requests of one client run one at a time and in
// order, those of several side by side. Return ends it.

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include <VeltoIPC/VeltoIPC.h>

namespace {

using namespace std::chrono_literals;

// Threads that run what they are given. The library may give something even after the end, when a connection ends: what
// it needs for that outlives the pool.
class Pool {
 public:
  explicit Pool(std::size_t threads) {
    for (; threads > 0; --threads) threads_.emplace_back([work = work_] { work->run(); });
  }
  ~Pool() {
    work_->end();
    for (std::thread& each : threads_) each.join();
  }
  Pool(const Pool&) = delete;
  Pool& operator=(const Pool&) = delete;

  velto::Delivery delivery() const {
    return velto::Delivery([work = work_](std::function<void()> task) { work->add(std::move(task)); });
  }

 private:
  class Work {
   public:
    // A task that comes too late is let go of.
    void add(std::function<void()> task) {
      const std::lock_guard lock(mutex_);
      if (isOver_) return;
      tasks_.push_back(std::move(task));
      changed_.notify_one();
    }
    void run() {
      while (const auto task = next()) task();
    }
    void end() {
      // Let go of after the lock: that may add others.
      std::deque<std::function<void()>> left;
      const std::lock_guard lock(mutex_);
      isOver_ = true;
      left.swap(tasks_);
      changed_.notify_all();
    }

   private:
    std::function<void()> next() {
      std::unique_lock lock(mutex_);
      changed_.wait(lock, [this] { return isOver_ || !tasks_.empty(); });
      if (isOver_) return nullptr;
      auto first = std::move(tasks_.front());
      tasks_.pop_front();
      return first;
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<std::function<void()>> tasks_;
    bool isOver_ = false;
  };

  const std::shared_ptr<Work> work_ = std::make_shared<Work>();
  std::vector<std::thread> threads_;
};

int failed(const velto::CallError& error) {
  std::fprintf(stderr, "%s\n", error.text().c_str());
  return 1;
}

}  // namespace

int main() {
  std::atomic<std::int64_t> total{0};
  const Pool pool(std::max(2U, std::thread::hardware_concurrency()));
  velto::Service service("org.velto.examples.counter", {.delivery = pool.delivery(), .onUnregistered = failed});
  service.on("add", [&total](const velto::Request& request) {
    const std::int64_t by = request.message()["by"].integerValue();
    request.reply({{"total", total += by}});
  });
  service.start();
  std::puts("serving");
  std::fflush(stdout);
  std::getchar();
  service.stop(2s);
  std::printf("total %lld\n", static_cast<long long>(total));
  return 0;
}
