// The text of a path. Keys are written by whoever writes messages, so nothing of them goes into a log unseen: what
// could end a line or disguise one is escaped, and length is bounded twice, for a step and for the whole.
#include "message/ValuePath.h"

#include <algorithm>
#include <string>
#include <string_view>

#include "platform/foundation/NSString.h"
#include "platform/foundation/ObjectBody.h"
#include "platform/foundation/ShownText.h"

namespace velto {
namespace {

// More steps than this are shown by the first and the last of them.
constexpr std::size_t kMaximumSteps = 32;

bool isPlain(std::string_view key) {
  return !key.empty() && key.size() <= kMaximumShownBytes && std::ranges::all_of(key, [](char character) {
    return (character >= 'a' && character <= 'z') || (character >= 'A' && character <= 'Z') ||
           (character >= '0' && character <= '9') || character == '_' || character == '-';
  });
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
