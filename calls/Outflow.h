#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <optional>

#include "VeltoIPC/Outcome.h"
#include "platform/foundation/NSCondition.h"
#include "platform/foundation/NSDictionary.h"

namespace velto::calls {

// What one end of a stream sends: no more than the other keeps for its reader.
//
// Thread-safe. Nothing of the user's runs in here, and nothing is called with the lock held.
class Outflow {
 public:
  using SteadyTime = std::chrono::steady_clock::time_point;
  // Sends an item; fails if that is known by then.
  using Send = std::function<std::optional<CallError>(const NSDictionary& item)>;
  using Written = std::function<void(std::optional<CallError>)>;

  Outflow() = default;
  Outflow(const Outflow&) = delete;
  Outflow& operator=(const Outflow&) = delete;

  // Once; until then nothing is allowed.
  void setSend(Send send);
  // The other end allows so much more.
  void allow(std::uint64_t items, std::uint64_t bytes);

  // Sends an item. While nothing is allowed it sleeps, if it may, up to the time; else it fails as full.
  std::optional<CallError> write(const NSDictionary& item, std::optional<SteadyTime> deadline, bool waits);
  // Sends it as soon as it is allowed, behind those that wait, and calls `written` then.
  void writeLater(NSDictionary item, Written written);
  // Nothing is sent any more. The first reason counts; those who wait get it.
  void end(const CallError& reason);
  // How many were sent.
  std::uint64_t count() const;

 private:
  struct Waiting {
    NSDictionary item;
    std::size_t bytes = 0;
    Written written;
  };

  bool hasRoom() const VELTO_REQUIRES(condition_) { return send_ && allowedItems_ > 0 && allowedBytes_ > 0; }
  std::optional<CallError> sendNow(const NSDictionary& item, std::size_t bytes);
  void sendWaiting();

  const NSCondition condition_ = NSCondition::condition();
  Send send_ VELTO_GUARDED_BY(condition_);
  std::uint64_t allowedItems_ VELTO_GUARDED_BY(condition_) = 0;
  // The last item may be larger than what is allowed.
  std::int64_t allowedBytes_ VELTO_GUARDED_BY(condition_) = 0;
  std::uint64_t count_ VELTO_GUARDED_BY(condition_) = 0;
  std::deque<Waiting> waiting_ VELTO_GUARDED_BY(condition_);
  bool sendsWaiting_ VELTO_GUARDED_BY(condition_) = false;
  std::optional<CallError> ended_ VELTO_GUARDED_BY(condition_);
};

}  // namespace velto::calls
