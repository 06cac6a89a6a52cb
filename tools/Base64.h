#pragma once

#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

namespace velto::tools {

// The bytes of a text in the base 64 of RFC 4648, section 4. None unless it is exactly what an encoder writes: padded,
// without blanks, unused bits zero.
std::optional<std::vector<std::uint8_t>> bytesFromBase64(std::string_view text);

}  // namespace velto::tools
