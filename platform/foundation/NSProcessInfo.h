#pragma once

#include <cstdint>

#include "platform/foundation/Export.h"
#include "platform/foundation/NSString.h"

// What a process can tell about itself. Thread-safe.
class VELTO_EXPORT NSProcessInfo {
 public:
  [[nodiscard]] static const NSProcessInfo& processInfo();

  // A new string at every call, unique within this process and between processes.
  [[nodiscard]] NSString globallyUniqueString() const;
  [[nodiscard]] std::int32_t processIdentifier() const noexcept;
};
