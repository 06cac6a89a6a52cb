#include "platform/xpc/transport/LongWork.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <thread>

#include "platform/foundation/ThreadAnnotations.h"
#include "platform/xpc/system/PerProcess.h"

namespace velto::transport {

namespace {

// Less is done before others notice.
constexpr std::size_t kLongWorkBytes = std::size_t{128} << 10;
constexpr std::chrono::milliseconds kPatience{1'000};

class Turns {
 public:
  bool take() {
    const auto end = std::chrono::steady_clock::now() + kPatience;
    MutexLock lock(mutex_);
    while (taken_ >= processors_) {
      if (lock.waitUntil(given_, end) == std::cv_status::timeout) return false;
    }
    ++taken_;
    return true;
  }
  void giveBack() {
    {
      MutexLock lock(mutex_);
      --taken_;
    }
    given_.notify_one();
  }

 private:
  const unsigned processors_ = std::max(1U, std::thread::hardware_concurrency());
  Mutex mutex_;
  std::condition_variable given_;
  unsigned taken_ VELTO_GUARDED_BY(mutex_) = 0;
};

}  // namespace

LongWork::LongWork(std::size_t bytes) {
  if (bytes >= kLongWorkBytes) isCounted_ = system::perProcess<Turns>().take();
}

LongWork::~LongWork() {
  if (isCounted_) system::perProcess<Turns>().giveBack();
}

}  // namespace velto::transport
