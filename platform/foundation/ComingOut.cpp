// What plain C++ is read from, and the words for what is not there.
#include "platform/foundation/ComingOut.h"

#include <algorithm>
#include <span>

#include "platform/foundation/ArrayBody.h"
#include "platform/foundation/DataBody.h"
#include "platform/foundation/KeyedBody.h"
#include "platform/foundation/NSDate.h"
#include "platform/foundation/NSString.h"
#include "platform/foundation/ShownText.h"
#include "platform/foundation/ValueText.h"
#include "platform/foundation/WalkBound.h"

namespace velto {
namespace {

// Seconds in a double, rounded from ticks of whatever kind, are closer to them than this.
constexpr double kSecondsOff = 1e-6;
// Of an enumeration, for people.
constexpr std::size_t kNamesTold = 8;

std::string kindOf(const NSObject& found) {
  switch (found.value().tag()) {
    case Tag::null:
      return "the null object";
    case Tag::boolean:
      return "a bool";
    case Tag::signedInteger:
    case Tag::unsignedInteger:
    case Tag::floatingPoint:
      return "a number";
    case Tag::text:
    case Tag::string:
    case Tag::mutableString:
      return "a string";
    case Tag::array:
    case Tag::mutableArray:
      return "an array";
    case Tag::dictionary:
    case Tag::mutableDictionary:
      return "a dictionary";
    case Tag::set:
    case Tag::mutableSet:
      return "a set";
    case Tag::data:
    case Tag::mutableData:
      return "data";
    case Tag::date:
      return "a date";
    default:
      return "of the class " + found.getClass().name().string();
  }
}

std::string shown(const NSObject& found) {
  std::string text;
  appendEscaped(found.description().view(), "", text);
  return text;
}

std::string escaped(std::string_view key) {
  std::string text;
  appendEscaped(key, ".[]\\", text);
  return text;
}

// Two parts of a path, one behind the other.
std::string joined(std::string_view first, std::string_view second) {
  const bool needsDot = !first.empty() && !second.empty() && second.front() != '[';
  return std::string(first) + (needsDot ? "." : "") + std::string(second);
}

std::string inBrackets(std::string_view text) {
  std::string step(1, '[');
  step += text;
  return step += ']';
}

}  // namespace

void Mismatch::isNot(const NSObject& found, std::string_view wanted) {
  reason_ = found.isNil() ? "there is nothing" : "is " + kindOf(found) + ", not " + std::string(wanted);
}

void Mismatch::isNotOf(const NSObject& found, const NSObject& wantedClass) {
  isNot(found, "of the class " + wantedClass.description().string());
}

void Mismatch::isOnly(const NSObject& found, std::string_view wanted) {
  reason_ = "is " + shown(found) + ", not " + std::string(wanted);
}

void Mismatch::has(std::size_t count, std::string_view what, std::size_t wanted) {
  reason_ = "has " + std::to_string(count) + " " + std::string(what) + ", not " + std::to_string(wanted);
}

void Mismatch::isOutside(const NSObject& found, std::int64_t minimum, std::uint64_t maximum) {
  isOnly(found, "from " + std::to_string(minimum) + " to " + std::to_string(maximum));
}

void Mismatch::hasEqualParts(std::string_view parts) {
  reason_ = "has " + std::string(parts) + " that the type does not tell apart";
}

void Mismatch::isNoneOf(const NSObject& found, std::span<const std::string_view> names) {
  std::string wanted = "one of ";
  for (std::size_t at = 0; at < std::min(names.size(), kNamesTold); ++at) {
    wanted += (at > 0 ? ", " : "") + std::string(names[at]);
  }
  isOnly(found, names.size() > kNamesTold ? wanted + ", …" : wanted);
}

void Mismatch::isNoField() {
  reason_ = "there is no such field";
}

bool Mismatch::enterStruct() {
  if (structs_ == kMaximumNestedStructs) {
    reason_ = "nests deeper than " + std::to_string(kMaximumNestedStructs) + " structs";
    return false;
  }
  ++structs_;
  return true;
}

void Mismatch::inElement(std::size_t index) {
  place_ = joined(inBrackets(std::to_string(index)), place_);
}

void Mismatch::underKey(const NSObject& key) {
  place_ = joined(key.is<NSString>() ? escaped(key.stringValue()) : inBrackets(shown(key)), place_);
}

std::string Mismatch::text(std::string_view place) const {
  const std::string whole = joined(place, place_);
  return whole.empty() ? reason_ : whole + ": " + reason_;
}

Slots slotsOf(const NSObject& container) noexcept {
  if (isArray(container.value().tag())) {
    const std::span<const NSObject> elements = elementsOf(container.value());
    return {elements.data(), elements.size(), 1};
  }
  const KeyTable table = tableOf(container.value());
  return {table.keys(), table.slots(), table.stride()};
}

std::string_view viewOfData(const NSObject& data) noexcept {
  return viewOf(bytesOf(data.value()));
}

double secondsOfDate(const NSObject& date) {
  return date.as<NSDate>().timeIntervalSince1970();
}

bool ticksIn(double seconds, std::intmax_t numerator, std::intmax_t denominator, std::int64_t& ticks) noexcept {
  if (!std::isfinite(seconds)) return false;
  const auto secondsEach = static_cast<long double>(numerator) / static_cast<long double>(denominator);
  const long double nearest = std::round(static_cast<long double>(seconds) / secondsEach);
  const long double off = std::fabs(nearest * secondsEach - static_cast<long double>(seconds));
  const double epsilon = std::numeric_limits<double>::epsilon();
  if (off > std::max<long double>(kSecondsOff, std::fabs(seconds) * epsilon)) return false;
  const long double end = std::ldexp(1.0L, 63);
  if (nearest < -end || nearest >= end) return false;
  ticks = static_cast<std::int64_t>(nearest);
  return true;
}

}  // namespace velto
