#include "platform/logging/LogTimer.h"

#include <atomic>

namespace velto {
namespace {

constinit std::atomic<void (*)(std::chrono::milliseconds, void (*)())> installed{nullptr};

}  // namespace

void setLogTimer(void (*timer)(std::chrono::milliseconds delay, void (*function)())) noexcept {
  installed.store(timer, std::memory_order_release);
}

bool hasLogTimer() noexcept {
  return installed.load(std::memory_order_relaxed) != nullptr;
}

bool askLogTimer(std::chrono::milliseconds delay, void (*function)()) noexcept {
  const auto timer = installed.load(std::memory_order_acquire);
  if (timer == nullptr) return false;
  timer(delay, function);
  return true;
}

}  // namespace velto
