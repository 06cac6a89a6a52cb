// The text of a path. Keys are written by whoever writes messages, so nothing of them goes into a log unseen: what
// could end a line or disguise one is escaped, and length is bounded twice, for a step and for the whole.
#include "message/ValuePath.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

#include "platform/foundation/NSString.h"
#include "platform/foundation/ObjectBody.h"

namespace velto {
namespace {

constexpr std::size_t kMaximumStepBytes = 64;
// More steps than this are shown by the first and the last of them.
constexpr std::size_t kMaximumSteps = 32;

bool isPlain(std::string_view key) {
  return !key.empty() && key.size() <= kMaximumStepBytes && std::ranges::all_of(key, [](char character) {
    return (character >= 'a' && character <= 'z') || (character >= 'A' && character <= 'Z') ||
           (character >= '0' && character <= '9') || character == '_' || character == '-';
  });
}

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

void appendEscaped(std::string_view text, std::string_view special, std::string& out) {
  const std::size_t limit = out.size() + kMaximumStepBytes;
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

void appendStep(const ValuePath::Step& step, bool isFirst, std::string& out) {
  if (step.key.isNil()) {
    out += '[';
    out += std::to_string(step.index);
    out += ']';
  } else if (!step.key.is<NSString>()) {
    out += "{";
    appendEscaped(step.key.description().view(), "\\}", out);
    out += "}";
  } else if (const NSString key = step.key.as<NSString>(); isPlain(key.view())) {
    if (!isFirst) out += ".";
    out += key.view();
  } else {
    out += "[\"";
    appendEscaped(key.view(), "\\\"", out);
    out += "\"]";
  }
}

class PathBody final : public ObjectBody {
 public:
  explicit PathBody(std::vector<ValuePath::Step> steps) : steps_(std::move(steps)) {}
  const ClassBody& classBody() const override { return *NSObject::classObject().classBody(); }

  void describe(std::string& out, WalkBound&) const override {
    const std::size_t shown = std::min(steps_.size(), kMaximumSteps);
    for (std::size_t count = 0; count < shown; ++count) {
      const bool isInEnd = count >= kMaximumSteps / 2;
      if (count == kMaximumSteps / 2 && shown < steps_.size()) out += "…";
      // The steps lie from the value outwards.
      appendStep(steps_[(isInEnd ? shown : steps_.size()) - 1 - count], count == 0, out);
    }
  }

 private:
  const std::vector<ValuePath::Step> steps_;
};

struct PathObject : NSObject {
  explicit PathObject(std::vector<ValuePath::Step> steps) : NSObject(new PathBody(std::move(steps))) {}
};

}  // namespace

NSObject ValuePath::object() const {
  return PathObject(steps_);
}

}  // namespace velto
