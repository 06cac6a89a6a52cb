// The markers and their texts. A text is read only in the spelling in which it is written: a number is printed again
// and compared.
#include "tools/JSONMarkers.h"

#include <algorithm>
#include <array>
#include <bit>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <limits>
#include <utility>
#include <vector>

#include "platform/foundation/Foundation.h"
#include "tools/Base64.h"

namespace velto::tools {
namespace {

struct Description {
  JSONMarker marker;
  const char* name;
  const char* expected;
};

constexpr std::array<Description, 10> kDescriptions{{
    {JSONMarker::isSigned, "$signed", "a signed integer of 64 bits, as text"},
    {JSONMarker::isUnsigned, "$unsigned", "an unsigned integer of 64 bits, as text"},
    {JSONMarker::isDouble, "$double", "\"nan\", \"nan:\" and 16 hexadecimal digits, \"inf\" or \"-inf\""},
    {JSONMarker::data, "$data", "bytes in base 64, padded"},
    {JSONMarker::date, "$date", "a number of seconds"},
    {JSONMarker::uuid, "$uuid", "a UUID"},
    {JSONMarker::url, "$url", "a URL, without blanks"},
    {JSONMarker::set, "$set", "a list of elements"},
    {JSONMarker::dictionary, "$dictionary", "a list of pairs"},
    {JSONMarker::error, "$error", "an object of domain, code and userInfo"},
}};

const Description& descriptionOf(JSONMarker marker) {
  return *std::ranges::find(kDescriptions, marker, &Description::marker);
}

template <class Integer>
NSObject integerFrom(const std::string& text) {
  Integer number = 0;
  const char* const end = text.data() + text.size();
  const auto [stop, fault] = std::from_chars(text.data(), end, number);
  if (fault != std::errc() || stop != end || std::to_string(number) != text) return nil;
  return number;
}

NSObject notANumberFrom(const std::string& digits) {
  std::uint64_t bits = 0;
  const char* const end = digits.data() + digits.size();
  const bool isLowerCase = digits.find_first_not_of("0123456789abcdef") == std::string::npos;
  if (digits.size() != 16 || !isLowerCase || std::from_chars(digits.data(), end, bits, 16).ptr != end) return nil;
  const auto number = std::bit_cast<double>(bits);
  return std::isnan(number) ? NSObject(number) : nil;
}

NSObject doubleFrom(const std::string& text) {
  using Limits = std::numeric_limits<double>;
  if (text == "nan") return Limits::quiet_NaN();
  if (text == "inf") return Limits::infinity();
  if (text == "-inf") return -Limits::infinity();
  return text.starts_with("nan:") ? notANumberFrom(text.substr(4)) : nil;
}

NSObject dataFrom(const std::string& text) {
  std::optional<std::vector<std::uint8_t>> bytes = bytesFromBase64(text);
  return bytes ? NSObject(NSData::dataWithVector(std::move(*bytes))) : nil;
}

}  // namespace

std::optional<JSONMarker> markerNamed(std::string_view key) {
  const auto* const found =
      std::ranges::find_if(kDescriptions, [key](const Description& each) { return key == each.name; });
  return found == kDescriptions.end() ? std::nullopt : std::optional(found->marker);
}

std::string nameOf(JSONMarker marker) {
  return descriptionOf(marker).name;
}

std::string expectedUnder(JSONMarker marker) {
  return descriptionOf(marker).expected;
}

NSObject valueOfMarkedText(JSONMarker marker, const std::string& text) {
  switch (marker) {
    case JSONMarker::isSigned:
      return integerFrom<std::int64_t>(text);
    case JSONMarker::isUnsigned:
      return integerFrom<std::uint64_t>(text);
    case JSONMarker::isDouble:
      return doubleFrom(text);
    case JSONMarker::data:
      return dataFrom(text);
    case JSONMarker::uuid:
      return NSUUID::UUIDWithString(text);
    case JSONMarker::url:
      return NSURL::URLWithString(text);
    case JSONMarker::date:
    case JSONMarker::set:
    case JSONMarker::dictionary:
    case JSONMarker::error:
      break;
  }
  return nil;
}

}  // namespace velto::tools
