// The root of the values: what any object answers, whatever its kind.
#include "platform/foundation/NSObject.h"

#include <ostream>

#include "platform/foundation/ArrayBody.h"
#include "platform/foundation/Class.h"
#include "platform/foundation/DataBody.h"
#include "platform/foundation/KeyedBody.h"
#include "platform/foundation/NSNumber.h"
#include "platform/foundation/NumberValue.h"
#include "platform/foundation/ObjectBody.h"
#include "platform/foundation/StringBody.h"
#include "platform/foundation/UTF8.h"
#include "platform/foundation/Walk.h"

velto::Value velto::textValue(std::string_view text) {
  if (text.size() <= Value::kMaximumText) {
    const Value value = Value::ofShortText(text);
    if (value.isASCII()) return value;
  }
  return isValidUTF8(text) ? validTextValue(text) : validTextValue(repairedUTF8(text));
}

static_assert(sizeof(NSObject) == 16);

NSObject::NSObject(velto::ObjectBody* body) noexcept {
  if (body == nullptr) return;
  body->retain();
  value_ = velto::Value(*body);
}

velto::ObjectBody* NSObject::body() const noexcept {
  if (value_.tag() != velto::Tag::object) return nullptr;
  return const_cast<velto::ObjectBody*>(static_cast<const velto::ObjectBody*>(&value_.body()));
}

Class NSObject::classObject() {
  static const Class& made = *new Class(Class::define("NSObject", nil));
  return made;
}

Class NSObject::getClass() const {
  return isNil() ? Class() : Class(velto::classBodyOf(value_));
}

bool NSObject::isKindOfClass(const Class& kind) const {
  return !kind.isNil() && isKindOf(*kind.classBody());
}

bool NSObject::isKindOf(const velto::ClassBody& kind) const {
  return !isNil() && velto::classBodyOf(value_).isSubclassOf(kind);
}

bool NSObject::isEqual(const NSObject& other) const {
  velto::WalkBound bound;
  return velto::isEqualWithin(bound, *this, other);
}

std::size_t NSObject::hash() const {
  return velto::hashOf(*this);
}

NSString NSObject::description() const {
  if (isNil()) return "(null)";
  if (velto::isString(value_.tag())) return as<NSString>().copy();
  std::string text;
  try {
    velto::WalkBound bound;
    velto::describeWithin(bound, *this, text);
  } catch (const std::exception&) {
    text += "…";
  }
  if (text.size() > velto::kMaximumDescriptionBytes) {
    text.resize(velto::lengthCutBetweenCharacters(text, velto::kMaximumDescriptionBytes));
    text += "…";
  }
  return text;
}

void NSObject::printTo(std::ostream& out) const {
  out << description().view();
}

bool NSObject::boolValue() const {
  return velto::isNumber(value_.tag()) && velto::boolOf(value_);
}

std::int64_t NSObject::integerValue() const {
  return velto::isNumber(value_.tag()) ? velto::signedOf(value_) : 0;
}

std::uint64_t NSObject::unsignedIntegerValue() const {
  return velto::isNumber(value_.tag()) ? velto::unsignedOf(value_) : 0;
}

double NSObject::doubleValue() const {
  return velto::isNumber(value_.tag()) ? velto::doubleOf(value_) : 0;
}

std::string NSObject::stringValue() const {
  return std::string(velto::textOf(value_));
}

std::size_t NSObject::count() const {
  const velto::Tag tag = value_.tag();
  if (velto::isArray(tag)) return velto::elementsOf(value_).size();
  if (velto::isContainer(tag)) return velto::entryCountOf(value_);
  return velto::isData(tag) ? velto::bytesOf(value_).size() : velto::textOf(value_).size();
}

NSObject NSObject::operator[](const NSObject& key) const {
  if (!velto::isDictionary(value_.tag())) return nil;
  const NSObject* const found = value_.tag() == velto::Tag::dictionary
                                    ? static_cast<const velto::KeyedBody&>(value_.body()).find(key)
                                    : velto::tableOf(value_).find(key);
  return found != nullptr ? found[1] : NSObject();
}

NSObject NSObject::valueForText(std::string_view text) const {
  if (!velto::isDictionary(value_.tag())) return nil;
  if (!velto::isValidUTF8(text)) return (*this)[NSObject(text)];
  const NSObject* found = velto::tableOf(value_).findText(text);
  return found != nullptr ? found[1] : NSObject();
}

NSObject NSObject::elementAt(std::int64_t index) const {
  if (velto::isDictionary(value_.tag())) return (*this)[NSObject(index)];
  const std::span<const NSObject> elements = velto::elementsOf(value_);
  return index >= 0 && static_cast<std::uint64_t>(index) < elements.size() ? elements[static_cast<std::size_t>(index)]
                                                                           : NSObject();
}
