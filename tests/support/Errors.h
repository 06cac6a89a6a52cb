#pragma once

#include <cstdint>
#include <string>

#include "platform/foundation/NSError.h"

namespace velto::testing {

inline const std::string kErrorDomain = "org.velto.VeltoIPC";

// The test fails unless the error is one of the library's own: its domain, this code, and this text as the only entry
// of its user info.
void expectError(const NSError& error, std::int64_t code, const std::string& text);
// Of the platform's domain, with this code.
void expectPlatformError(const NSError& error, std::int64_t code);

}  // namespace velto::testing
