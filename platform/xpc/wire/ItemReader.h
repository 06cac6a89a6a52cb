#pragma once

#include <cstddef>
#include <cstdint>
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
};

// Reads a CBOR sequence head by head, without allocating and without recursion. Only what this wire uses is let
// through: definite lengths, and counts that the bytes to come can back. Text is not checked for UTF-8 by read().
class ItemReader {
 public:
  // The bytes must outlive the reader.
  explicit ItemReader(std::span<const std::uint8_t> bytes) : bytes_(bytes) {}

  // False, and the reason, when the next head is broken; then nothing is consumed.
  bool read(Item& item);
  // Steps over one item with everything in it, however deep: false, and the reason, when it is not well-formed.
  bool skip();

  std::size_t position() const noexcept { return position_; }
  void rewind(std::size_t position) noexcept { position_ = position; }
  std::size_t remaining() const noexcept { return bytes_.size() - position_; }
  const std::string& reason() const noexcept { return reason_; }

 private:
  bool readShortTag(Item& item) noexcept;
  bool check(const Item& item, std::size_t length);
  bool fail(std::string reason);

  std::span<const std::uint8_t> bytes_;
  std::size_t position_ = 0;
  std::string reason_;
};

}  // namespace velto::wire
