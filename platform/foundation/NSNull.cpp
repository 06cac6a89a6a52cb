// The null object, which lies in its handle.
#include "platform/foundation/NSNull.h"

#include "platform/foundation/BuiltInClass.h"
#include "platform/foundation/Class.h"

Class NSNull::classObject() {
  static const Class& made = *new Class(velto::defineBuiltIn("NSNull", NSObject::classObject()));
  return made;
}

NSNull NSNull::null() {
  return NSNull(velto::Value(velto::Tag::null, 0));
}
