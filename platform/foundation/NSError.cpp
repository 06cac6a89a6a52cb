// Errors. What is missing is made empty at once, so that an error is the same before and after a journey.
#include "platform/foundation/NSError.h"

#include "platform/foundation/BuiltInClass.h"
#include "platform/foundation/Class.h"
#include "platform/foundation/PlainBodies.h"

namespace velto {
namespace {

const ErrorBody& bodyOf(const NSError& error) {
  return static_cast<const ErrorBody&>(error.value().body());
}

}  // namespace
}  // namespace velto

namespace {

// The body outlives every handle, so that threads which still run at exit can go on using the key after its own
// handle has been destroyed.
NSString outlivingAll(const NSString& text) {
  text.value().retain();
  return text;
}

}  // namespace

// Before all initialisers of ordinary priority: one of those may use the key.
__attribute__((init_priority(101))) const NSString NSLocalizedDescriptionKey = outlivingAll("NSLocalizedDescription");

Class NSError::classObject() {
  static const Class& made = *new Class(velto::defineBuiltIn("NSError", NSObject::classObject()));
  return made;
}

NSError NSError::errorWithDomain(const NSString& domain, std::int64_t code, const NSDictionary& userInfo) {
  NSString ownDomain = domain.isNil() ? NSString("") : domain.copy();
  NSDictionary ownInfo = userInfo.isNil() ? NSDictionary::dictionary() : userInfo.copy();
  const velto::Value made = velto::ErrorBody::make(ownDomain.value(), code, ownInfo.value());
  ownDomain.giveUp();
  ownInfo.giveUp();
  return NSError(made);
}

NSString NSError::domain() const {
  return isNil() ? NSString() : velto::bodyOf(*this).domain().as<NSString>();
}
std::int64_t NSError::code() const noexcept {
  return isNil() ? 0 : velto::bodyOf(*this).code();
}
NSDictionary NSError::userInfo() const {
  return isNil() ? NSDictionary() : velto::bodyOf(*this).userInfo().as<NSDictionary>();
}
NSString NSError::localizedDescription() const {
  return userInfo()[NSLocalizedDescriptionKey].as<NSString>();
}
