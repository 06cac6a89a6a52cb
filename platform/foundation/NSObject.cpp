// The root of the values: what any object answers, whatever its kind. The questions of one kind only (a count, a
// number, an element) ask the body what it is, so that bodies of a user's own need not know of them.
#include "platform/foundation/NSObject.h"

#include "platform/foundation/ArrayBody.h"
#include "platform/foundation/Class.h"
#include "platform/foundation/ContainerBody.h"
#include "platform/foundation/DictionaryBody.h"
#include "platform/foundation/NSData.h"
#include "platform/foundation/NSNumber.h"
#include "platform/foundation/NumberBody.h"
#include "platform/foundation/StringBody.h"
#include "platform/foundation/UTF8.h"
#include "platform/foundation/Walk.h"

using velto::bodyAs;

NSObject::NSObject(const char* text) : body_(NSString(text).body()) {}
NSObject::NSObject(const std::string& text) : body_(NSString(text).body()) {}
NSObject::NSObject(std::string_view text) : body_(NSString(text).body()) {}

NSObject NSObject::fromBool(bool value) {
  return NSNumber::numberWithBool(value);
}
NSObject NSObject::fromSigned(std::int64_t value) {
  return NSNumber::numberWithSigned(value);
}
NSObject NSObject::fromUnsigned(std::uint64_t value) {
  return NSNumber::numberWithUnsigned(value);
}
NSObject NSObject::fromDouble(double value) {
  return NSNumber::numberWithDouble(value);
}

Class NSObject::classObject() {
  static const Class& made = *new Class(Class::define("NSObject", nil));
  return made;
}

Class NSObject::getClass() const {
  return isNil() ? Class() : Class(body_->classBody());
}

bool NSObject::isKindOfClass(const Class& kind) const {
  return !kind.isNil() && isKindOf(*kind.classBody());
}

bool NSObject::isKindOf(const velto::ClassBody& kind) const {
  return !isNil() && body_->classBody().isSubclassOf(kind);
}

bool NSObject::isEqual(const NSObject& other) const {
  velto::WalkBound bound;
  return velto::isEqualWithin(bound, *this, other);
}

std::size_t NSObject::hash() const {
  return isNil() ? 0 : body_->hash();
}

NSString NSObject::description() const {
  if (isNil()) return "(null)";
  if (bodyAs<velto::StringBody>(body()) != nullptr) return as<NSString>().copy();
  std::string text;
  try {
    velto::WalkBound bound;
    body_->describe(text, bound);
  } catch (const std::exception&) {
    text += "…";
  }
  if (text.size() > velto::kMaximumDescriptionBytes) {
    text.resize(velto::lengthCutBetweenCharacters(text, velto::kMaximumDescriptionBytes));
    text += "…";
  }
  return text;
}

bool NSObject::boolValue() const {
  const auto* number = bodyAs<velto::NumberBody>(body());
  return number != nullptr && number->boolValue();
}

std::int64_t NSObject::integerValue() const {
  const auto* number = bodyAs<velto::NumberBody>(body());
  return number != nullptr ? number->convertedTo<std::int64_t>() : 0;
}

std::uint64_t NSObject::unsignedIntegerValue() const {
  const auto* number = bodyAs<velto::NumberBody>(body());
  return number != nullptr ? number->convertedTo<std::uint64_t>() : 0;
}

double NSObject::doubleValue() const {
  const auto* number = bodyAs<velto::NumberBody>(body());
  return number != nullptr ? number->doubleValue() : 0;
}

std::string NSObject::stringValue() const {
  return as<NSString>().string();
}

std::size_t NSObject::count() const {
  if (const auto* container = dynamic_cast<const velto::ContainerBody*>(body())) return container->count();
  if (const NSData data = as<NSData>()) return data.length();
  return as<NSString>().length();
}

NSObject NSObject::operator[](const NSObject& key) const {
  const auto* dictionary = bodyAs<velto::DictionaryBody>(body());
  return dictionary != nullptr ? dictionary->entries().valueOf(key) : NSObject();
}

NSObject NSObject::operator[](const char* key) const {
  const auto* dictionary = bodyAs<velto::DictionaryBody>(body());
  if (dictionary == nullptr || key == nullptr) return nil;
  const std::string_view text(key);
  return velto::isValidUTF8(text) ? dictionary->entries().valueOfText(text)
                                  : dictionary->entries().valueOf(NSString(text));
}

NSObject NSObject::elementAt(std::int64_t index) const {
  if (bodyAs<velto::DictionaryBody>(body()) != nullptr) return (*this)[NSObject(index)];
  const auto* array = bodyAs<velto::ArrayBody>(body());
  return array != nullptr && index >= 0 ? array->elementAt(static_cast<std::size_t>(index)) : NSObject();
}
