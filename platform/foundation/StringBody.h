#pragma once

#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

#include "platform/foundation/NSObject.h"
#include "platform/foundation/Region.h"

namespace velto {

// A text that never changes, too long for a handle; its bytes, and a NUL, follow. Whoever makes one hands in valid
// UTF-8.
class StringBody final : public Body {
 public:
  // The words of a handle that owns it.
  static Value make(std::string_view text, Region* region = nullptr) {
    if (text.size() >= UINT32_MAX) throw std::length_error("a text of 4 GiB or more");
    return Value(*new (allocateBody(sizeFor(text.size()), region)) StringBody(text, region));
  }

  std::string_view text() const noexcept { return {reinterpret_cast<const char*>(this + 1), length_}; }
  void dismantle() const noexcept { releaseBody(*this, sizeFor(length_)); }

 private:
  static std::size_t sizeFor(std::size_t length) noexcept { return sizeof(StringBody) + length + 1; }
  StringBody(std::string_view text, Region* region) noexcept
      : Body(Tag::string, region), length_(static_cast<std::uint32_t>(text.size())) {
    auto* const bytes = reinterpret_cast<char*>(this + 1);
    std::memcpy(bytes, text.data(), text.size());
    bytes[text.size()] = '\0';
  }

  const std::uint32_t length_;
};

// A text that can change.
class MutableStringBody final : public Body {
 public:
  explicit MutableStringBody(std::string text) noexcept : Body(Tag::mutableString, nullptr), text_(std::move(text)) {}

  const std::string& text() const noexcept { return text_; }
  std::string& text() noexcept { return text_; }
  void dismantle() const noexcept { delete this; }

 private:
  std::string text_;
};

// Text that is known to be valid UTF-8, as the words of a handle that owns it.
inline Value validTextValue(std::string_view text, Region* region = nullptr) {
  return text.size() <= Value::kMaximumText ? Value::ofShortText(text) : StringBody::make(text, region);
}

// Whether it is a string of any kind, and then its text: where a text lies in a handle, in that very handle.
inline bool isString(Tag tag) noexcept {
  return tag == Tag::text || tag == Tag::string || tag == Tag::mutableString;
}
inline std::string_view textOf(const Value& value) noexcept {
  switch (value.tag()) {
    case Tag::text:
      return {value.text(), value.textLength()};
    case Tag::string:
      return static_cast<const StringBody&>(value.body()).text();
    case Tag::mutableString:
      return static_cast<const MutableStringBody&>(value.body()).text();
    default:
      return {};
  }
}

}  // namespace velto
