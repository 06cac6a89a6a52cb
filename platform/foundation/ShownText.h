#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "platform/foundation/Export.h"

namespace velto {

inline constexpr std::size_t kMaximumShownBytes = 64;

// Appends valid UTF-8 that somebody else may have written, so that it breaks no line: control characters and those that
// reorder text are escaped as \u{…}, and those in `special` by a backslash. After kMaximumShownBytes it is cut with
// "…".
VELTO_EXPORT void appendEscaped(std::string_view text, std::string_view special, std::string& out);

}  // namespace velto
