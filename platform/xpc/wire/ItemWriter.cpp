// What is not worth being inline.

#include "platform/xpc/wire/ItemWriter.h"

#include <algorithm>
#include <bit>

namespace velto::wire {
namespace {

constexpr std::size_t kFirstBytes = 256;

}  // namespace

void ItemWriter::grow(std::size_t bytes) {
  // What is cleared is a little; the vector's memory doubles.
  bytes_.resize(written_ + std::max(bytes, kFirstBytes));
}

void ItemWriter::addDouble(double value) {
  std::uint8_t* const out = room(kHeadBytes);
  out[0] = 0xFB;
  const std::uint64_t swapped = __builtin_bswap64(std::bit_cast<std::uint64_t>(value));
  std::memcpy(out + 1, &swapped, sizeof swapped);
  written_ += kHeadBytes;
}

void ItemWriter::addLong(unsigned major, const void* bytes, std::size_t length) {
  addHead(major, length);
  const auto* const first = static_cast<const std::uint8_t*>(bytes);
  bytes_.resize(written_);
  bytes_.insert(bytes_.end(), first, first + length);
  written_ += length;
}

}  // namespace velto::wire
