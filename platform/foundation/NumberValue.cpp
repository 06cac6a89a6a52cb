// Numbers. Equality and hash go through one exact form, in which every value has a single spelling whatever its kind:
// a double that is a whole number within 64 bits is that integer. No comparison ever rounds.
#include "platform/foundation/NumberValue.h"

#include <array>
#include <bit>
#include <charconv>
#include <cmath>
#include <concepts>
#include <limits>
#include <utility>

#include "platform/foundation/SipHash.h"
#include "platform/foundation/ValueText.h"

namespace velto {
namespace {

constexpr double kTwoToThe63 = 9223372036854775808.0;
constexpr double kTwoToThe64 = 18446744073709551616.0;

enum class Form : std::uint64_t { negativeInteger, otherInteger, notInteger };
using ExactValue = std::array<std::uint64_t, 2>;

ExactValue exact(Form form, std::uint64_t bits) {
  return {static_cast<std::uint64_t>(form), bits};
}

ExactValue exactValue(bool value) {
  return exact(Form::otherInteger, value ? 1 : 0);
}
ExactValue exactValue(std::uint64_t value) {
  return exact(Form::otherInteger, value);
}
ExactValue exactValue(std::int64_t value) {
  return exact(value < 0 ? Form::negativeInteger : Form::otherInteger, static_cast<std::uint64_t>(value));
}
ExactValue exactValue(double value) {
  if (std::isnan(value)) value = std::numeric_limits<double>::quiet_NaN();
  const bool isInteger = value >= -kTwoToThe63 && value < kTwoToThe64 && std::trunc(value) == value;
  if (!isInteger) return exact(Form::notInteger, std::bit_cast<std::uint64_t>(value));
  return value < 0 ? exactValue(static_cast<std::int64_t>(value)) : exactValue(static_cast<std::uint64_t>(value));
}

template <class Integer>
Integer saturated(double value) {
  using Limits = std::numeric_limits<Integer>;
  constexpr double kOneOver = std::is_signed_v<Integer> ? kTwoToThe63 : kTwoToThe64;
  if (std::isnan(value)) return 0;
  if (value >= kOneOver) return Limits::max();
  if (value <= static_cast<double>(Limits::min())) return Limits::min();
  return static_cast<Integer>(value);
}

template <class Integer>
Integer saturated(bool value) {
  return value ? 1 : 0;
}

template <class Integer, std::integral From>
Integer saturated(From value) {
  using Limits = std::numeric_limits<Integer>;
  if (std::in_range<Integer>(value)) return static_cast<Integer>(value);
  return std::cmp_less(value, 0) ? Limits::min() : Limits::max();
}

// Calls the function with the number as the type that it was made from.
template <class Function>
auto withNumber(const Value& number, const Function& function) {
  switch (number.tag()) {
    case Tag::boolean:
      return function(number.bits() != 0);
    case Tag::unsignedInteger:
      return function(number.bits());
    case Tag::floatingPoint:
      return function(std::bit_cast<double>(number.bits()));
    default:
      return function(static_cast<std::int64_t>(number.bits()));
  }
}

ExactValue exactValueOf(const Value& number) noexcept {
  return withNumber(number, [](auto value) { return exactValue(value); });
}

}  // namespace

bool boolOf(const Value& number) noexcept {
  return withNumber(number, [](auto value) { return value != 0 && value == value; });
}

double doubleOf(const Value& number) noexcept {
  return withNumber(number, [](auto value) { return static_cast<double>(value); });
}

std::int64_t signedOf(const Value& number) noexcept {
  return withNumber(number, [](auto value) { return saturated<std::int64_t>(value); });
}

std::uint64_t unsignedOf(const Value& number) noexcept {
  return withNumber(number, [](auto value) { return saturated<std::uint64_t>(value); });
}

bool areEqualNumbers(const Value& left, const Value& right) noexcept {
  return exactValueOf(left) == exactValueOf(right);
}

std::size_t hashOfNumber(const Value& number) noexcept {
  const ExactValue value = exactValueOf(number);
  return hashOfWords(value[0], value[1]);
}

std::string shortestText(double value) {
  if (std::isnan(value)) return "nan";
  std::array<char, 32> text{};
  const std::to_chars_result result = std::to_chars(text.data(), text.data() + text.size(), value);
  return {text.data(), result.ptr};
}

std::string textOfNumber(const Value& number) {
  if (number.tag() == Tag::floatingPoint) return shortestText(doubleOf(number));
  return number.tag() == Tag::unsignedInteger ? std::to_string(unsignedOf(number)) : std::to_string(signedOf(number));
}

}  // namespace velto
