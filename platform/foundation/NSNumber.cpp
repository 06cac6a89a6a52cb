// Numbers. Equality and hash go through one exact form, in which every value has a single spelling whatever its kind:
// a double that is a whole number within 64 bits is that integer. No comparison ever rounds.
#include "platform/foundation/NSNumber.h"

#include <array>
#include <bit>
#include <charconv>
#include <cmath>
#include <limits>
#include <utility>

#include "platform/foundation/BuiltInClass.h"
#include "platform/foundation/Class.h"
#include "platform/foundation/NumberBody.h"
#include "platform/foundation/SipHash.h"
#include "platform/foundation/Walk.h"

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

}  // namespace

std::string shortestText(double value) {
  if (std::isnan(value)) return "nan";
  std::array<char, 32> text{};
  const std::to_chars_result result = std::to_chars(text.data(), text.data() + text.size(), value);
  return {text.data(), result.ptr};
}

bool NumberBody::boolValue() const noexcept {
  return std::visit([](auto value) { return value != 0 && value == value; }, value_);
}

double NumberBody::doubleValue() const noexcept {
  return std::visit([](auto value) { return static_cast<double>(value); }, value_);
}

template <class Integer>
Integer NumberBody::convertedTo() const noexcept {
  return std::visit([](auto value) { return saturated<Integer>(value); }, value_);
}
template std::int64_t NumberBody::convertedTo() const noexcept;
template std::uint64_t NumberBody::convertedTo() const noexcept;

const ClassBody& NumberBody::classBody() const {
  return classBodyOf<NSNumber>();
}

bool NumberBody::isEqual(const ObjectBody& other, WalkBound&) const {
  const auto* number = bodyAs<NumberBody>(&other);
  if (number == nullptr) return false;
  return std::visit([](auto left, auto right) { return exactValue(left) == exactValue(right); }, value_,
                    number->value_);
}

std::size_t NumberBody::hash() const {
  const ExactValue value = std::visit([](auto each) { return exactValue(each); }, value_);
  return hashOfBytes(value.data(), sizeof value);
}

void NumberBody::describe(std::string& out, WalkBound&) const {
  if (const double* value = std::get_if<double>(&value_)) {
    out += shortestText(*value);
  } else if (kind() == NSNumber::Kind::unsignedInteger) {
    out += std::to_string(convertedTo<std::uint64_t>());
  } else {
    out += std::to_string(convertedTo<std::int64_t>());
  }
}

}  // namespace velto

using velto::NumberBody;

Class NSNumber::classObject() {
  static const Class& made = *new Class(velto::defineBuiltIn("NSNumber", NSObject::classObject()));
  return made;
}

NSNumber NSNumber::numberWithBool(bool value) {
  return NSNumber(new NumberBody(value));
}
NSNumber NSNumber::numberWithSigned(std::int64_t value) {
  return NSNumber(new NumberBody(value));
}
NSNumber NSNumber::numberWithUnsigned(std::uint64_t value) {
  return NSNumber(new NumberBody(value));
}
NSNumber NSNumber::numberWithDouble(double value) {
  return NSNumber(new NumberBody(value));
}

NSNumber::Kind NSNumber::kind() const noexcept {
  return isNil() ? Kind::signedInteger : static_cast<const NumberBody*>(body())->kind();
}
