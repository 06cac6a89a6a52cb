// Class objects. Each lives for ever, so that a class can be asked for at any time, by threads that outlast main too.
#include "platform/foundation/Class.h"

#include <atomic>
#include <utility>

#include "platform/foundation/BuiltInClass.h"
#include "platform/foundation/NSException.h"

namespace velto {

ClassBody::ClassBody(std::string name, const ClassBody* superclass, Subclasses subclasses) noexcept
    : name_(std::move(name)), superclass_(superclass), subclasses_(subclasses) {}

ClassBody::ClassBody(std::string name, const ClassBody* superclass)
    : ClassBody(std::move(name), superclass, Subclasses::anybodys) {
  if (superclass_ == nullptr || superclass_->subclasses_ == Subclasses::anybodys) return;
  throw NSException("InvalidArgumentException", "the class " + name_ + " cannot be below " + superclass_->name_ +
                                                    ", a class of the platform: whatever is of that kind is taken for "
                                                    "the platform's own body");
}

bool ClassBody::isSubclassOf(const ClassBody& other) const noexcept {
  for (const ClassBody* each = this; each != nullptr; each = each->superclass_) {
    if (each == &other) return true;
  }
  return false;
}

// Not the class itself: a class is no instance of itself, and NSString's class object is no string.
const ClassBody& ClassBody::classBody() const {
  return classBodyOf<Class>();
}

void ClassBody::describe(std::string& out, WalkBound&) const {
  out += name_;
}

Class ClassBody::immortal(ClassBody& body) noexcept {
  // In a list of all, so that whoever looks for lost memory finds none here.
  static std::atomic<ClassBody*> all{nullptr};
  body.retain();
  body.next_ = all.load(std::memory_order_relaxed);
  while (!all.compare_exchange_weak(body.next_, &body, std::memory_order_release, std::memory_order_relaxed)) {
  }
  return Class(body);
}

// A handle may point to what never changes as if it could.
Class::Class(const ClassBody& body) noexcept : NSObject(const_cast<ClassBody*>(&body)) {}

Class Class::classObject() {
  static const Class& made = *new Class(velto::defineBuiltIn("Class", NSObject::classObject()));
  return made;
}

Class Class::define(std::string name, const Class& superclass) {
  return ClassBody::immortal(*new ClassBody(std::move(name), superclass.classBody()));
}

Class defineBuiltIn(std::string name, const Class& superclass) {
  return ClassBody::immortal(
      *new ClassBody(std::move(name), superclass.classBody(), ClassBody::Subclasses::builtInOnly));
}

NSString Class::name() const {
  return isNil() ? NSString() : NSString(classBody()->name());
}

Class Class::superclass() const {
  const ClassBody* found = isNil() ? nullptr : classBody()->superclass();
  return found != nullptr ? Class(*found) : Class();
}

bool Class::isSubclassOfClass(const Class& other) const {
  return !isNil() && !other.isNil() && classBody()->isSubclassOf(*other.classBody());
}

const ClassBody* Class::classBody() const noexcept {
  return static_cast<const ClassBody*>(body());
}

}  // namespace velto

NSString NSStringFromClass(const Class& aClass) {
  return aClass.name();
}
