#pragma once

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
  // Broken UTF-8 is replaced by U+FFFD, sequence by sequence; a null pointer makes nil.
  NSString(const char* text);
  NSString(const std::string& text);
  NSString(std::string_view text);

  static Class classObject();
  // The text if it is valid UTF-8, else nil.
  static NSString stringWithUTF8(std::string_view bytes);
  // printf's conversions for numbers and C strings, and "%@" for any object, which prints its description.
  template <class... Arguments>
  static NSString stringWithFormat(const char* format, const Arguments&... arguments) {
    return NSString(velto::formatText(format, {velto::FormatArgument(arguments)...}));
  }

  // The text; valid while the string lives unchanged. nil answers "".
  std::string_view view() const noexcept;
  std::string string() const { return std::string(view()); }
  // Null-terminated; nullptr for nil. (A text may hold NUL characters: view() shows them all.)
  const char* UTF8String() const noexcept;
  // Bytes of UTF-8.
  std::size_t length() const noexcept { return view().size(); }
  // False when either is nil.
  bool isEqualToString(const NSString& other) const;
  // An immutable snapshot. (An immutable string is its own.)
  NSString copy() const;

 protected:
  explicit NSString(velto::ObjectBody* body) noexcept : NSObject(body) {}
};

// A string that can grow. A handle of type NSString on the same body sees every change.
class VELTO_EXPORT NSMutableString : public NSString {
 public:
  NSMutableString() noexcept = default;
  NSMutableString(std::nullptr_t) noexcept {}

  static Class classObject();
  static NSMutableString string();
  static NSMutableString stringWithString(const NSString& text);

  void appendString(const NSString& text);
  void setString(const NSString& text);

 private:
  explicit NSMutableString(velto::ObjectBody* body) noexcept : NSString(body) {}
};
