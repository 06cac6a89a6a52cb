// One piece of memory, and further ones for the messages whose objects need more than was thought.
#include "platform/foundation/Region.h"

#include <algorithm>

namespace velto {
Region* Region::make(std::size_t bytes) {
  const std::size_t size = sizeof(Region) + bytes;
  auto* const memory = static_cast<char*>(BodyMemory::allocate(size));
  return new (memory) Region(memory + sizeof(Region), memory + size, size);
}

void* Region::allocateElsewhere(std::size_t bytes) {
  // As much again as was thought at first, so that little is left over.
  const std::size_t size = sizeof(Chunk) + std::max(bytes, bytes_);
  auto* const memory = static_cast<char*>(::operator new(size));
  more_ = new (memory) Chunk{more_};
  next_ = memory + sizeof(Chunk);
  end_ = memory + size;
  char* const room = next_;
  next_ += bytes;
  return room;
}

void Region::keep(const Value& value) {
  if (!value.isCounted()) return;
  kept_ = new (allocate(sizeof(Kept))) Kept{kept_, value};
}

void Region::drop() noexcept {
  for (const Kept* each = kept_; each != nullptr; each = each->next) each->value.release();
  while (more_ != nullptr) ::operator delete(std::exchange(more_, more_->next));
  const std::size_t bytes = bytes_;
  this->~Region();
  BodyMemory::release(this, bytes);
}

}  // namespace velto
