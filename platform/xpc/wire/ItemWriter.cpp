// The one place that knows libcbor's encoder.

#include "platform/xpc/wire/ItemWriter.h"

#include <algorithm>
#include <cstring>

#include <cbor.h>

namespace velto::wire {
namespace {

// The longest head: one byte and eight of its argument.
constexpr std::size_t kHeadBytes = 9;
constexpr std::size_t kFirstBytes = 256;
// Longer strings are appended as they are, without room behind them that would have to be cleared first.
constexpr std::size_t kShortBytes = 1024;

}  // namespace

std::uint8_t* ItemWriter::room() {
  if (bytes_.size() - written_ < kHeadBytes) bytes_.resize(std::max(kFirstBytes, 2 * bytes_.size()));
  return bytes_.data() + written_;
}

void ItemWriter::append(const void* bytes, std::size_t length) {
  if (length == 0) return;
  if (bytes_.size() - written_ >= length) {
    std::memcpy(bytes_.data() + written_, bytes, length);
  } else if (length <= kShortBytes) {
    bytes_.resize(2 * bytes_.size() + kShortBytes);
    std::memcpy(bytes_.data() + written_, bytes, length);
  } else {
    const auto* const first = static_cast<const std::uint8_t*>(bytes);
    bytes_.resize(written_);
    bytes_.insert(bytes_.end(), first, first + length);
  }
  written_ += length;
}

void ItemWriter::addUnsigned(std::uint64_t value) {
  written_ += cbor_encode_uint(value, room(), kHeadBytes);
}

void ItemWriter::addSigned(std::int64_t value) {
  if (value >= 0) return addUnsigned(static_cast<std::uint64_t>(value));
  written_ += cbor_encode_negint(~static_cast<std::uint64_t>(value), room(), kHeadBytes);
}

void ItemWriter::addDouble(double value) {
  written_ += cbor_encode_double(value, room(), kHeadBytes);
}

void ItemWriter::addBool(bool value) {
  written_ += cbor_encode_bool(value, room(), kHeadBytes);
}

void ItemWriter::addNull() {
  written_ += cbor_encode_null(room(), kHeadBytes);
}

void ItemWriter::addUndefined() {
  written_ += cbor_encode_undef(room(), kHeadBytes);
}

void ItemWriter::addText(std::string_view text) {
  written_ += cbor_encode_string_start(text.size(), room(), kHeadBytes);
  append(text.data(), text.size());
}

void ItemWriter::addBytes(std::span<const std::uint8_t> bytes) {
  written_ += cbor_encode_bytestring_start(bytes.size(), room(), kHeadBytes);
  append(bytes.data(), bytes.size());
}

void ItemWriter::addArray(std::size_t count) {
  written_ += cbor_encode_array_start(count, room(), kHeadBytes);
}

void ItemWriter::addMap(std::size_t pairs) {
  written_ += cbor_encode_map_start(pairs, room(), kHeadBytes);
}

void ItemWriter::addTag(std::uint64_t tag) {
  written_ += cbor_encode_tag(tag, room(), kHeadBytes);
}

}  // namespace velto::wire
