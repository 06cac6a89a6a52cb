#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>

#include "platform/foundation/Export.h"

namespace velto::xpc {

// Something that is done once, after a time, on a thread of the platform; it must not block. Letting go of it is
// forgetting it: then it does not begin any more, but may be running.
class VELTO_EXPORT DelayedCall {
 public:
  static std::shared_ptr<DelayedCall> after(std::chrono::nanoseconds delay, std::function<void()> call);
  ~DelayedCall();
  DelayedCall(const DelayedCall&) = delete;
  DelayedCall& operator=(const DelayedCall&) = delete;

 private:
  explicit DelayedCall(std::uint64_t identifier) noexcept : identifier_(identifier) {}

  const std::uint64_t identifier_;
};

// The time so much from now; the last there is when it would be beyond.
VELTO_EXPORT std::chrono::steady_clock::time_point timeAfter(std::chrono::nanoseconds delay) noexcept;

// Whether this is a thread of the platform's own, on which nobody may wait for others.
VELTO_EXPORT bool isThreadOfThePlatform() noexcept;

}  // namespace velto::xpc
