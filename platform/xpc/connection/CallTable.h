#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include "platform/xpc/connection/OutgoingCall.h"

namespace velto::xpc {

// Calls by their identifiers, in one piece of memory, so that a call that comes and goes takes none: open addressing
// with linear probing, at most half full. Which calls stay is for the peer to decide; where they lie depends on a number
// that it cannot know. Not synchronised.
class CallTable {
 public:
  CallTable() = default;
  CallTable(const CallTable&) = delete;
  CallTable& operator=(const CallTable&) = delete;

  std::size_t size() const noexcept { return size_; }
  // Its method is set, and its identifier is in no other. Raises std::bad_alloc, and changes nothing, when there is no
  // memory.
  void add(OutgoingCall&& call);
  // Null when there is none. Valid until the next change.
  OutgoingCall* find(std::uint64_t identifier) noexcept;
  // Removes one that was found.
  OutgoingCall take(OutgoingCall* found) noexcept;
  // Removes all, in the order of their identifiers.
  std::vector<OutgoingCall> takeAll();
  // In no order.
  template <class Call>
  void forEach(const Call& call) {
    for (OutgoingCall& each : slots_) {
      if (each.method != nullptr) call(each);
    }
  }

 private:
  // Kept while there are no calls.
  static constexpr std::size_t kKeptSlots = 16;

  std::size_t slotOf(std::uint64_t identifier) const noexcept {
    std::uint64_t mixed = identifier ^ salt_;
    mixed = (mixed ^ mixed >> 33) * 0xFF51AFD7ED558CCD;
    mixed = (mixed ^ mixed >> 29) * 0xC4CEB9FE1A85EC53;
    return static_cast<std::size_t>(mixed >> 32) & (slots_.size() - 1);
  }
  std::size_t after(std::size_t slot) const noexcept { return (slot + 1) & (slots_.size() - 1); }
  void insert(OutgoingCall&& call) noexcept;
  void grow();

  // As many as a power of two; those without a method are free.
  std::vector<OutgoingCall> slots_;
  std::size_t size_ = 0;
  std::uint64_t salt_ = 0;
};

}  // namespace velto::xpc
