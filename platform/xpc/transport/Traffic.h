#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <unordered_set>

#include "platform/foundation/ThreadAnnotations.h"
#include "platform/xpc/contract/ListenerTraffic.h"
#include "platform/xpc/transport/Holdings.h"

namespace velto::transport {

// Counts what goes over the connections of one listener. Each connection counts for itself, without a lock and without
// a word that another writes too; whoever asks adds up. Thread-safe.
class Traffic {
 public:
  class Share;

  xpc::ListenerTraffic sum() const;

 private:
  void enter(const Share& share);
  void leave(const Share& share);

  mutable Mutex mutex_;
  // Of the connections that have ended, and how many were accepted in all.
  xpc::ListenerTraffic past_ VELTO_GUARDED_BY(mutex_);
  std::unordered_set<const Share*> open_ VELTO_GUARDED_BY(mutex_);
};

// What one connection counts. Each direction is counted by one thread at a time.
class Traffic::Share {
 public:
  explicit Share(std::shared_ptr<Traffic> traffic) : traffic_(std::move(traffic)) {}
  ~Share() { close(); }
  Share(const Share&) = delete;
  Share& operator=(const Share&) = delete;

  // Counts from now on, with what the connection holds.
  void open(std::shared_ptr<const Holding> holding);
  // The connection is over; further calls do nothing.
  void close() noexcept;

  void received(std::uint64_t messages, std::uint64_t bytes) noexcept {
    add(messagesIn_, messages);
    add(bytesIn_, bytes);
  }
  void sent(std::uint64_t messages, std::uint64_t bytes) noexcept {
    add(messagesOut_, messages);
    add(bytesOut_, bytes);
  }

 private:
  friend class Traffic;
  using Count = std::atomic<std::uint64_t>;
  // One thread at a time writes: no locked addition is needed.
  static void add(Count& count, std::uint64_t more) noexcept {
    count.store(count.load(std::memory_order_relaxed) + more, std::memory_order_relaxed);
  }
  void addTo(xpc::ListenerTraffic& sum) const noexcept;

  const std::shared_ptr<Traffic> traffic_;
  std::shared_ptr<const Holding> holding_;
  std::atomic<bool> isOpen_{false};
  Count messagesIn_{0};
  Count messagesOut_{0};
  Count bytesIn_{0};
  Count bytesOut_{0};
};

}  // namespace velto::transport
