// Numbers: the handles, which hold them.
#include "platform/foundation/NSNumber.h"

#include "platform/foundation/BuiltInClass.h"
#include "platform/foundation/Class.h"

Class NSNumber::classObject() {
  static const Class& made = *new Class(velto::defineBuiltIn("NSNumber", NSObject::classObject()));
  return made;
}

NSNumber NSNumber::numberWithBool(bool value) {
  return value;
}
NSNumber NSNumber::numberWithSigned(std::int64_t value) {
  return value;
}
NSNumber NSNumber::numberWithUnsigned(std::uint64_t value) {
  return value;
}
NSNumber NSNumber::numberWithDouble(double value) {
  return value;
}

NSNumber::Kind NSNumber::kind() const noexcept {
  switch (value().tag()) {
    case velto::Tag::boolean:
      return Kind::boolean;
    case velto::Tag::unsignedInteger:
      return Kind::unsignedInteger;
    case velto::Tag::floatingPoint:
      return Kind::floatingPoint;
    default:
      return Kind::signedInteger;
  }
}
