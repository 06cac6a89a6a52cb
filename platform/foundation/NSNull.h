#pragma once

#include "platform/foundation/NSObject.h"

// The null object: stands for "nothing" inside a container, which cannot hold nil. There is one; its description is
// "<null>". See NSObject for threads.
class VELTO_EXPORT NSNull : public NSObject {
 public:
  NSNull() noexcept = default;
  NSNull(std::nullptr_t) noexcept {}

  static Class classObject();
  static NSNull null();

 private:
  explicit NSNull(velto::ObjectBody* body) noexcept : NSObject(body) {}
};
