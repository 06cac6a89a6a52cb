#pragma once

#include <string_view>

#include "platform/foundation/NSError.h"
#include "platform/foundation/NSObject.h"

namespace velto::tools {

// The value that toJSON() writes as this text; docs/json.md has the form. What is read is immutable throughout. On
// failure nil, and `*error`, if that is given: what is wrong, and at which line and column ("line 3, column 17: …"; the
// column counts bytes). Everything is checked: a text that could be read in two ways is refused. Thread-safe.
NSObject valueFromJSON(std::string_view text, NSError* error = nullptr);

}  // namespace velto::tools
