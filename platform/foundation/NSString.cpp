// Strings. Text is checked once, where it enters; behind that door every string is valid UTF-8.
#include "platform/foundation/NSString.h"

#include "platform/foundation/BuiltInClass.h"
#include "platform/foundation/StringBody.h"
#include "platform/foundation/UTF8.h"

using velto::StringBody;
using Mutability = StringBody::Mutability;

namespace {

velto::ObjectBody* bodyFor(std::string_view text) {
  return new StringBody(velto::isValidUTF8(text) ? std::string(text) : velto::repairedUTF8(text),
                        Mutability::immutable);
}

const StringBody* bodyOf(const NSString& string) {
  return static_cast<const StringBody*>(string.body());
}
StringBody* changing(const NSMutableString& string) {
  return static_cast<StringBody*>(string.body());
}

}  // namespace

NSString::NSString(const char* text) : NSObject(text != nullptr ? bodyFor(text) : nullptr) {}
NSString::NSString(const std::string& text) : NSObject(bodyFor(text)) {}
NSString::NSString(std::string_view text) : NSObject(bodyFor(text)) {}

Class NSString::classObject() {
  static const Class& made = *new Class(velto::defineBuiltIn("NSString", NSObject::classObject()));
  return made;
}

NSString NSString::stringWithUTF8(std::string_view bytes) {
  if (!velto::isValidUTF8(bytes)) return nil;
  return NSString(new StringBody(std::string(bytes), Mutability::immutable));
}

std::string_view NSString::view() const noexcept {
  return isNil() ? std::string_view() : std::string_view(bodyOf(*this)->text());
}

const char* NSString::UTF8String() const noexcept {
  return isNil() ? nullptr : bodyOf(*this)->text().c_str();
}

bool NSString::isEqualToString(const NSString& other) const {
  return !isNil() && !other.isNil() && view() == other.view();
}

NSString NSString::copy() const {
  if (isNil() || !bodyOf(*this)->isMutable()) return *this;
  return NSString(new StringBody(string(), Mutability::immutable));
}

Class NSMutableString::classObject() {
  static const Class& made = *new Class(velto::defineBuiltIn("NSMutableString", NSString::classObject()));
  return made;
}

NSMutableString NSMutableString::string() {
  return stringWithString(nil);
}

NSMutableString NSMutableString::stringWithString(const NSString& text) {
  return NSMutableString(new StringBody(text.string(), Mutability::growing));
}

void NSMutableString::appendString(const NSString& text) {
  if (!isNil()) changing(*this)->text() += text.string();
}

void NSMutableString::setString(const NSString& text) {
  if (!isNil()) changing(*this)->text() = text.string();
}
