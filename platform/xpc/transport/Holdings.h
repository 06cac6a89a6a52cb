#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "platform/xpc/system/Descriptor.h"

namespace velto::transport {

class Holdings;

// Whose connection it is that holds too much. Called on a reactor's thread, with no lock held.
class HoldingOwner {
 public:
  virtual ~HoldingOwner() = default;
  // It holds the most of all while the process holds too much: it is to end.
  virtual void heldTooMuch(const std::string& reason) = 0;
  // It was to wait, and need not any more.
  virtual void mayReadOn() = 0;
};

// What one connection makes this process hold because of its peer: bytes and descriptors, by the place where they lie.
// The sum of all connections is bounded. At a first bound those that hold more than a little are not read any more
// until there is less; at a second whoever holds the most is ended. What is stated here is a level, not a change, so
// nothing can drift; small changes are kept to itself, so that messages that come and go cost no common lock.
//
// Thread-safe; the levels of one place are stated by one thread at a time.
class Holding {
 public:
  enum class Place : std::uint8_t { input, calls, replies, waiting, output };

  explicit Holding(std::weak_ptr<HoldingOwner> owner);
  ~Holding();
  Holding(const Holding&) = delete;
  Holding& operator=(const Holding&) = delete;

  void setBytes(Place place, std::size_t bytes);
  void setDescriptors(Place place, std::size_t descriptors);
  std::size_t bytes(Place place) const noexcept {
    return static_cast<std::size_t>(bytesIn_[static_cast<std::size_t>(place)].load(std::memory_order_relaxed));
  }
  // The connection is over. If it held much, the memory goes back to the system soon: what is let go of piece by piece
  // would otherwise stay with the process.
  void isOver();
  // Whether it is not to be read. Whoever finds so is told by the owner's mayReadOn().
  bool mustWait() const noexcept { return mustWait_.load(std::memory_order_relaxed); }

 private:
  friend class Holdings;
  static constexpr std::size_t kPlaces = 5;
  struct Amount {
    std::int64_t bytes = 0;
    std::int64_t descriptors = 0;
  };

  const std::weak_ptr<HoldingOwner> owner_;
  Holdings& holdings_;
  const unsigned generation_ = system::forkGeneration();
  std::array<std::atomic<std::int64_t>, kPlaces> bytesIn_{};
  std::array<std::atomic<std::int64_t>, kPlaces> descriptorsIn_{};
  std::atomic<std::int64_t> bytes_{0};
  std::atomic<std::int64_t> descriptors_{0};
  std::atomic<bool> mustWait_{false};
  // What is in the sum of all; written under its lock.
  std::atomic<std::int64_t> statedBytes_{0};
  std::atomic<std::int64_t> statedDescriptors_{0};
  std::atomic<bool> heldMuch_{false};

  // Of the list of those that are in the sum, guarded by its lock.
  bool isListed_ = false;
  bool isCondemned_ = false;
  Holding* before_ = nullptr;
  Holding* after_ = nullptr;
};

}  // namespace velto::transport
