#pragma once

#include <concepts>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>
#include <type_traits>
#include <variant>

#include "platform/foundation/Export.h"

class NSObject;

namespace velto {

// One argument of a format: taken by reference, turned into text only when the text is asked for. Lives no longer than
// the call that it is made in.
class FormatArgument {
 public:
  explicit FormatArgument(const NSObject& object) : value_(&object) {}
  template <std::integral T>
  explicit FormatArgument(T value)
      : value_(std::is_signed_v<T> ? Value(static_cast<std::int64_t>(value))
                                   : Value(static_cast<std::uint64_t>(value))) {}
  explicit FormatArgument(double value) : value_(value) {}
  explicit FormatArgument(const char* text) : value_(text != nullptr ? std::string_view(text) : "(null)") {}
  explicit FormatArgument(const std::string& text) : value_(std::string_view(text)) {}

  using Value = std::variant<const NSObject*, std::int64_t, std::uint64_t, double, std::string_view>;
  const Value& value() const noexcept { return value_; }

 private:
  Value value_;
};

// Understands "%@", "%%" and printf's d i u x X f g e s with flags, width, precision (length modifiers are skipped: an
// argument knows its own type). A placeholder without an argument, or with one of another type, prints the argument as
// "%@" would and never reads past the list.
VELTO_EXPORT std::string formatText(const char* format, std::initializer_list<FormatArgument> arguments);

}  // namespace velto
