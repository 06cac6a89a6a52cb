#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>

#include "platform/foundation/NSCondition.h"
#include "platform/xpc/system/Descriptor.h"
#include "platform/xpc/transport/Channel.h"
#include "platform/xpc/transport/Polling.h"

namespace velto::transport {

// A thread that waits for a reply reads it itself: instead of sleeping in an NSCondition until a thread of the reactor
// has been woken, has read and has woken it. It reads whatever comes over that channel, as a thread of the reactor
// would, and runs no user code but reply blocks that never block.
//
// One per thread.
class OwnReading final : public WaitingWork, public SleepingReader {
 public:
  // What threads need to wait: made with the first connection, so that a process has all its descriptors from then on.
  static void prepare();
  // The current thread has asked something over this channel, and the thread that reads the answer will deal with it:
  // if its next sleep is for that, it reads.
  static void expect(const std::shared_ptr<Channel>& channel) noexcept;

  void work(const ConditionSleep& sleep) noexcept override;
  void interrupt() noexcept override;
  void wakeUp() noexcept override;

 private:
  OwnReading() = default;
  ~OwnReading();
  static OwnReading* ofThread() noexcept;
  void read(Channel& channel, const ConditionSleep& sleep);
  // False when it is better to sleep in the condition.
  bool await(Channel& channel, const ConditionSleep& sleep, std::chrono::steady_clock::time_point end);

  std::weak_ptr<Channel> expected_;
  unsigned generation_ = 0;
  Polling polling_;
  // Asleep: in the kernel, or about to be. Who finds it so makes it `rung`, rings the bell, and makes it awake.
  enum class State : std::uint8_t { awake, asleep, rung };
  std::atomic<State> state_{State::awake};
  system::Descriptor bell_;
};

}  // namespace velto::transport
