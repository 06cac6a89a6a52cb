#pragma once

#include "platform/foundation/NSObject.h"
#include "platform/foundation/NSString.h"

// A URL as text. It is kept as given and not taken apart. See NSObject for nil and threads.
class VELTO_EXPORT NSURL : public NSObject {
 public:
  NSURL() noexcept = default;
  NSURL(std::nullptr_t) noexcept {}
  explicit operator bool() const noexcept { return !isNil(); }

  static velto::Class classObject();
  static constexpr bool isKind(velto::Tag tag) noexcept { return tag == velto::Tag::url; }
  // nil for an empty text and for one with spaces or control characters.
  [[nodiscard]] static NSURL URLWithString(const NSString& text);

  [[nodiscard]] NSString absoluteString() const;

 private:
  explicit NSURL(const velto::Value& adopted) noexcept : NSObject(adopted) {}
};
