#pragma once

#include <compare>
#include <cstddef>
#include <string>
#include <string_view>
#include <type_traits>

#include "platform/foundation/FormatArgument.h"
#include "platform/foundation/NSObject.h"

// Text: UTF-8, always valid. See NSObject for nil and threads.
class VELTO_EXPORT NSString : public NSObject {
 public:
  NSString() noexcept = default;
  NSString(std::nullptr_t) noexcept {}
  explicit operator bool() const noexcept { return !isNil(); }
  // Broken UTF-8 is replaced by U+FFFD, sequence by sequence; a null pointer makes nil.
  [[gnu::always_inline]] NSString(const char* text) : NSObject(text) {}
  NSString(const std::string& text) : NSObject(text) {}
  NSString(std::string_view text) : NSObject(text) {}

  static velto::Class classObject();
  static constexpr bool isKind(velto::Tag tag) noexcept {
    return tag == velto::Tag::text || tag == velto::Tag::string || tag == velto::Tag::mutableString;
  }
  // The text if it is valid UTF-8, else nil.
  [[nodiscard]] static NSString stringWithUTF8(std::string_view bytes);
  // printf's conversions for numbers and C strings, and "%@" for any object, which prints its description.
  template <class... Arguments>
  [[nodiscard]] static NSString stringWithFormat(const char* format, const Arguments&... arguments) {
    return NSString(velto::formatText(format, {velto::FormatArgument(arguments)...}));
  }

  // The text; valid while this handle lives unchanged: a short text lies in the handle itself. nil answers "".
  [[nodiscard]] std::string_view view() const noexcept VELTO_LIFETIME_BOUND {
    return value().isText() ? std::string_view(value().text(), value().textLength()) : bodyText();
  }
  [[nodiscard]] std::string string() const { return std::string(view()); }
  // The same, null-terminated. (A text may hold NUL characters: view() shows them all.)
  [[nodiscard]] const char* UTF8String() const noexcept VELTO_LIFETIME_BOUND { return isNil() ? "" : view().data(); }
  // Bytes of UTF-8.
  [[nodiscard]] std::size_t length() const noexcept { return view().size(); }
  // False when either is nil.
  [[nodiscard]] bool isEqualToString(const NSString& other) const;
  // By the bytes of UTF-8, which is the order of the characters' numbers; nil comes before every text.
  friend std::strong_ordering operator<=>(const NSString& left, const NSString& right) noexcept {
    if (left.isNil() || right.isNil()) return right.isNil() <=> left.isNil();
    return left.view() <=> right.view();
  }
  // An immutable snapshot. (An immutable string is its own.)
  [[nodiscard]] NSString copy() const;

 protected:
  explicit NSString(const velto::Value& adopted) noexcept : NSObject(adopted) {}

 private:
  std::string_view bodyText() const noexcept;
};

// A string that can grow. A handle of type NSString on the same body sees every change.
class VELTO_EXPORT NSMutableString : public NSString {
 public:
  NSMutableString() noexcept = default;
  NSMutableString(std::nullptr_t) noexcept {}

  static velto::Class classObject();
  static constexpr bool isKind(velto::Tag tag) noexcept { return tag == velto::Tag::mutableString; }
  [[nodiscard]] static NSMutableString string();
  [[nodiscard]] static NSMutableString stringWithString(const NSString& text);

  void appendString(const NSString& text);
  void setString(const NSString& text);

 private:
  explicit NSMutableString(const velto::Value& adopted) noexcept : NSString(adopted) {}
};
