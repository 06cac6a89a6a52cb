#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <string_view>

#include "platform/foundation/Value.h"
#include "platform/xpc/wire/ByteBuffer.h"

namespace velto::wire {

// Writes items of CBOR, each in its shortest form (a double always in eight bytes). What is short is written here, and
// copied once its length is known, so that no memory is left unused behind it.
class ItemWriter {
 public:
  ItemWriter() noexcept = default;
  ItemWriter(const ItemWriter&) = delete;
  ItemWriter& operator=(const ItemWriter&) = delete;

  void addUnsigned(std::uint64_t value) { addHead(0, value); }
  void addSigned(std::int64_t value) {
    if (value >= 0) return addHead(0, static_cast<std::uint64_t>(value));
    addHead(1, ~static_cast<std::uint64_t>(value));
  }
  void addDouble(double value) { addBigEndian(0xFB, std::bit_cast<std::uint64_t>(value)); }
  void addBool(bool value) { addByte(value ? 0xF5 : 0xF4); }
  void addNull() { addByte(0xF6); }
  void addUndefined() { addByte(0xF7); }
  void addText(std::string_view text) { addString(3, text.data(), text.size()); }
  // A text that lies in a handle.
  void addText(const Value& text) {
    // Both words, whatever is in them behind the text: what comes next is written over it.
    constexpr std::size_t kWords = 16;
    std::uint8_t* const out = room(1 + kWords);
    const std::uint64_t words[] = {text.bits(), text.high()};
    *out = static_cast<std::uint8_t>(0x60 | text.textLength());
    std::memcpy(out + 1, words, kWords);
    next_ += 1 + text.textLength();
  }
  void addBytes(std::span<const std::uint8_t> bytes) { addString(2, bytes.data(), bytes.size()); }
  void addArray(std::size_t count) { addHead(4, count); }
  void addMap(std::size_t pairs) { addHead(5, pairs); }
  void addTag(std::uint64_t tag) { addHead(6, tag); }
  // Only the heads of a text and of bytes: what follows comes from elsewhere.
  void addTextHead(std::size_t length) { addHead(3, length); }
  void addBytesHead(std::size_t length) { addHead(2, length); }

  std::size_t written() const noexcept { return static_cast<std::size_t>(next_ - first_); }
  // What was written. Call once; raises std::bad_alloc.
  ByteBuffer finish();

 private:
  // The longest head: one byte and eight of its argument.
  static constexpr std::size_t kHeadBytes = 9;
  static constexpr std::size_t kShortBytes = 1024;

  // At least so many bytes.
  std::uint8_t* room(std::size_t bytes) {
    if (static_cast<std::size_t>(end_ - next_) < bytes) grow(bytes);
    return next_;
  }
  void grow(std::size_t bytes);
  void addByte(std::uint8_t byte) {
    *room(1) = byte;
    ++next_;
  }
  void addBigEndian(std::uint8_t head, std::uint64_t number) {
    std::uint8_t* const out = room(kHeadBytes);
    *out = head;
    const std::uint64_t swapped = __builtin_bswap64(number);
    std::memcpy(out + 1, &swapped, sizeof swapped);
    next_ += kHeadBytes;
  }
  // The head's bytes, at `out`; returns their number.
  static std::size_t putHead(std::uint8_t* out, unsigned major, std::uint64_t argument) noexcept;
  void addHead(unsigned major, std::uint64_t argument) { next_ += putHead(room(kHeadBytes), major, argument); }
  void addString(unsigned major, const void* bytes, std::size_t length) {
    std::uint8_t* const out = room(kHeadBytes + length);
    const std::size_t head = putHead(out, major, length);
    if (length > 0) std::memcpy(out + head, bytes, length);
    next_ += head + length;
  }

  // Where it begins, where the next byte goes, and where the memory ends: here, or in the buffer.
  std::uint8_t* first_ = short_;
  std::uint8_t* next_ = short_;
  std::uint8_t* end_ = short_ + kShortBytes;
  ByteBuffer bytes_;
  // Not initialised.
  std::uint8_t short_[kShortBytes];
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
