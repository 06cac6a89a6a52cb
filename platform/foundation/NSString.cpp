// Strings. Text is checked once, where it enters; behind that door every string is valid UTF-8.
#include "platform/foundation/NSString.h"

#include "platform/foundation/BuiltInClass.h"
#include "platform/foundation/Ownership.h"
#include "platform/foundation/StringBody.h"
#include "platform/foundation/UTF8.h"

using velto::MutableStringBody;
using velto::Tag;
using velto::Value;

namespace {

std::string& changing(const NSMutableString& string) {
  return const_cast<MutableStringBody&>(static_cast<const MutableStringBody&>(string.value().body())).text();
}

}  // namespace

Class NSString::classObject() {
  static const Class& made = *new Class(velto::defineBuiltIn("NSString", NSObject::classObject()));
  return made;
}

NSString NSString::stringWithUTF8(std::string_view bytes) {
  return velto::isValidUTF8(bytes) ? NSString(velto::validTextValue(bytes)) : NSString();
}

std::string_view NSString::bodyText() const noexcept {
  return velto::textOf(value());
}

bool NSString::isEqualToString(const NSString& other) const {
  return !isNil() && !other.isNil() && view() == other.view();
}

NSString NSString::copy() const {
  if (value().tag() == Tag::mutableString) return NSString(velto::validTextValue(view()));
  return velto::owned(*this).as<NSString>();
}

Class NSMutableString::classObject() {
  static const Class& made = *new Class(velto::defineBuiltIn("NSMutableString", NSString::classObject()));
  return made;
}

NSMutableString NSMutableString::string() {
  return stringWithString(nil);
}

NSMutableString NSMutableString::stringWithString(const NSString& text) {
  return NSMutableString(Value(*new MutableStringBody(text.string())));
}

void NSMutableString::appendString(const NSString& text) {
  if (!isNil()) changing(*this) += text.string();
}

void NSMutableString::setString(const NSString& text) {
  if (!isNil()) changing(*this) = text.string();
}
