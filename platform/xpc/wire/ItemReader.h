#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <string>
#include <string_view>

namespace velto::wire {

// One head of CBOR with what belongs to it: a whole item, or the start of an array, a map or a tagged item.
struct Item {
  enum class Type : std::uint8_t {
    unsignedInteger,
    negativeInteger,
    bytes,
    text,
    array,
    map,
    tag,
    boolean,
    null,
    undefined,
    floatingPoint,
    indefinite,
  };

  Type type = Type::undefined;
  // The integer (a negative one is -1 - number), the tag, the elements or pairs, the bytes, or 0 and 1 for a bool.
  std::uint64_t number = 0;
  double real = 0;
  const std::uint8_t* start = nullptr;

  std::string_view view() const noexcept {
    return {reinterpret_cast<const char*>(start), static_cast<std::size_t>(number)};
  }
  std::span<const std::uint8_t> span() const noexcept { return {start, static_cast<std::size_t>(number)}; }
};

// Reads a CBOR sequence head by head, without allocating and without recursion. Only what this wire uses is let
// through: definite lengths, and counts that the bytes to come can back. Text is not checked for UTF-8 by read().
class ItemReader {
 public:
  // The bytes must outlive the reader.
  explicit ItemReader(std::span<const std::uint8_t> bytes) noexcept
      : start_(bytes.data()), next_(start_), end_(start_ + bytes.size()) {}

  // False, and the reason, when the next head is broken; then nothing is consumed.
  bool read(Item& item);
  // Steps over one item with everything in it, however deep: false, and the reason, when it is not well-formed.
  bool skip();

  std::size_t position() const noexcept { return static_cast<std::size_t>(next_ - start_); }
  void rewind(std::size_t position) noexcept { next_ = start_ + position; }
  // The bytes to come, for one who reads some of them by itself, and then goes on from `position` here.
  std::span<const std::uint8_t> rest() const noexcept { return {next_, end_}; }
  void goOnFrom(const std::uint8_t* position) noexcept { next_ = position; }
  std::size_t remaining() const noexcept { return static_cast<std::size_t>(end_ - next_); }
  const std::string& reason() const noexcept { return reason_; }

 private:
  bool readSimple(Item& item, unsigned info);
  bool failHead(unsigned first);
  bool failTruncated();
  bool failCount(const Item& item, std::size_t backed);
  bool fail(std::string reason);

  const std::uint8_t* start_;
  const std::uint8_t* next_;
  const std::uint8_t* end_;
  std::string reason_;
};

// The number in 1, 2, 4 or 8 bytes, most significant byte first.
inline std::uint64_t bigEndian(const std::uint8_t* bytes, std::size_t width) noexcept {
  const auto load = [bytes](auto number) {
    std::memcpy(&number, bytes, sizeof number);
    return number;
  };
  switch (width) {
    case 1:
      return *bytes;
    case 2:
      return __builtin_bswap16(load(std::uint16_t{}));
    case 4:
      return __builtin_bswap32(load(std::uint32_t{}));
    default:
      return __builtin_bswap64(load(std::uint64_t{}));
  }
}

// Inline for the decoder's sake, which reads a head for every few nanoseconds of its work.
inline bool ItemReader::read(Item& item) {
  // Arguments of 1, 2, 4 and 8 bytes follow the first byte, most significant byte first.
  constexpr unsigned kOneByte = 24, kEightBytes = 27;
  if (next_ == end_) return failTruncated();
  const unsigned first = *next_;
  const unsigned info = first & 0x1F;
  const auto major = static_cast<Item::Type>(first >> 5);
  if (first >= 0xE0) return readSimple(item, info);
  const std::uint8_t* after = next_ + 1;
  std::uint64_t argument = info;
  if (info >= kOneByte) {
    if (info > kEightBytes) return failHead(first);
    const std::size_t width = std::size_t{1} << (info - kOneByte);
    if (static_cast<std::size_t>(end_ - after) < width) return failTruncated();
    argument = bigEndian(after, width);
    after += width;
  }
  const auto left = static_cast<std::size_t>(end_ - after);
  static_assert(static_cast<unsigned>(Item::Type::bytes) == 2 && static_cast<unsigned>(Item::Type::tag) == 6,
                "the types begin in the order of the major types");
  item.type = major;
  item.number = argument;
  switch (major) {
    case Item::Type::bytes:
    case Item::Type::text:
      if (argument > left) return failTruncated();
      item.start = after;
      after += argument;
      break;
    // Each element takes a byte at least, each pair two: a count above that is a lie, whatever follows.
    case Item::Type::array:
      if (argument > left) return failCount(item, left);
      break;
    case Item::Type::map:
      if (argument > left / 2) return failCount(item, left / 2);
      break;
    default:
      break;
  }
  next_ = after;
  return true;
}

}  // namespace velto::wire
