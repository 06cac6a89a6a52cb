#pragma once

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <span>
#include <utility>
#include <vector>

#include "platform/foundation/BodyMemory.h"
#include "platform/foundation/Value.h"

namespace velto::wire {

// A piece of memory with a reference count, not initialised.
class ByteBlock {
 public:
  // With one reference. Raises std::bad_alloc.
  static ByteBlock* make(std::size_t capacity);
  // Larger or smaller, perhaps elsewhere, with the bytes that fit; null makes a new one. Only for the single owner.
  // Raises std::bad_alloc, and changes nothing then.
  static ByteBlock* resize(ByteBlock* block, std::size_t capacity);
  ByteBlock(const ByteBlock&) = delete;
  ByteBlock& operator=(const ByteBlock&) = delete;

  void retain() noexcept { references_.fetch_add(1, std::memory_order_relaxed); }
  void release() noexcept;

  std::uint8_t* bytes() noexcept { return reinterpret_cast<std::uint8_t*>(this + 1); }
  std::size_t capacity() const noexcept { return capacity_; }

 private:
  explicit ByteBlock(std::size_t capacity) noexcept : capacity_(capacity) {}
  ~ByteBlock() = default;
  static bool isSmall(std::size_t capacity) noexcept { return sizeof(ByteBlock) + capacity <= BodyMemory::kLargest; }
  void free() noexcept;

  std::atomic<std::uint64_t> references_{1};
  std::size_t capacity_;
};

// The bytes of a frame. They can grow as a vector's can, without being cleared first, and can stay where they have
// arrived: the block that they lie in is counted, so that what is read from them may go on using it. Copies are copies
// of the bytes.
class ByteBuffer {
 public:
  using value_type = std::uint8_t;
  using iterator = std::uint8_t*;
  using const_iterator = const std::uint8_t*;

  ByteBuffer() noexcept = default;
  // Takes over a reference to the block that the bytes lie in.
  ByteBuffer(ByteBlock* block, std::uint8_t* first, std::size_t size) noexcept
      : block_(block), first_(first), size_(size) {}
  explicit ByteBuffer(std::span<const std::uint8_t> bytes);
  ByteBuffer(std::initializer_list<std::uint8_t> bytes) : ByteBuffer(std::span(bytes.begin(), bytes.size())) {}
  ByteBuffer(const std::vector<std::uint8_t>& bytes) : ByteBuffer(std::span(bytes)) {}
  ByteBuffer(const ByteBuffer& other) : ByteBuffer(std::span(other)) {}
  ByteBuffer(ByteBuffer&& other) noexcept
      : block_(std::exchange(other.block_, nullptr)),
        first_(std::exchange(other.first_, nullptr)),
        size_(std::exchange(other.size_, 0)) {}
  ByteBuffer& operator=(ByteBuffer other) noexcept {
    std::swap(block_, other.block_);
    std::swap(first_, other.first_);
    std::swap(size_, other.size_);
    return *this;
  }
  ~ByteBuffer() {
    if (block_ != nullptr) block_->release();
  }

  std::uint8_t* data() noexcept { return first_; }
  const std::uint8_t* data() const noexcept { return first_; }
  std::size_t size() const noexcept { return size_; }
  bool empty() const noexcept { return size_ == 0; }
  iterator begin() noexcept { return first_; }
  iterator end() noexcept { return first_ + size_; }
  const_iterator begin() const noexcept { return first_; }
  const_iterator end() const noexcept { return first_ + size_; }
  std::uint8_t& operator[](std::size_t index) noexcept { return first_[index]; }
  std::uint8_t operator[](std::size_t index) const noexcept { return first_[index]; }
  std::uint8_t back() const noexcept { return first_[size_ - 1]; }
  friend bool operator==(const ByteBuffer& left, const ByteBuffer& right) noexcept {
    return std::equal(left.begin(), left.end(), right.begin(), right.end());
  }

  operator std::vector<std::uint8_t>() const { return {begin(), end()}; }

  // The memory behind it, for what shares it; null while there is none.
  ByteBlock* block() const noexcept { return block_; }
  // Bytes that it can have where it is.
  std::size_t capacity() const noexcept {
    return block_ == nullptr ? 0 : block_->capacity() - static_cast<std::size_t>(first_ - block_->bytes());
  }
  // The following are for the single owner of the block, and raise std::bad_alloc, changing nothing.
  void reserve(std::size_t capacity);
  // New bytes are zero.
  void resize(std::size_t size);
  // Bytes up to the capacity have been written.
  void setSize(std::size_t size) noexcept { size_ = size; }
  void append(std::span<const std::uint8_t> bytes);
  void push_back(std::uint8_t byte) { append({&byte, 1}); }
  // Gives back the memory that it does not use, if there is much of that; if it can.
  void releaseUnused() noexcept;

 private:
  ByteBlock* block_ = nullptr;
  std::uint8_t* first_ = nullptr;
  std::size_t size_ = 0;
};

}  // namespace velto::wire
