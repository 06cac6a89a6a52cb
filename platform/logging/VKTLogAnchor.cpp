// Anchors: where a log line was made. An anchor travels as a dictionary of its three parts, and what comes in is made
// an anchor only if it holds exactly these, each of its kind and in its range.
#include <cstdint>
#include <limits>

#include "platform/foundation/BuiltInClass.h"
#include "platform/foundation/Foundation.h"
#include "platform/logging/VeltoLogging.h"

namespace velto {
namespace {

class AnchorBody final : public ObjectBody {
 public:
  AnchorBody(const NSString& file, std::uint32_t line, const NSString& function)
      : file_(textOf(file)), line_(line), function_(textOf(function)) {}

  const NSString& file() const noexcept { return file_; }
  std::uint32_t line() const noexcept { return line_; }
  const NSString& function() const noexcept { return function_; }

  const ClassBody& classBody() const override { return classBodyOf<VKTLogAnchor>(); }
  bool isEqual(const ObjectBody& other, WalkBound&) const override {
    const auto* anchor = dynamic_cast<const AnchorBody*>(&other);
    return anchor != nullptr && anchor->line_ == line_ && anchor->file_.isEqualToString(file_) &&
           anchor->function_.isEqualToString(function_);
  }
  std::size_t hash() const override { return file_.hash() ^ line_; }
  void describe(std::string& out, WalkBound&) const override {
    out += file_.string() + ":" + std::to_string(line_) + " " + function_.string();
  }

 private:
  static NSString textOf(const NSString& text) { return text.isNil() ? NSString("") : text.copy(); }

  const NSString file_;
  const std::uint32_t line_;
  const NSString function_;
};

const AnchorBody& bodyOf(const VKTLogAnchor& anchor) {
  return static_cast<const AnchorBody&>(*anchor.body());
}

NSObject encode(const NSObject& object) {
  const auto anchor = object.as<VKTLogAnchor>();
  if (anchor.isNil()) return nil;
  return NSDictionary{{"file", anchor.file()}, {"line", anchor.line()}, {"function", anchor.function()}};
}

bool isLine(const NSNumber& number) {
  const bool isInteger =
      number.kind() == NSNumber::Kind::signedInteger || number.kind() == NSNumber::Kind::unsignedInteger;
  return !number.isNil() && isInteger && number.integerValue() >= 0 &&
         number.unsignedIntegerValue() <= std::numeric_limits<std::uint32_t>::max();
}

NSObject decode(const NSObject& value) {
  const auto parts = value.as<NSDictionary>();
  const auto file = parts["file"].as<NSString>();
  const auto line = parts["line"].as<NSNumber>();
  const auto function = parts["function"].as<NSString>();
  if (parts.count() != 3 || file.isNil() || function.isNil() || !isLine(line)) return nil;
  return VKTLogAnchor::anchorWithFile(file, static_cast<std::uint32_t>(line.unsignedIntegerValue()), function);
}

// Defines the class and makes it able to travel, in one: whoever can name the class can decode it.
const Class& defineTravelling() {
  const Class& made = *new Class(defineBuiltIn("VKTLogAnchor", NSObject::classObject()));
  registerClassCoding(made, {encode, decode});
  return made;
}

}  // namespace
}  // namespace velto

Class VKTLogAnchor::classObject() {
  static const Class& made = velto::defineTravelling();
  return made;
}

VKTLogAnchor VKTLogAnchor::anchorWithLocation(const velto::SourceLocation& location) {
  return anchorWithFile(location.file, location.line, location.function);
}

VKTLogAnchor VKTLogAnchor::anchorWithFile(const NSString& file, std::uint32_t line, const NSString& function) {
  return VKTLogAnchor(new velto::AnchorBody(file, line, function));
}

NSString VKTLogAnchor::file() const {
  return isNil() ? NSString("") : velto::bodyOf(*this).file();
}
std::uint32_t VKTLogAnchor::line() const noexcept {
  return isNil() ? 0 : velto::bodyOf(*this).line();
}
NSString VKTLogAnchor::function() const {
  return isNil() ? NSString("") : velto::bodyOf(*this).function();
}
