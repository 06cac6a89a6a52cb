// Small blocks are had as bodies are. Larger ones by malloc(), since realloc() moves large blocks by mapping them
// elsewhere, without copying.
#include "platform/xpc/wire/ByteBuffer.h"

#include <cstdlib>
#include <new>

namespace velto::wire {

namespace {

void* checked(void* memory) {
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}

}  // namespace

ByteBlock* ByteBlock::make(std::size_t capacity) {
  const std::size_t bytes = sizeof(ByteBlock) + capacity;
  return new (isSmall(capacity) ? BodyMemory::allocate(bytes) : checked(std::malloc(bytes))) ByteBlock(capacity);
}

ByteBlock* ByteBlock::resize(ByteBlock* block, std::size_t capacity) {
  if (block == nullptr) return make(capacity);
  if (!isSmall(capacity) && !isSmall(block->capacity())) {
    return new (checked(std::realloc(static_cast<void*>(block), sizeof(ByteBlock) + capacity))) ByteBlock(capacity);
  }
  ByteBlock* const made = make(capacity);
  std::memcpy(made->bytes(), block->bytes(), std::min(capacity, block->capacity()));
  block->free();
  return made;
}

void ByteBlock::release() noexcept {
  if (isLastReference(references_)) free();
}

void ByteBlock::free() noexcept {
  const std::size_t capacity = capacity_;
  this->~ByteBlock();
  if (isSmall(capacity)) return BodyMemory::release(this, sizeof(ByteBlock) + capacity);
  std::free(this);
}

ByteBuffer::ByteBuffer(std::span<const std::uint8_t> bytes) {
  if (bytes.empty()) return;
  block_ = ByteBlock::make(bytes.size());
  first_ = block_->bytes();
  size_ = bytes.size();
  std::memcpy(first_, bytes.data(), size_);
}

void ByteBuffer::reserve(std::size_t capacity) {
  if (capacity <= this->capacity()) return;
  const std::size_t before = block_ == nullptr ? 0 : static_cast<std::size_t>(first_ - block_->bytes());
  block_ = ByteBlock::resize(block_, before + capacity);
  first_ = block_->bytes() + before;
}

void ByteBuffer::resize(std::size_t size) {
  reserve(size);
  if (size > size_) std::memset(first_ + size_, 0, size - size_);
  size_ = size;
}

void ByteBuffer::append(std::span<const std::uint8_t> bytes) {
  if (bytes.empty()) return;
  const std::size_t size = size_ + bytes.size();
  if (size > capacity()) reserve(std::max(size, 2 * size_));
  std::memcpy(first_ + size_, bytes.data(), bytes.size());
  size_ = size;
}

void ByteBuffer::releaseUnused() noexcept {
  if (block_ == nullptr || capacity() - size_ < size_ / 4) return;
  try {
    const auto before = static_cast<std::size_t>(first_ - block_->bytes());
    block_ = ByteBlock::resize(block_, before + size_);
    first_ = block_->bytes() + before;
  } catch (const std::bad_alloc&) {
    // It stays as it is.
  }
}

}  // namespace velto::wire
