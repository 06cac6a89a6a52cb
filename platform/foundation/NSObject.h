#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <type_traits>

#include "platform/foundation/Export.h"
#include "platform/foundation/ObjectBody.h"

class Class;
class NSString;

namespace velto {
template <class T>
const ClassBody& classBodyOf();
}  // namespace velto

// The root of the value classes: a handle on a reference-counted body. Copying a handle costs a count; `nil` (nullptr,
// or a default-constructed handle) is the empty state, and asking anything of nil is harmless and answers nil, zero,
// false or empty. Handles are compared by value (==).
//
// Threads: different handles on one body may be used from different threads; one handle, like any C++ variable, by one
// thread at a time. Immutable bodies never change. Mutable ones are not synchronised (see NSSynchronized).
//
// Plain C++ goes in without ceremony: a bool, a number, a string literal, std::string or std::string_view becomes the
// NSNumber or NSString that it stands for. Text that is not valid UTF-8 becomes an NSString in which each broken
// sequence is replaced by U+FFFD; a null `const char*` becomes nil.
class VELTO_EXPORT NSObject {
 public:
  constexpr NSObject() noexcept = default;
  constexpr NSObject(std::nullptr_t) noexcept {}
  NSObject(const char* text);
  NSObject(const std::string& text);
  NSObject(std::string_view text);
  template <std::same_as<bool> T>
  NSObject(T value) : NSObject(fromBool(value)) {}
  template <std::integral T>
  requires(!std::same_as<T, bool>) NSObject(T value) : NSObject(fromInteger(value)) {}
  template <std::floating_point T>
  NSObject(T value) : NSObject(fromDouble(static_cast<double>(value))) {}

  static Class classObject();

  bool isNil() const noexcept { return !body_; }
  explicit operator bool() const noexcept { return static_cast<bool>(body_); }

  // The class object of the value; nil for nil.
  Class getClass() const;
  // Whether the value is an instance of `kind` or of a subclass of it. False for nil.
  bool isKindOfClass(const Class& kind) const;
  // This handle as a T if the value is of that kind, else nil.
  template <class T>
  T as() const;

  // Equality by value; nil equals nil only. Containers that nest deeper, or are larger, than a walk may go raise an
  // NSException that says so.
  bool isEqual(const NSObject& other) const;
  friend bool operator==(const NSObject& left, const NSObject& right) { return left.isEqual(right); }
  std::size_t hash() const;
  // Whether both handles hold the same body.
  bool isIdenticalTo(const NSObject& other) const noexcept { return body_.get() == other.body_.get(); }

  // Short, stable and readable; what "%@" prints. "(null)" for nil. Never raises: too deep or too long is cut with "…".
  NSString description() const;

  // What a value of an unknown kind answers. A number converts (out of range saturates, not-a-number is 0); a string,
  // and anything else, answers false or 0.
  bool boolValue() const;
  std::int64_t integerValue() const;
  std::uint64_t unsignedIntegerValue() const;
  double doubleValue() const;
  // The text of an NSString; "" for every other kind.
  std::string stringValue() const;
  // Elements of a dictionary, array or set, bytes of data, bytes of a string's UTF-8; 0 for every other kind.
  std::size_t count() const;
  // The value under a key of a dictionary; nil for every other kind and for a missing key.
  NSObject operator[](const NSObject& key) const;
  NSObject operator[](const char* key) const;
  // The element of an array; nil for every other kind and past the end. A dictionary is asked for the number as a key.
  template <std::integral T>
  NSObject operator[](T index) const {
    if constexpr (std::is_unsigned_v<T> && sizeof(T) >= sizeof(std::int64_t)) {
      if (index > static_cast<T>(INT64_MAX)) return (*this)[NSObject(index)];
    }
    return elementAt(static_cast<std::int64_t>(index));
  }

  // The body itself: for classes of your own, and for the platform.
  velto::ObjectBody* body() const noexcept { return body_.get(); }

 protected:
  explicit NSObject(velto::ObjectBody* body) noexcept : body_(body) {}

 private:
  bool isKindOf(const velto::ClassBody& kind) const;
  NSObject elementAt(std::int64_t index) const;
  static NSObject fromBool(bool value);
  template <std::integral T>
  static NSObject fromInteger(T value) {
    if constexpr (std::is_signed_v<T>) {
      return fromSigned(value);
    } else {
      return fromUnsigned(value);
    }
  }
  static NSObject fromSigned(std::int64_t value);
  static NSObject fromUnsigned(std::uint64_t value);
  static NSObject fromDouble(double value);

  velto::Reference<velto::ObjectBody> body_;
};

inline constexpr std::nullptr_t nil = nullptr;

// as() asks the class of its result, which is declared in terms of NSObject: hence an include at the end.
#include "platform/foundation/Class.h"

template <class T>
T NSObject::as() const {
  T result;
  if (isKindOf(velto::classBodyOf<T>())) static_cast<NSObject&>(result).body_ = body_;
  return result;
}
