// Checks and repairs UTF-8. One function recognises a sequence, by the table of well-formed byte sequences of the
// Unicode standard: only the second byte's range depends on the first one.
#include "platform/foundation/UTF8.h"

#include <cstdint>
#include <cstring>

namespace velto {
namespace {

struct Sequence {
  std::size_t length;
  bool valid;
};

// What a first byte demands: how many bytes follow, and the range of the first of them.
struct Lead {
  std::size_t following;
  unsigned char low = 0x80;
  unsigned char high = 0xbf;
};

Lead leadOf(unsigned char byte) noexcept {
  if (byte >= 0xc2 && byte <= 0xdf) return {1};
  if (byte == 0xe0) return {2, 0xa0, 0xbf};
  if (byte == 0xed) return {2, 0x80, 0x9f};
  if (byte >= 0xe1 && byte <= 0xef) return {2};
  if (byte == 0xf0) return {3, 0x90, 0xbf};
  if (byte >= 0xf1 && byte <= 0xf3) return {3};
  if (byte == 0xf4) return {3, 0x80, 0x8f};
  return {0};
}

Sequence sequenceAt(std::string_view text, std::size_t position) noexcept {
  const auto first = static_cast<unsigned char>(text[position]);
  if (first < 0x80) return {1, true};
  Lead lead = leadOf(first);
  if (lead.following == 0) return {1, false};
  for (std::size_t index = 1; index <= lead.following; ++index) {
    if (position + index == text.size()) return {index, false};
    const auto byte = static_cast<unsigned char>(text[position + index]);
    if (byte < lead.low || byte > lead.high) return {index, false};
    lead.low = 0x80;
    lead.high = 0xbf;
  }
  return {lead.following + 1, true};
}

// Whether all bytes are ASCII: by words, of which the last may overlap the one before it.
bool isASCII(std::string_view text) noexcept {
  std::uint64_t word = 0, all = 0;
  if (text.size() < sizeof word) return false;
  for (std::size_t position = 0; position + sizeof word < text.size(); position += sizeof word) {
    std::memcpy(&word, text.data() + position, sizeof word);
    all |= word;
  }
  std::memcpy(&word, text.data() + text.size() - sizeof word, sizeof word);
  return ((all | word) & 0x8080808080808080) == 0;
}

// The length of the valid text that the bytes begin with.
std::size_t validLength(std::string_view text) noexcept {
  constexpr std::size_t kShort = 64;
  if (text.size() <= kShort && isASCII(text)) return text.size();
  std::size_t position = 0;
  while (position < text.size()) {
    std::uint64_t word = 0;
    if (text.size() - position >= sizeof word) {
      std::memcpy(&word, text.data() + position, sizeof word);
      if ((word & 0x8080808080808080) == 0) {
        position += sizeof word;
        continue;
      }
    }
    const Sequence sequence = sequenceAt(text, position);
    if (!sequence.valid) return position;
    position += sequence.length;
  }
  return position;
}

}  // namespace

bool isValidUTF8(std::string_view bytes) noexcept {
  return validLength(bytes) == bytes.size();
}

std::string repairedUTF8(std::string_view bytes) {
  std::string repaired;
  while (!bytes.empty()) {
    const std::size_t valid = validLength(bytes);
    repaired += bytes.substr(0, valid);
    bytes.remove_prefix(valid);
    if (bytes.empty()) break;
    repaired += "\uFFFD";
    bytes.remove_prefix(sequenceAt(bytes, 0).length);
  }
  return repaired;
}

std::size_t lengthCutBetweenCharacters(std::string_view text, std::size_t limit) noexcept {
  if (limit >= text.size()) return text.size();
  while (limit > 0 && (static_cast<unsigned char>(text[limit]) & 0xc0) == 0x80) --limit;
  return limit;
}

}  // namespace velto
