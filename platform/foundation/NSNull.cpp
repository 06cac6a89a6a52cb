// The null object. One body for the whole process, never destroyed.
#include "platform/foundation/NSNull.h"

#include "platform/foundation/BuiltInClass.h"
#include "platform/foundation/Class.h"

namespace velto {
namespace {

class NullBody final : public ObjectBody {
 public:
  const ClassBody& classBody() const override { return classBodyOf<NSNull>(); }
  void describe(std::string& out, WalkBound&) const override { out += "<null>"; }
};

}  // namespace
}  // namespace velto

Class NSNull::classObject() {
  static const Class& made = *new Class(velto::defineBuiltIn("NSNull", NSObject::classObject()));
  return made;
}

NSNull NSNull::null() {
  static const NSNull& made = *new NSNull(NSNull(new velto::NullBody));
  return made;
}
