#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <string_view>
#include <vector>

namespace velto::wire {

// Appends items of CBOR to a vector, each in its shortest form (a double always in eight bytes). The vector is kept
// longer than what is written, so that a small item costs no growth; finish() cuts it.
class ItemWriter {
 public:
  explicit ItemWriter(std::vector<std::uint8_t>& bytes) : bytes_(bytes) {}

  void addUnsigned(std::uint64_t value) { addHead(0, value); }
  void addSigned(std::int64_t value) {
    if (value >= 0) return addHead(0, static_cast<std::uint64_t>(value));
    addHead(1, ~static_cast<std::uint64_t>(value));
  }
  void addDouble(double value);
  void addBool(bool value) { addByte(value ? 0xF5 : 0xF4); }
  void addNull() { addByte(0xF6); }
  void addUndefined() { addByte(0xF7); }
  void addText(std::string_view text) { addString(3, text.data(), text.size()); }
  void addBytes(std::span<const std::uint8_t> bytes) { addString(2, bytes.data(), bytes.size()); }
  void addArray(std::size_t count) { addHead(4, count); }
  void addMap(std::size_t pairs) { addHead(5, pairs); }
  void addTag(std::uint64_t tag) { addHead(6, tag); }

  std::size_t written() const noexcept { return written_; }
  void finish() { bytes_.resize(written_); }

 private:
  // The longest head: one byte and eight of its argument.
  static constexpr std::size_t kHeadBytes = 9;
  // Longer strings are appended as they are, without room behind them that would have to be cleared first.
  static constexpr std::size_t kShortBytes = 1024;

  // At least so many bytes.
  std::uint8_t* room(std::size_t bytes) {
    if (bytes_.size() - written_ < bytes) grow(bytes);
    return bytes_.data() + written_;
  }
  void grow(std::size_t bytes);
  void addByte(std::uint8_t byte) {
    *room(1) = byte;
    ++written_;
  }
  // The head's bytes, at `out`; returns their number.
  static std::size_t putHead(std::uint8_t* out, unsigned major, std::uint64_t argument) noexcept;
  void addHead(unsigned major, std::uint64_t argument) { written_ += putHead(room(kHeadBytes), major, argument); }
  void addString(unsigned major, const void* bytes, std::size_t length) {
    if (length > kShortBytes) return addLong(major, bytes, length);
    std::uint8_t* const out = room(kHeadBytes + length);
    const std::size_t head = putHead(out, major, length);
    if (length > 0) std::memcpy(out + head, bytes, length);
    written_ += head + length;
  }
  void addLong(unsigned major, const void* bytes, std::size_t length);

  std::vector<std::uint8_t>& bytes_;
  std::size_t written_ = 0;
};

inline std::size_t ItemWriter::putHead(std::uint8_t* out, unsigned major, std::uint64_t argument) noexcept {
  constexpr unsigned kOneByte = 24;
  const auto first = static_cast<std::uint8_t>(major << 5);
  if (argument < kOneByte) {
    *out = static_cast<std::uint8_t>(first | argument);
    return 1;
  }
  if (argument <= UINT8_MAX) {
    out[0] = static_cast<std::uint8_t>(first | kOneByte);
    out[1] = static_cast<std::uint8_t>(argument);
    return 2;
  }
  if (argument <= UINT16_MAX) {
    out[0] = static_cast<std::uint8_t>(first | (kOneByte + 1));
    const std::uint16_t swapped = __builtin_bswap16(static_cast<std::uint16_t>(argument));
    std::memcpy(out + 1, &swapped, sizeof swapped);
    return 3;
  }
  if (argument <= UINT32_MAX) {
    out[0] = static_cast<std::uint8_t>(first | (kOneByte + 2));
    const std::uint32_t swapped = __builtin_bswap32(static_cast<std::uint32_t>(argument));
    std::memcpy(out + 1, &swapped, sizeof swapped);
    return 5;
  }
  out[0] = static_cast<std::uint8_t>(first | (kOneByte + 3));
  const std::uint64_t swapped = __builtin_bswap64(argument);
  std::memcpy(out + 1, &swapped, sizeof swapped);
  return kHeadBytes;
}

}  // namespace velto::wire
