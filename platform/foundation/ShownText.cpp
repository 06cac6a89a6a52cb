// Text that others have written, as it may be shown in a log or an error: what could end a line or disguise one is
// escaped, and length is bounded.
#include "platform/foundation/ShownText.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>
#include <utility>

namespace velto {
namespace {

// Takes the first character off a text that is not empty. (Strings are valid UTF-8.)
std::uint32_t takeCharacter(std::string_view& text) {
  const auto first = static_cast<unsigned char>(text.front());
  const std::size_t length = first < 0x80 ? 1 : first < 0xE0 ? 2 : first < 0xF0 ? 3 : 4;
  std::uint32_t character = length == 1 ? first : first & (0x7Fu >> length);
  for (const char byte : text.substr(1, length - 1)) {
    character = character << 6 | (static_cast<unsigned char>(byte) & 0x3Fu);
  }
  text.remove_prefix(std::min(length, text.size()));
  return character;
}

// Ends a line, moves the cursor or turns the direction of writing.
bool isTreacherous(std::uint32_t character) {
  constexpr std::array<std::pair<std::uint32_t, std::uint32_t>, 8> kRanges{{{0x00, 0x1F},
                                                                            {0x7F, 0x9F},
                                                                            {0x61C, 0x61C},
                                                                            {0x200B, 0x200F},
                                                                            {0x2028, 0x202E},
                                                                            {0x2066, 0x2069},
                                                                            {0xFEFF, 0xFEFF},
                                                                            {0xE0000, 0xE007F}}};
  return std::ranges::any_of(
      kRanges, [character](const auto& range) { return character >= range.first && character <= range.second; });
}

void appendCode(std::uint32_t character, std::string& out) {
  std::array<char, 8> digits{};
  const std::to_chars_result end = std::to_chars(digits.data(), digits.data() + digits.size(), character, 16);
  out.append("\\u{").append(digits.data(), end.ptr).append("}");
}

}  // namespace

void appendEscaped(std::string_view text, std::string_view special, std::string& out) {
  const std::size_t limit = out.size() + kMaximumShownBytes;
  while (!text.empty()) {
    if (out.size() >= limit) {
      out += "…";
      return;
    }
    const std::string_view before = text;
    const std::uint32_t character = takeCharacter(text);
    if (isTreacherous(character)) {
      appendCode(character, out);
      continue;
    }
    if (special.find(before.front()) != std::string_view::npos) out += '\\';
    out += before.substr(0, before.size() - text.size());
  }
}

}  // namespace velto
