// Errors. What is missing is made empty at once, so that an error is the same before and after a journey.
#include "platform/foundation/NSError.h"

#include "platform/foundation/BuiltInClass.h"
#include "platform/foundation/Class.h"
#include "platform/foundation/SipHash.h"
#include "platform/foundation/Walk.h"

namespace velto {
namespace {

class ErrorBody final : public ObjectBody {
 public:
  ErrorBody(const NSString& domain, std::int64_t code, const NSDictionary& userInfo)
      : domain_(domain.isNil() ? NSString("") : domain.copy()),
        code_(code),
        userInfo_(userInfo.isNil() ? NSDictionary::dictionary() : userInfo.copy()) {}

  const NSString& domain() const noexcept { return domain_; }
  std::int64_t code() const noexcept { return code_; }
  const NSDictionary& userInfo() const noexcept { return userInfo_; }

  const ClassBody& classBody() const override { return classBodyOf<NSError>(); }
  bool isEqual(const ObjectBody& other, WalkBound& bound) const override {
    const auto* error = bodyAs<ErrorBody>(&other);
    return error != nullptr && error->code_ == code_ && error->domain_.isEqualToString(domain_) &&
           isEqualWithin(bound, error->userInfo_, userInfo_);
  }
  std::size_t hash() const override { return hashOfText(domain_.view()) ^ static_cast<std::size_t>(code_); }
  void describe(std::string& out, WalkBound& bound) const override;

 private:
  const NSString domain_;
  const std::int64_t code_;
  const NSDictionary userInfo_;
};

NSString textOf(const ErrorBody& error) {
  return error.userInfo()[NSLocalizedDescriptionKey].as<NSString>();
}

void ErrorBody::describe(std::string& out, WalkBound&) const {
  out += domain_.view();
  out += " code " + std::to_string(code_);
  if (const NSString text = textOf(*this)) out += ": " + text.string();
}

const ErrorBody& bodyOf(const NSError& error) {
  return static_cast<const ErrorBody&>(*error.body());
}

}  // namespace
}  // namespace velto

namespace {

// The body outlives every handle, so that threads which still run at exit can go on using the key after its own
// handle has been destroyed.
NSString outlivingAll(const NSString& text) {
  text.body()->retain();
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
  return NSError(new velto::ErrorBody(domain, code, userInfo));
}

NSString NSError::domain() const {
  return isNil() ? NSString() : velto::bodyOf(*this).domain();
}
std::int64_t NSError::code() const noexcept {
  return isNil() ? 0 : velto::bodyOf(*this).code();
}
NSDictionary NSError::userInfo() const {
  return isNil() ? NSDictionary() : velto::bodyOf(*this).userInfo();
}
NSString NSError::localizedDescription() const {
  return isNil() ? NSString() : velto::textOf(velto::bodyOf(*this));
}
