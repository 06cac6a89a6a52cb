#pragma once

#include <concepts>
#include <cstdint>
#include <type_traits>

#include "platform/foundation/NSObject.h"

// A number object: a bool, a signed or unsigned 64-bit integer, or a double; which one it is survives a journey over
// the wire. Numbers are equal when their values are, whatever their kinds (true equals 1 equals 1.0), compared exactly;
// a not-a-number equals itself. See NSObject for nil and threads.
class VELTO_EXPORT NSNumber : public NSObject {
 public:
  enum class Kind { boolean, signedInteger, unsignedInteger, floatingPoint };

  NSNumber() noexcept = default;
  NSNumber(std::nullptr_t) noexcept {}
  explicit operator bool() const noexcept { return !isNil(); }
  template <class T>
  requires std::is_arithmetic_v<T> NSNumber(T value)
  noexcept : NSObject(value) {}

  static velto::Class classObject();
  static constexpr bool isKind(velto::Tag tag) noexcept {
    return tag >= velto::Tag::boolean && tag <= velto::Tag::floatingPoint;
  }
  [[nodiscard]] static NSNumber numberWithBool(bool value);
  [[nodiscard]] static NSNumber numberWithSigned(std::int64_t value);
  [[nodiscard]] static NSNumber numberWithUnsigned(std::uint64_t value);
  [[nodiscard]] static NSNumber numberWithDouble(double value);

  // signedInteger for nil.
  [[nodiscard]] Kind kind() const noexcept;
};
