#pragma once

#include <bit>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

#include "platform/foundation/Export.h"
#include "platform/foundation/Lookup.h"
#include "platform/foundation/PlainTypes.h"
#include "platform/foundation/Value.h"

class NSString;

namespace velto {
class Class;
class ClassBody;
class ObjectBody;
template <class T>
const ClassBody& classBodyOf();

// A text as the words of a handle: itself, if it is short, else a body with one reference that the caller takes over.
// Broken UTF-8 is replaced.
VELTO_EXPORT Value textValue(std::string_view text);

}  // namespace velto

// `Class` and `nil` are names of velto, made known at global scope. For those who have such names themselves: a program
// that defines VELTO_NO_GLOBAL_NAMES, in all of its files or in some, says velto::Class and velto::nil instead. A macro
// `nil` of the program's own, defined before or after, stays what it is.
#pragma push_macro("nil")
#undef nil
namespace velto {
inline constexpr std::nullptr_t nil = nullptr;
}  // namespace velto
#ifndef VELTO_NO_GLOBAL_NAMES
using velto::Class;
using velto::nil;
#endif
#pragma pop_macro("nil")

// The root of the value classes: a handle of two words. Numbers, bools and short texts lie in the handle itself;
// everything else in a reference-counted body, so that copying a handle costs a count at most. `nil` (nullptr, or a
// default-constructed handle) is the empty state, and asking anything of nil is harmless and answers nil, zero, false
// or empty. Handles are compared by value (==).
//
// Threads: different handles on one body may be used from different threads; one handle, like any C++ variable, by one
// thread at a time. Immutable bodies never change. Mutable ones are not synchronised (see NSSynchronized).
//
// Plain C++ goes in without ceremony: a bool, a number, a string literal, std::string or std::string_view becomes the
// NSNumber or NSString that it stands for. Text that is not valid UTF-8 becomes an NSString in which each broken
// sequence is replaced by U+FFFD; a null `const char*` becomes nil. So do the rest of the standard library's types, and
// what has their shape: a vector, a map, an optional, a point in time (velto::BecomesObject; docs/values.md says what
// becomes what).
class VELTO_EXPORT NSObject {
 public:
  constexpr NSObject() noexcept = default;
  constexpr NSObject(std::nullptr_t) noexcept {}
  NSObject(const NSObject& other) noexcept : value_(other.value_) { value_.retain(); }
  NSObject(NSObject&& other) noexcept : value_(std::exchange(other.value_, velto::Value())) {}
  // Not to what a lookup has answered: that would be lost.
  NSObject& operator=(const NSObject& other) & noexcept {
    other.value_.retain();
    std::exchange(value_, other.value_).release();
    return *this;
  }
  NSObject& operator=(NSObject&& other) & noexcept {
    if (this != &other) std::exchange(value_, std::exchange(other.value_, velto::Value())).release();
    return *this;
  }
  NSObject& operator=(const NSObject& other) && = delete;
  NSObject& operator=(NSObject&& other) && = delete;
  ~NSObject() { value_.release(); }

  [[gnu::always_inline]] NSObject(const char* text) : value_(fromText(text)) {}
  NSObject(const std::string& text) : value_(velto::textValue(text)) {}
  NSObject(std::string_view text) : value_(velto::textValue(text)) {}
  template <std::same_as<bool> T>
  NSObject(T value) noexcept : value_(velto::Tag::boolean, value ? 1 : 0) {}
  template <std::integral T>
  requires(!std::same_as<T, bool>) NSObject(T value)
  noexcept
      : value_(std::is_signed_v<T> ? velto::Tag::signedInteger : velto::Tag::unsignedInteger,
               static_cast<std::uint64_t>(value)) {}
  template <std::floating_point T>
  NSObject(T value) noexcept
      : value_(velto::Tag::floatingPoint, std::bit_cast<std::uint64_t>(static_cast<double>(value))) {}

  template <class T>
  // NOLINTNEXTLINE(bugprone-forwarding-reference-overload): no handle, and so no copy, meets the constraint.
  requires velto::PlainValue<T> NSObject(T&& value);

  static velto::Class classObject();

  // A value of an unknown kind does not convert to bool: isNil() asks whether there is one, boolValue() what it says.
  // (Handles of a known class convert, and are true when they are not nil.)
  [[nodiscard]] bool isNil() const noexcept { return value_.isNil(); }

  // The class object of the value; nil for nil.
  [[nodiscard]] velto::Class getClass() const;
  // Whether the value is an instance of `kind` or of a subclass of it. False for nil.
  [[nodiscard]] bool isKindOfClass(const velto::Class& kind) const;
  // Whether it is a T.
  template <class T>
  [[nodiscard]] bool is() const;
  // This handle as a T if the value is of that kind, else nil.
  template <class T>
  [[nodiscard]] T as() const&;
  template <class T>
  [[nodiscard]] T as() &&;

  // The value as plain C++, or as a handle that is not nil; nothing if it is of another kind, or does not fit: 300 is
  // no std::uint8_t, 2.5 no int, true no number. docs/values.md says what comes out of what.
  template <velto::ComesOutOfObject T>
  [[nodiscard]] std::optional<T> to() const;
  // The same for a value inside of this one: get<double>("a.b[2]") is the third element of what is under "b" in what is
  // under "a". A backslash before a dot, a bracket or a backslash makes it a part of the key; "" is this value itself.
  // If there is no such value, or the path is none, the result says where and why.
  template <velto::ComesOutOfObject T>
  [[nodiscard]] velto::Lookup<T> get(std::string_view path = {}) const;

  // Equality by value; nil equals nil only. Containers that nest deeper, or are larger, than a walk may go raise an
  // NSException that says so.
  [[nodiscard]] bool isEqual(const NSObject& other) const;
  friend bool operator==(const NSObject& left, const NSObject& right) { return left.isEqual(right); }
  [[nodiscard]] std::size_t hash() const;
  // Whether both handles hold the same body. What lies in handles themselves is identical when it is equal and of the
  // same kind.
  [[nodiscard]] bool isIdenticalTo(const NSObject& other) const noexcept { return value_ == other.value_; }

  // Short, stable and readable; what "%@" prints. "(null)" for nil. Never raises: too deep or too long is cut with "…".
  [[nodiscard]] NSString description() const;

  // Prints the description. (A template, so that one of your own goes before it.)
  template <int = 0>
  friend std::ostream& operator<<(std::ostream& out, const NSObject& object) {
    object.printTo(out);
    return out;
  }

  // What a value of an unknown kind answers. A number converts (out of range saturates, not-a-number is 0); a string,
  // and anything else, answers false or 0.
  [[nodiscard]] bool boolValue() const;
  [[nodiscard]] std::int64_t integerValue() const;
  [[nodiscard]] std::uint64_t unsignedIntegerValue() const;
  [[nodiscard]] double doubleValue() const;
  // The text of an NSString; "" for every other kind.
  [[nodiscard]] std::string stringValue() const;
  // Elements of a dictionary, array or set, bytes of data, bytes of a string's UTF-8; 0 for every other kind.
  [[nodiscard]] std::size_t count() const;
  // The value under a key of a dictionary; nil for every other kind and for a missing key.
  NSObject operator[](const NSObject& key) const;
  [[gnu::always_inline]] NSObject operator[](const char* key) const {
    if (__builtin_constant_p(key != nullptr && __builtin_strlen(key) <= velto::Value::kMaximumText)) {
      return (*this)[NSObject(key)];
    }
    return key != nullptr ? valueForText(key) : NSObject();
  }
  // The element of an array; nil for every other kind and past the end. A dictionary is asked for the number as a key.
  template <std::integral T>
  NSObject operator[](T index) const {
    if constexpr (std::is_unsigned_v<T> && sizeof(T) >= sizeof(std::int64_t)) {
      if (index > static_cast<T>(INT64_MAX)) return (*this)[NSObject(index)];
    }
    return elementAt(static_cast<std::int64_t>(index));
  }

  // The body of an object of a class of your own; null for the platform's values.
  [[nodiscard]] velto::ObjectBody* body() const noexcept;

  // The words of the handle, for the platform.
  [[nodiscard]] const velto::Value& value() const noexcept { return value_; }
  // Takes over the reference that the words stand for, or gives it away and becomes nil.
  [[nodiscard]] static NSObject adopt(const velto::Value& value) noexcept {
    NSObject object;
    object.value_ = value;
    return object;
  }
  velto::Value giveUp() noexcept { return std::exchange(value_, velto::Value()); }

 protected:
  // Takes a reference to the body, as the first handle of a new one does; null makes nil.
  explicit NSObject(velto::ObjectBody* body) noexcept;
  explicit NSObject(const velto::Value& adopted) noexcept : value_(adopted) {}

 private:
  void printTo(std::ostream& out) const;
  bool isKindOf(const velto::ClassBody& kind) const;
  NSObject valueForText(std::string_view text) const;
  NSObject elementAt(std::int64_t index) const;
  // Folds into two constants where the text is a literal.
  [[gnu::always_inline]] static velto::Value fromText(const char* text) {
    if (__builtin_constant_p(text != nullptr && __builtin_strlen(text) <= velto::Value::kMaximumText)) {
      const std::size_t length = text != nullptr ? __builtin_strlen(text) : SIZE_MAX;
      if (length <= velto::Value::kMaximumText) {
        const velto::Value value = velto::Value::ofText(text, length);
        if (value.isASCII()) return value;
      }
    }
    return text != nullptr ? velto::textValue(text) : velto::Value();
  }

  velto::Value value_;
};

// These are declared in terms of NSObject: hence includes at the end.
#include "platform/foundation/Class.h"
#include "platform/foundation/ComingOut.h"
#include "platform/foundation/GoingIn.h"

template <class T>
bool NSObject::is() const {
  if constexpr (std::same_as<T, NSObject>) {
    return !isNil();
  } else if constexpr (requires(velto::Tag tag) { T::isKind(tag); }) {
    return T::isKind(value_.tag());
  } else {
    return isKindOf(velto::classBodyOf<T>());
  }
}

template <class T>
T NSObject::as() const& {
  T result;
  if (is<T>()) static_cast<NSObject&>(result) = *this;
  return result;
}

template <class T>
T NSObject::as() && {
  T result;
  if (is<T>()) static_cast<NSObject&>(result) = std::move(*this);
  return result;
}

// Of every handle, equal ones alike.
template <std::derived_from<NSObject> T>
struct std::hash<T> {
  [[nodiscard]] std::size_t operator()(const NSObject& object) const { return object.hash(); }
};
