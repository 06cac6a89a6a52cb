#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <string_view>
#include <vector>

#include "platform/foundation/NSObject.h"

class NSError;

// Bytes that never change: owned, borrowed from somebody who is told when they are no longer needed, or a mapped region
// of shared memory. See NSObject for nil and threads. Two data objects are equal when their bytes are.
class VELTO_EXPORT NSData : public NSObject {
 public:
  NSData() noexcept = default;
  NSData(std::nullptr_t) noexcept {}
  explicit operator bool() const noexcept { return !isNil(); }
  NSData(const std::vector<std::uint8_t>& bytes);
  // Copies any other range of std::uint8_t or std::byte.
  template <velto::BecomesData T>
  // NOLINTNEXTLINE(bugprone-forwarding-reference-overload): no handle, and so no copy, meets the constraint.
  NSData(T&& bytes) : NSObject(velto::plainValue(bytes)) {}

  static velto::Class classObject();
  static constexpr bool isKind(velto::Tag tag) noexcept {
    return tag == velto::Tag::data || tag == velto::Tag::mutableData;
  }
  // Copies `length` bytes.
  [[nodiscard]] static NSData dataWithBytes(const void* bytes, std::size_t length);
  // Takes the vector over; nothing is copied.
  [[nodiscard]] static NSData dataWithVector(std::vector<std::uint8_t> bytes);
  // Borrows: the bytes stay where they are and must not change until `deleter` is called, once, on whichever thread
  // lets go of the data last. It raises nothing. A message that holds the data takes a copy of it.
  [[nodiscard]] static NSData dataWithBytesNoCopy(const void* bytes, std::size_t length, std::function<void()> deleter);
  // Maps `length` bytes of a sealed memfd for reading; a length of 0 maps nothing and makes empty data. The descriptor
  // is borrowed for the call only. nil and `*error` (domain "org.velto.platform", code = errno) when it cannot be
  // mapped: not a region of shared memory (EINVAL; a file is none, it can shrink), shorter than `length` (EINVAL), or
  // not sealed against shrinking and writing (EPERM), so that its bytes could vanish or change while they are read.
  [[nodiscard]] static NSData dataMappingDescriptor(int borrowedDescriptor, std::size_t length,
                                                    NSError* error = nullptr);

  [[nodiscard]] const std::uint8_t* bytes() const noexcept;
  [[nodiscard]] std::size_t length() const noexcept;
  [[nodiscard]] std::span<const std::uint8_t> span() const noexcept { return {bytes(), length()}; }
  [[nodiscard]] std::string_view view() const noexcept;

 protected:
  explicit NSData(const velto::Value& adopted) noexcept : NSObject(adopted) {}
};

// Bytes that can grow. A handle of type NSData on the same body sees every change.
class VELTO_EXPORT NSMutableData : public NSData {
 public:
  NSMutableData() noexcept = default;
  NSMutableData(std::nullptr_t) noexcept {}

  static velto::Class classObject();
  static constexpr bool isKind(velto::Tag tag) noexcept { return tag == velto::Tag::mutableData; }
  [[nodiscard]] static NSMutableData data();
  [[nodiscard]] static NSMutableData dataWithData(const NSData& bytes);

  void appendBytes(const void* bytes, std::size_t length);
  void setLength(std::size_t length);
  // nullptr for nil. Valid until the next change.
  [[nodiscard]] std::uint8_t* mutableBytes() noexcept;

 private:
  explicit NSMutableData(const velto::Value& adopted) noexcept : NSData(adopted) {}
};
