// Cuts a stream by its headers alone, with nothing of the library: what a process has said must not be judged by the
// code that said it.

#include "tests/death/actor/FrameTrace.h"

#include <array>
#include <cstdint>
#include <utility>

namespace velto::testing {

namespace {

constexpr std::size_t kHeaderBytes = 8;
constexpr std::size_t kTypeOffset = 4;
constexpr std::uint8_t kCall = 2;
constexpr std::array<const char*, 9> kFrameNames = {"?",       "hello",        "call",   "reply",  "replyDropped",
                                                    "refusal", "replyRefusal", "credit", "goodbye"};
constexpr std::array<std::pair<std::string_view, const char*>, 7> kCallNames = {{
    {"sendListenerConnection:withName:", "register"},
    {"findListenerEndpointForName:handle:", "find"},
    {"ping", "ping"},
    {"setStrictMessageTypesRemote:", "strict"},
    {"connectionUUID:", "identifier"},
    {"connectionID:withMessage:handler:", "message"},
    {"connectionError:", "error"},
}};

std::uint8_t byteAt(std::string_view bytes, std::size_t position) {
  return static_cast<std::uint8_t>(bytes[position]);
}

std::size_t bodyBytes(std::string_view header) {
  std::size_t length = 0;
  for (std::size_t index = kTypeOffset; index-- > 0;) length = length << 8 | byteAt(header, index);
  return length;
}

// Bytes that a CBOR head takes.
std::size_t headBytes(std::uint8_t initial) {
  const unsigned additional = initial & 31u;
  return additional < 24 ? 1 : 1 + (std::size_t{1} << (additional - 24));
}

// A call's body begins with its number and its selector.
const char* nameOfCall(std::string_view body) {
  const std::size_t number = headBytes(byteAt(body, 0));
  const std::string_view rest = body.substr(number + headBytes(byteAt(body, number)));
  for (const auto& [selector, name] : kCallNames) {
    if (rest.starts_with(selector)) return name;
  }
  return "call";
}

}  // namespace

void FrameTrace::passed(std::string_view bytes) {
  pending_ += bytes;
  while (pending_.size() >= kHeaderBytes) {
    const std::size_t frame = kHeaderBytes + bodyBytes(pending_);
    if (pending_.size() < frame) return;
    const std::uint8_t type = byteAt(pending_, kTypeOffset);
    const std::string_view body = std::string_view(pending_).substr(kHeaderBytes, frame - kHeaderBytes);
    names_.emplace_back(type == kCall ? nameOfCall(body) : kFrameNames.at(type));
    pending_.erase(0, frame);
  }
}

}  // namespace velto::testing
