#pragma once

#include <string>
#include <string_view>
#include <utility>

#include "platform/foundation/Class.h"
#include "platform/foundation/NSString.h"
#include "platform/foundation/SipHash.h"
#include "platform/foundation/Walk.h"

namespace velto {

// The text of an NSString or NSMutableString. Whoever makes or changes one hands in valid UTF-8.
class StringBody final : public ObjectBody {
 public:
  enum class Mutability { immutable, growing };

  StringBody(std::string text, Mutability mutability) : text_(std::move(text)), mutability_(mutability) {}

  const std::string& text() const noexcept { return text_; }
  std::string& text() noexcept { return text_; }
  bool isMutable() const noexcept { return mutability_ == Mutability::growing; }

  const ClassBody& classBody() const override {
    return isMutable() ? classBodyOf<NSMutableString>() : classBodyOf<NSString>();
  }
  bool isEqual(const ObjectBody& other, WalkBound&) const override {
    const auto* string = bodyAs<StringBody>(&other);
    return string != nullptr && string->text_ == text_;
  }
  std::size_t hash() const override { return hashOfText(text_); }
  void describe(std::string& out, WalkBound&) const override { out += text_; }

 private:
  std::string text_;
  const Mutability mutability_;
};

}  // namespace velto
