#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <span>
#include <utility>
#include <vector>

#include "platform/foundation/MappedMemory.h"
#include "platform/foundation/NSObject.h"
#include "platform/foundation/Region.h"

namespace velto {

// Bytes that never change: a copy that follows, or bytes elsewhere, with what is to be called at the end. Those are the
// platform's own, or lent by a user, whose code is called then.
class DataBody final : public Body {
 public:
  // The words of a handle that owns it.
  static Value copy(std::span<const std::uint8_t> bytes, Region* region = nullptr) {
    return Value(*new (allocateBody(sizeof(DataBody) + bytes.size(), region)) DataBody(bytes, region));
  }
  static Value borrow(const void* bytes, std::size_t length, std::function<void()> deleter) {
    return make(bytes, length, std::move(deleter), false);
  }
  static Value lend(const void* bytes, std::size_t length, std::function<void()> deleter) {
    return make(bytes, length, std::move(deleter), true);
  }

  std::span<const std::uint8_t> bytes() const noexcept { return {bytes_, length_}; }
  bool isBorrowed() const noexcept { return bytes_ != reinterpret_cast<const std::uint8_t*>(this + 1); }
  bool isLent() const noexcept { return isLent_; }
  // The descriptor of the sealed memory that the bytes are all of, borrowed from this; -1 when there is none.
  int descriptor() const noexcept;
  void dismantle() const noexcept;

 private:
  static constexpr std::size_t borrowedSize() noexcept { return sizeof(DataBody) + sizeof(std::function<void()>); }
  static Value make(const void* bytes, std::size_t length, std::function<void()> deleter, bool isLent) {
    return Value(*new (allocateBody(borrowedSize(), nullptr)) DataBody(bytes, length, std::move(deleter), isLent));
  }
  DataBody(std::span<const std::uint8_t> bytes, Region* region) noexcept
      : Body(Tag::data, region), bytes_(reinterpret_cast<const std::uint8_t*>(this + 1)), length_(bytes.size()) {
    if (length_ > 0) std::memcpy(static_cast<void*>(this + 1), bytes.data(), length_);
  }
  DataBody(const void* bytes, std::size_t length, std::function<void()> deleter, bool isLent) noexcept
      : Body(Tag::data, nullptr), isLent_(isLent), bytes_(static_cast<const std::uint8_t*>(bytes)), length_(length) {
    new (this + 1) std::function<void()>(std::move(deleter));
  }

  // First: it finds room in the base.
  const bool isLent_ = false;
  const std::uint8_t* const bytes_;
  const std::size_t length_;
};

// Bytes that can grow.
class MutableDataBody final : public Body {
 public:
  explicit MutableDataBody(std::vector<std::uint8_t> bytes) noexcept
      : Body(Tag::mutableData, nullptr), bytes_(std::move(bytes)) {}

  const std::vector<std::uint8_t>& bytes() const noexcept { return bytes_; }
  std::vector<std::uint8_t>& bytes() noexcept { return bytes_; }
  void dismantle() const noexcept { delete this; }

 private:
  std::vector<std::uint8_t> bytes_;
};

inline bool isData(Tag tag) noexcept {
  return tag == Tag::data || tag == Tag::mutableData;
}
// The bytes of data of either kind; none for anything else.
inline std::span<const std::uint8_t> bytesOf(const Value& value) noexcept {
  if (value.tag() == Tag::data) return static_cast<const DataBody&>(value.body()).bytes();
  if (value.tag() == Tag::mutableData) return static_cast<const MutableDataBody&>(value.body()).bytes();
  return {};
}

inline int DataBody::descriptor() const noexcept {
  if (!isBorrowed() || isLent()) return -1;
  const auto* const keeper = reinterpret_cast<const std::function<void()>*>(this + 1)->target<MappedMemory>();
  return keeper == nullptr ? -1 : keeper->descriptor;
}

inline void DataBody::dismantle() const noexcept {
  const std::size_t size = isBorrowed() ? borrowedSize() : sizeof(DataBody) + length_;
  if (isBorrowed()) {
    auto* const deleter = reinterpret_cast<std::function<void()>*>(const_cast<DataBody*>(this) + 1);
    if (*deleter) (*deleter)();
    deleter->~function();
  }
  releaseBody(*this, size);
}

}  // namespace velto
