// printf's formats, for arguments that know their own types. A placeholder is taken apart and put together again before
// the C library sees it, so that it can only ever be given what it expects: no format, however wrong, reads what is not
// there.
#include "platform/foundation/FormatArgument.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>

#include "platform/foundation/Class.h"
#include "platform/foundation/NSString.h"
#include "platform/foundation/UTF8.h"
#include "platform/foundation/ValueText.h"

namespace velto {
namespace {

// Wider fields than this are a mistake in the format, and would cost memory for blanks.
constexpr int kMaximumWidth = 4096;

struct Placeholder {
  std::string flags;
  int width = 0;
  int precision = -1;  // not given
  char conversion = '\0';

  bool has(char flag) const { return flags.find(flag) != std::string::npos; }
  bool isOneOf(const char* conversions) const { return std::strchr(conversions, conversion) != nullptr; }
};

template <class... Cases>
struct Overloaded : Cases... {
  using Cases::operator()...;
};
template <class... Cases>
Overloaded(Cases...) -> Overloaded<Cases...>;

std::string textOf(const FormatArgument& argument) {
  return std::visit(Overloaded{[](const NSObject* object) { return object->description().string(); },
                               [](double value) { return shortestText(value); },
                               [](std::string_view text) { return std::string(text); },
                               [](auto integer) { return std::to_string(integer); }},
                    argument.value());
}

std::string padded(std::string text, const Placeholder& placeholder) {
  if (placeholder.precision >= 0) {
    text.resize(lengthCutBetweenCharacters(text, static_cast<std::size_t>(placeholder.precision)));
  }
  const auto width = static_cast<std::size_t>(placeholder.width);
  if (text.size() < width) text.insert(placeholder.has('-') ? text.size() : 0, width - text.size(), ' ');
  return text;
}

template <class Number>
std::string printed(const Placeholder& placeholder, const char* lengthAndConversion, Number value) {
  std::string format = "%";
  for (const char flag : {'-', '+', ' ', '#', '0'}) {
    if (placeholder.has(flag) && (flag != '#' || !placeholder.isOneOf("diu"))) format += flag;
  }
  format += "*.*";
  format += lengthAndConversion;
  std::array<char, 64> small{};
  const int length =
      std::snprintf(small.data(), small.size(), format.c_str(), placeholder.width, placeholder.precision, value);
  if (length < 0) return {};
  const auto size = static_cast<std::size_t>(length);
  if (size < small.size()) return {small.data(), size};
  std::string large(size + 1, '\0');
  std::snprintf(large.data(), large.size(), format.c_str(), placeholder.width, placeholder.precision, value);
  large.resize(size);
  return large;
}

template <std::integral Integer>
std::string printedInteger(const Placeholder& placeholder, Integer value) {
  if (placeholder.isOneOf("xX")) {
    return printed(placeholder, placeholder.conversion == 'x' ? "llx" : "llX", static_cast<unsigned long long>(value));
  }
  if constexpr (std::is_signed_v<Integer>) return printed(placeholder, "lld", static_cast<long long>(value));
  return printed(placeholder, "llu", static_cast<unsigned long long>(value));
}

std::string converted(const Placeholder& placeholder, const FormatArgument& argument) {
  if (placeholder.isOneOf("diuxX")) {
    if (const auto* value = std::get_if<std::int64_t>(&argument.value())) return printedInteger(placeholder, *value);
    if (const auto* value = std::get_if<std::uint64_t>(&argument.value())) return printedInteger(placeholder, *value);
  } else if (placeholder.isOneOf("fge")) {
    const char conversion[] = {placeholder.conversion, '\0'};
    if (const auto* value = std::get_if<double>(&argument.value())) return printed(placeholder, conversion, *value);
  }
  return padded(textOf(argument), placeholder);
}

bool isLetter(char character) {
  return (character >= 'a' && character <= 'z') || (character >= 'A' && character <= 'Z');
}

// Reads the format once, taking arguments as it goes.
class Formatter {
 public:
  Formatter(const char* format, std::initializer_list<FormatArgument> arguments)
      : at_(format), next_(arguments.begin()), end_(arguments.end()) {}

  std::string text() {
    while (*at_ != '\0') {
      const char* percent = std::strchr(at_, '%');
      if (percent == nullptr) return out_ + at_;
      out_.append(at_, percent);
      at_ = percent;
      appendPlaceholder();
    }
    return out_;
  }

 private:
  void appendPlaceholder() {
    const char* start = at_++;
    const Placeholder placeholder = read();
    if (placeholder.conversion == '%') {
      out_ += '%';
    } else if (placeholder.conversion != '@' && !isLetter(placeholder.conversion)) {
      out_.append(start, at_);  // no placeholder after all: it prints as it stands
    } else {
      out_ += next_ != end_ ? converted(placeholder, *next_++) : padded("(null)", placeholder);
    }
  }

  Placeholder read() {
    Placeholder placeholder;
    for (; *at_ != '\0' && std::strchr("-+ #0", *at_) != nullptr; ++at_) placeholder.flags += *at_;
    placeholder.width = readNumber();
    if (placeholder.width < 0) {
      placeholder.flags += '-';
      placeholder.width = -placeholder.width;
    }
    if (*at_ == '.') {
      ++at_;
      placeholder.precision = std::max(readNumber(), -1);
    }
    while (*at_ != '\0' && std::strchr("hlLqjzt", *at_) != nullptr) ++at_;
    if (*at_ != '\0') placeholder.conversion = *at_;
    const bool isWhole =
        placeholder.conversion == '%' || placeholder.conversion == '@' || isLetter(placeholder.conversion);
    if (isWhole) ++at_;
    return placeholder;
  }

  // Digits, or an asterisk for the next argument; 0 when there is neither.
  int readNumber() {
    if (*at_ == '*') {
      ++at_;
      return next_ != end_ ? numberOf(*next_++) : 0;
    }
    int number = 0;
    for (; *at_ >= '0' && *at_ <= '9'; ++at_) number = std::min(number * 10 + (*at_ - '0'), kMaximumWidth);
    return number;
  }

  static int numberOf(const FormatArgument& argument) {
    constexpr std::int64_t kLimit = kMaximumWidth;
    if (const auto* value = std::get_if<std::int64_t>(&argument.value())) {
      return static_cast<int>(std::clamp(*value, -kLimit, kLimit));
    }
    const auto* value = std::get_if<std::uint64_t>(&argument.value());
    return value != nullptr ? static_cast<int>(std::min<std::uint64_t>(*value, kMaximumWidth)) : 0;
  }

  const char* at_;
  const FormatArgument* next_;
  const FormatArgument* const end_;
  std::string out_;
};

}  // namespace

std::string formatText(const char* format, std::initializer_list<FormatArgument> arguments) {
  return format != nullptr ? Formatter(format, arguments).text() : std::string();
}

}  // namespace velto
