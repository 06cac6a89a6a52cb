// JSON text into values. The parser tells what it comes upon, piece by piece, and a ValueBuilder makes values of that:
// no tree of the parser's own lies between them, whose nesting or doubled keys would have to be looked after. The
// parser does not say where it is, so that the characters are counted on the way to it.
#include "tools/ValueFromJSON.h"

#include <algorithm>
#include <cstddef>
#include <exception>
#include <iterator>
#include <string>

#include "platform/foundation/JSON.h"
#include "tools/ValueBuilder.h"
#include <nlohmann/json.hpp>

namespace velto::tools {
namespace {

using Parser = nlohmann::json;

// What the parser says of a text may quote it.
constexpr std::size_t kMaximumReasonBytes = 200;

// Walks a text and counts how much of it has been taken.
class CountingIterator {
 public:
  using iterator_category = std::forward_iterator_tag;
  using value_type = char;
  using difference_type = std::ptrdiff_t;
  using pointer = const char*;
  using reference = const char&;

  CountingIterator() = default;
  CountingIterator(const char* at, std::size_t* count) : at_(at), count_(count) {}
  reference operator*() const { return *at_; }
  CountingIterator& operator++() {
    ++at_;
    ++*count_;
    return *this;
  }
  CountingIterator operator++(int) {
    const CountingIterator before = *this;
    ++*this;
    return before;
  }
  friend bool operator==(const CountingIterator& left, const CountingIterator& right) { return left.at_ == right.at_; }

 private:
  const char* at_ = nullptr;
  std::size_t* count_ = nullptr;
};

// The parser's own words, without the place and the names that it puts before them.
std::string reasonIn(const std::string& message) {
  std::size_t start = message.find("] ");
  start = start == std::string::npos ? 0 : start + 2;
  if (message.compare(start, 11, "parse error") == 0) {
    const std::size_t colon = message.find(": ", start);
    if (colon != std::string::npos) start = colon + 2;
  }
  std::string reason = message.substr(start);
  if (reason.size() <= kMaximumReasonBytes) return reason;
  std::size_t length = kMaximumReasonBytes;
  while (length > 0 && (static_cast<unsigned char>(reason[length]) & 0xC0) == 0x80) --length;
  return reason.substr(0, length) + "…";
}

// Passes on what the parser comes upon, and keeps the place where that went wrong. The names are the parser's.
class Events {
 public:
  // `taken`: how much of the text the parser has taken so far.
  Events(ValueBuilder& builder, std::string_view text, const std::size_t& taken)
      : builder_(builder), text_(text), taken_(taken) {}

  // Bytes up to the end of what was wrong.
  std::size_t position() const noexcept { return position_; }

  bool null() { return goOn(builder_.null()); }
  bool boolean(bool value) { return goOn(builder_.boolean(value)); }
  bool number_integer(std::int64_t value) { return goOnAfterNumber(builder_.signedInteger(value)); }
  bool number_unsigned(std::uint64_t value) { return goOnAfterNumber(builder_.unsignedInteger(value)); }
  bool number_float(double value, const std::string& text) {
    // An integer that is too large for its kind is told as a double.
    const bool isInteger = text.find_first_of(".eE") == std::string::npos;
    return goOnAfterNumber(isInteger ? builder_.fail("an integer beyond 64 bits") : builder_.floatingPoint(value));
  }
  bool string(const std::string& text) { return goOn(builder_.text(text)); }
  bool binary(const Parser::binary_t&) { return goOn(builder_.fail("binary data")); }
  bool start_object(std::size_t) { return goOn(builder_.startObject()); }
  bool key(const std::string& name) { return goOn(builder_.key(name)); }
  bool end_object() { return goOn(builder_.endObject()); }
  bool start_array(std::size_t) { return goOn(builder_.startArray()); }
  bool end_array() { return goOn(builder_.endArray()); }
  bool parse_error(std::size_t position, const std::string&, const std::exception& exception) {
    position_ = position;
    return builder_.fail(reasonIn(exception.what()));
  }

 private:
  bool goOn(bool isRight) {
    if (!isRight) position_ = taken_;
    return isRight;
  }
  // A number ends where something else begins, which has been taken by then, unless the text ends there.
  bool goOnAfterNumber(bool isRight) {
    const bool endsText = taken_ == text_.size() && text_.back() >= '0' && text_.back() <= '9';
    if (!isRight) position_ = endsText ? taken_ : taken_ - 1;
    return isRight;
  }

  ValueBuilder& builder_;
  const std::string_view text_;
  const std::size_t& taken_;
  std::size_t position_ = 0;
};

std::string placeIn(std::string_view text, std::size_t position) {
  const std::string_view before = text.substr(0, position);
  const std::size_t lineStart = before.rfind('\n') == std::string_view::npos ? 0 : before.rfind('\n') + 1;
  return "line " + std::to_string(1 + std::ranges::count(before, '\n')) + ", column " +
         std::to_string(std::max<std::size_t>(1, before.size() - lineStart));
}

NSObject refuse(NSError* error, const std::string& reason) {
  if (error != nullptr) {
    *error =
        NSError::errorWithDomain(VeltoJSONErrorDomain, VeltoJSONCannotBeRead, {{NSLocalizedDescriptionKey, reason}});
  }
  return nil;
}

}  // namespace

NSObject valueFromJSON(std::string_view text, NSError* error) {
  std::size_t taken = 0;
  try {
    ValueBuilder builder;
    Events events(builder, text, taken);
    const CountingIterator first(text.data(), &taken), last(text.data() + text.size(), &taken);
    if (Parser::sax_parse(first, last, &events)) return builder.take();
    return refuse(error, placeIn(text, events.position()) + ": " + builder.reason());
  } catch (const std::exception& exception) {
    // Keys that cannot be compared within bounds.
    return refuse(error, placeIn(text, taken) + ": " + exception.what());
  }
}

}  // namespace velto::tools
