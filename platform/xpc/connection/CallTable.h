#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "platform/xpc/connection/OutgoingCall.h"

namespace velto::xpc {

// Calls by their identifiers, in two pieces of memory, so that a call that comes and goes takes none: the calls, one
// behind the other, and an index of them, open addressing with linear probing, at most half full. Which calls stay is
// for the peer to decide; where the index has them depends on a number that it cannot know. Not synchronised.
class CallTable {
 public:
  CallTable() = default;
  CallTable(const CallTable&) = delete;
  CallTable& operator=(const CallTable&) = delete;

  std::size_t size() const noexcept { return calls_.size() - free_.size(); }
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
    for (OutgoingCall& each : calls_) {
      if (each.method != nullptr) call(each);
    }
  }

 private:
  // Kept while there are no calls.
  static constexpr std::size_t kKeptCalls = 8;

  struct Entry {
    std::uint32_t hash = 0;
    std::uint32_t number = 0;  // of the call, counted from 1; 0 when there is none
  };

  std::uint32_t hashOf(std::uint64_t identifier) const noexcept;
  std::size_t after(std::size_t slot) const noexcept { return (slot + 1) & (index_.size() - 1); }
  std::size_t slotOf(std::uint32_t hash) const noexcept { return hash & (index_.size() - 1); }
  void enter(Entry entry) noexcept;
  void removeFromIndex(std::size_t slot) noexcept;
  void grow();
  void clear() noexcept;

  // Those without a method are free.
  std::vector<OutgoingCall> calls_;
  // Their numbers. Has room for all.
  std::vector<std::uint32_t> free_;
  // As many as a power of two.
  std::vector<Entry> index_;
  std::uint64_t salt_ = 0;
};

}  // namespace velto::xpc
