// What is not worth being inline.

#include "platform/xpc/wire/ItemWriter.h"

#include <algorithm>

namespace velto::wire {
void ItemWriter::grow(std::size_t bytes) {
  const std::size_t written = this->written();
  const bool isFirst = bytes_.capacity() == 0;
  bytes_.reserve(std::max(2 * written, written + bytes));
  if (isFirst) std::memcpy(bytes_.data(), short_, written);
  first_ = bytes_.data();
  next_ = first_ + written;
  end_ = first_ + bytes_.capacity();
}

ByteBuffer ItemWriter::finish() {
  if (bytes_.capacity() == 0) return ByteBuffer(std::span(first_, written()));
  bytes_.setSize(written());
  return std::move(bytes_);
}

}  // namespace velto::wire
