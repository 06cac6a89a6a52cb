#pragma once

#include "platform/foundation/NSObject.h"

// The null object: stands for "nothing" inside a container, which cannot hold nil. There is one; its description is
// "<null>". See NSObject for threads.
class VELTO_EXPORT NSNull : public NSObject {
 public:
  NSNull() noexcept = default;
  NSNull(std::nullptr_t) noexcept {}
  explicit operator bool() const noexcept { return !isNil(); }

  static velto::Class classObject();
  static constexpr bool isKind(velto::Tag tag) noexcept { return tag == velto::Tag::null; }
  [[nodiscard]] static NSNull null();

 private:
  explicit NSNull(const velto::Value& adopted) noexcept : NSObject(adopted) {}
};
