// How this layer words its reasons. What a peer sent may stand in them, and they may end up in a log.

#include "platform/xpc/wire/Text.h"

#include <cstddef>

#include "platform/foundation/UTF8.h"

namespace velto::wire {
namespace {

constexpr std::size_t kNameBytes = 128;

}  // namespace

std::string peerName(std::string_view name) {
  std::string shown(name.substr(0, lengthCutBetweenCharacters(name, kNameBytes)));
  for (char& character : shown) {
    if (static_cast<unsigned char>(character) < 0x20 || character == 0x7F) character = '?';
  }
  if (shown.size() < name.size()) shown += "…";
  return shown;
}

std::string overLimit(std::string_view limit, std::uint64_t value, std::uint64_t maximum, bool orMore) {
  return std::string(limit) + ": " + std::to_string(value) + (orMore ? " or more" : "") + ", maximum " +
         std::to_string(maximum);
}

}  // namespace velto::wire
