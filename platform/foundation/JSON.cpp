// JSON text of values. Every kind has one form, told from all others by the text alone, so that reading it back needs
// no hints: an integer has no fraction and a double has one, and what looks like neither is marked. Integers that a
// double cannot hold are texts in their markers, as RFC 7493 advises: many readers of JSON know doubles only.
#include "platform/foundation/JSON.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>
#include <span>
#include <string_view>
#include <utility>

#include "platform/foundation/Foundation.h"
#include "platform/foundation/ValueText.h"

namespace velto {
namespace {

// The greatest integer up to which a double holds each.
constexpr std::int64_t kMaximumExactInteger = (std::int64_t{1} << 53) - 1;

std::string hexadecimal(std::uint64_t bits) {
  std::string text;
  for (int shift = 60; shift >= 0; shift -= 4) text += "0123456789abcdef"[bits >> shift & 0xF];
  return text;
}

bool needsEscape(char character) {
  return static_cast<unsigned char>(character) < 0x20 || character == '"' || character == '\\' || character == 0x7F;
}

void appendEscape(char character, std::string& out) {
  if (character == '"' || character == '\\') {
    out += '\\';
    out += character;
  } else if (character == '\n') {
    out += "\\n";
  } else {
    out += "\\u" + hexadecimal(static_cast<unsigned char>(character)).substr(12);
  }
}

// RFC 4648, with padding.
void appendBase64(std::span<const std::uint8_t> bytes, std::string& out) {
  static constexpr char kDigits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  out.reserve(out.size() + (bytes.size() + 2) / 3 * 4);
  for (std::size_t at = 0; at < bytes.size(); at += 3) {
    const std::size_t taken = std::min<std::size_t>(3, bytes.size() - at);
    std::uint32_t group = 0;
    for (std::size_t index = 0; index < 3; ++index) group = group << 8 | (index < taken ? bytes[at + index] : 0u);
    for (std::size_t index = 0; index < 4; ++index) {
      out += index <= taken ? kDigits[group >> (18 - 6 * index) & 0x3F] : '=';
    }
  }
}

class JSONWriter {
 public:
  explicit JSONWriter(JSONLayout layout) : isPretty_(layout == JSONLayout::pretty) {}

  // Whether it could be written; if not, error() says why.
  bool write(const NSObject& object);
  std::string take() { return std::move(out_); }
  const NSError& error() const noexcept { return error_; }

 private:
  bool refuse(VeltoJSONErrorCode code, const std::string& reason);
  bool hasRoom();

  void writeSigned(std::int64_t number);
  void writeDouble(double number);
  void writeString(std::string_view text, bool isKey = false);
  void writeMarked(const char* marker, std::string_view text);
  void startMarked(const char* marker);
  void writeData(const NSData& data);
  bool writeContainer(const NSObject& object);
  template <class Container>
  bool writeElements(const Container& elements);
  bool writeDictionary(const NSDictionary& dictionary);
  bool writeTextEntries(const NSDictionary& dictionary);
  bool writePairs(const NSDictionary& dictionary);
  bool writeError(const NSError& error);

  // A list of elements or entries, each begun with next().
  void open(char bracket);
  void next();
  void close(char bracket);
  void startEntry(std::string_view key, bool isKeyOfDictionary);
  void startLine();
  const char* colon() const noexcept { return isPretty_ ? ": " : ":"; }

  const bool isPretty_;
  std::string out_;
  NSError error_;
  std::size_t depth_ = 0;
  std::size_t indentation_ = 0;
  bool isFirst_ = false;
};

bool JSONWriter::refuse(VeltoJSONErrorCode code, const std::string& reason) {
  error_ = NSError::errorWithDomain(VeltoJSONErrorDomain, code, {{NSLocalizedDescriptionKey, reason}});
  return false;
}

bool JSONWriter::hasRoom() {
  return out_.size() <= kMaximumJSONBytes ||
         refuse(VeltoJSONExceedsLimit,
                "The value needs more than " + std::to_string(kMaximumJSONBytes) + " bytes of JSON");
}

bool JSONWriter::write(const NSObject& object) {
  if (!hasRoom()) return false;
  switch (object.value().tag()) {
    case Tag::nothing:
      return refuse(VeltoJSONCannotBeWritten, "nil cannot be written as JSON");
    case Tag::null:
      out_ += "null";
      return true;
    case Tag::boolean:
      out_ += object.boolValue() ? "true" : "false";
      return true;
    case Tag::signedInteger:
      writeSigned(object.integerValue());
      return true;
    case Tag::unsignedInteger:
      writeMarked("$unsigned", std::to_string(object.unsignedIntegerValue()));
      return true;
    case Tag::floatingPoint:
      writeDouble(object.doubleValue());
      return true;
    case Tag::text:
    case Tag::string:
    case Tag::mutableString:
      writeString(object.as<NSString>().view());
      return true;
    case Tag::data:
    case Tag::mutableData:
      writeData(object.as<NSData>());
      return true;
    case Tag::date:
      startMarked("$date");
      writeDouble(object.as<NSDate>().timeIntervalSince1970());
      out_ += '}';
      return true;
    case Tag::uuid:
      writeMarked("$uuid", object.as<NSUUID>().UUIDString().view());
      return true;
    case Tag::url:
      writeMarked("$url", object.as<NSURL>().absoluteString().view());
      return true;
    case Tag::array:
    case Tag::mutableArray:
    case Tag::dictionary:
    case Tag::mutableDictionary:
    case Tag::set:
    case Tag::mutableSet:
    case Tag::error:
      return writeContainer(object);
    case Tag::object:
      break;
  }
  return refuse(VeltoJSONCannotBeWritten,
                "An object of class " + NSStringFromClass(object.getClass()).string() + " cannot be written as JSON");
}

void JSONWriter::writeSigned(std::int64_t number) {
  if (number >= -kMaximumExactInteger && number <= kMaximumExactInteger) {
    out_ += std::to_string(number);
  } else {
    writeMarked("$signed", std::to_string(number));
  }
}

void JSONWriter::writeDouble(double number) {
  const auto bits = std::bit_cast<std::uint64_t>(number);
  if (std::isfinite(number)) {
    const std::string text = shortestText(number);
    out_ += text;
    if (text.find_first_of(".e") == std::string::npos) out_ += ".0";
  } else if (bits == std::bit_cast<std::uint64_t>(std::numeric_limits<double>::quiet_NaN()) || std::isinf(number)) {
    writeMarked("$double", shortestText(number));
  } else {
    writeMarked("$double", "nan:" + hexadecimal(bits));
  }
}

// A key of a dictionary that begins with "$" gets one more, so that it is no marker.
void JSONWriter::writeString(std::string_view text, bool isKey) {
  out_ += isKey && text.starts_with('$') ? "\"$" : "\"";
  const char* written = text.data();
  const char* const end = written + text.size();
  for (const char* at = written; at != end; ++at) {
    if (!needsEscape(*at)) continue;
    out_.append(written, at);
    appendEscape(*at, out_);
    written = at + 1;
  }
  out_.append(written, end);
  out_ += '"';
}

void JSONWriter::startMarked(const char* marker) {
  out_ += "{\"";
  out_ += marker;
  out_ += '"';
  out_ += colon();
}

void JSONWriter::writeMarked(const char* marker, std::string_view text) {
  startMarked(marker);
  writeString(text);
  out_ += '}';
}

void JSONWriter::writeData(const NSData& data) {
  startMarked("$data");
  out_ += '"';
  appendBase64(data.span(), out_);
  out_ += "\"}";
}

bool JSONWriter::writeContainer(const NSObject& object) {
  if (depth_ == kMaximumJSONDepth) {
    return refuse(VeltoJSONExceedsLimit,
                  "Containers nest deeper than " + std::to_string(kMaximumJSONDepth) + " levels, the most in JSON");
  }
  ++depth_;
  bool written = false;
  if (object.is<NSArray>()) {
    written = writeElements(object.as<NSArray>());
  } else if (object.is<NSSet>()) {
    startMarked("$set");
    written = writeElements(object.as<NSSet>());
    out_ += '}';
  } else if (object.is<NSDictionary>()) {
    written = writeDictionary(object.as<NSDictionary>());
  } else {
    written = writeError(object.as<NSError>());
  }
  --depth_;
  return written;
}

template <class Container>
bool JSONWriter::writeElements(const Container& elements) {
  open('[');
  for (const NSObject& element : elements) {
    next();
    if (!write(element)) return false;
  }
  close(']');
  return true;
}

bool JSONWriter::writeDictionary(const NSDictionary& dictionary) {
  for (const NSObject& key : dictionary) {
    if (!key.is<NSString>()) return writePairs(dictionary);
  }
  return writeTextEntries(dictionary);
}

bool JSONWriter::writeTextEntries(const NSDictionary& dictionary) {
  open('{');
  for (const NSObject& key : dictionary) {
    startEntry(key.as<NSString>().view(), true);
    if (!write(dictionary.objectForKey(key))) return false;
  }
  close('}');
  return true;
}

bool JSONWriter::writePairs(const NSDictionary& dictionary) {
  startMarked("$dictionary");
  open('[');
  for (const NSObject& key : dictionary) {
    next();
    open('[');
    next();
    if (!write(key)) return false;
    next();
    if (!write(dictionary.objectForKey(key))) return false;
    close(']');
  }
  close(']');
  out_ += '}';
  return true;
}

bool JSONWriter::writeError(const NSError& error) {
  startMarked("$error");
  open('{');
  startEntry("domain", false);
  writeString(error.domain().view());
  startEntry("code", false);
  writeSigned(error.code());
  startEntry("userInfo", false);
  if (!writeDictionary(error.userInfo())) return false;
  close('}');
  out_ += '}';
  return true;
}

void JSONWriter::open(char bracket) {
  out_ += bracket;
  ++indentation_;
  isFirst_ = true;
}

void JSONWriter::next() {
  if (!isFirst_) out_ += ',';
  isFirst_ = false;
  startLine();
}

void JSONWriter::close(char bracket) {
  --indentation_;
  if (!isFirst_) startLine();
  isFirst_ = false;
  out_ += bracket;
}

void JSONWriter::startEntry(std::string_view key, bool isKeyOfDictionary) {
  next();
  writeString(key, isKeyOfDictionary);
  out_ += colon();
}

void JSONWriter::startLine() {
  if (isPretty_) out_.append("\n").append(2 * indentation_, ' ');
}

}  // namespace

std::string toJSON(const NSObject& value, JSONLayout layout, NSError* error) {
  JSONWriter writer(layout);
  if (writer.write(value)) return writer.take();
  if (error != nullptr) *error = writer.error();
  return {};
}

}  // namespace velto
