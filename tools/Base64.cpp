// Base 64 is read strictly: of several spellings of the same bytes one alone is right, so that a text that was read is
// written again as it was.
#include "tools/Base64.h"

#include <algorithm>
#include <cstddef>

namespace velto::tools {
namespace {

constexpr std::uint32_t kNoDigit = 64;

std::uint32_t digitValue(char digit) {
  const auto code = static_cast<std::uint32_t>(static_cast<unsigned char>(digit));
  if (digit >= 'A' && digit <= 'Z') return code - 'A';
  if (digit >= 'a' && digit <= 'z') return code - 'a' + 26;
  if (digit >= '0' && digit <= '9') return code - '0' + 52;
  if (digit == '+') return 62;
  return digit == '/' ? 63 : kNoDigit;
}

}  // namespace

std::optional<std::vector<std::uint8_t>> bytesFromBase64(std::string_view text) {
  if (text.size() % 4 != 0) return std::nullopt;
  const std::size_t padding = text.ends_with("==") ? 2 : text.ends_with('=') ? 1 : 0;
  const std::string_view digits = text.substr(0, text.size() - padding);
  std::vector<std::uint8_t> bytes;
  bytes.reserve(text.size() / 4 * 3);
  std::uint32_t bits = 0;
  unsigned count = 0;
  for (const char digit : digits) {
    const std::uint32_t value = digitValue(digit);
    if (value == kNoDigit) return std::nullopt;
    bits = bits << 6 | value;
    count += 6;
    if (count < 8) continue;
    count -= 8;
    bytes.push_back(static_cast<std::uint8_t>(bits >> count));
    bits &= (1u << count) - 1;
  }
  if (bits != 0) return std::nullopt;
  return bytes;
}

}  // namespace velto::tools
