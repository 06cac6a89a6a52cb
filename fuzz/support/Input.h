#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

namespace velto::fuzzing {

using Bytes = std::span<const std::uint8_t>;

// The bytes of one input, read from the front. Reading past the end gives zeros and empty spans, so that every input
// means something.
class Input {
 public:
  explicit Input(Bytes bytes) noexcept : bytes_(bytes) {}

  bool isEmpty() const noexcept { return bytes_.empty(); }
  std::uint8_t byte() noexcept {
    if (bytes_.empty()) return 0;
    const std::uint8_t first = bytes_.front();
    bytes_ = bytes_.subspan(1);
    return first;
  }
  // Little-endian.
  std::size_t twoBytes() noexcept {
    const std::size_t low = byte();
    return low | std::size_t{byte()} << 8;
  }
  Bytes take(std::size_t count) noexcept {
    const Bytes taken = bytes_.first(std::min(count, bytes_.size()));
    bytes_ = bytes_.subspan(taken.size());
    return taken;
  }
  Bytes rest() noexcept { return take(bytes_.size()); }

  // Up to the next separator, which is dropped. What is put in or cut out of one part leaves the others as they are.
  Bytes part() noexcept {
    static constexpr std::uint8_t kSeparator[] = {0xFE, 0xED};
    const auto end = std::search(bytes_.begin(), bytes_.end(), std::begin(kSeparator), std::end(kSeparator));
    const Bytes taken = take(static_cast<std::size_t>(end - bytes_.begin()));
    take(sizeof(kSeparator));
    return taken;
  }

 private:
  Bytes bytes_;
};

inline std::string_view textOf(Bytes bytes) noexcept {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

}  // namespace velto::fuzzing
