#pragma once

#include <string>

#include "platform/foundation/NSObject.h"
#include "platform/foundation/NSString.h"
#include "platform/foundation/ObjectBody.h"

namespace velto {

// The body of a class object. One per class, never destroyed.
class VELTO_EXPORT ClassBody final : public ObjectBody {
 public:
  // Raises an NSException as Class::define() does.
  ClassBody(std::string name, const ClassBody* superclass);

  [[nodiscard]] const std::string& name() const noexcept { return name_; }
  [[nodiscard]] const ClassBody* superclass() const noexcept { return superclass_; }
  [[nodiscard]] bool isSubclassOf(const ClassBody& other) const noexcept;

  [[nodiscard]] const ClassBody& classBody() const override;
  void describe(std::string& out, WalkBound& bound) const override;

 private:
  friend class Class;
  friend Class defineBuiltIn(std::string name, const Class& superclass);
  enum class Subclasses { anybodys, builtInOnly };

  ClassBody(std::string name, const ClassBody* superclass, Subclasses subclasses) noexcept;
  static Class immortal(ClassBody& body) noexcept;

  const std::string name_;
  const ClassBody* const superclass_;
  const Subclasses subclasses_;
  ClassBody* next_ = nullptr;
};

// A class object: knows its name and its superclass; equal only to itself; its description is its name. The class of
// all class objects is Class. Thread-safe, like every immutable value.
class VELTO_EXPORT Class : public NSObject {
 public:
  Class() noexcept = default;
  Class(std::nullptr_t) noexcept {}
  explicit operator bool() const noexcept { return !isNil(); }
  explicit Class(const ClassBody& body) noexcept;

  // The class of class objects themselves.
  static Class classObject();

  // Makes a class, for bodies of your own: below NSObject, or below a class of your own. Below a class of the platform
  // (NSString, NSDictionary, …) there is no room: whatever is of such a kind is taken for the platform's own body. That
  // raises an NSException which names both classes. Call it once per class, from a function-local static:
  //   Class Point::classObject() {
  //     static const Class& made = *new Class(Class::define("Point", NSObject::classObject()));
  //     return made;
  //   }
  [[nodiscard]] static Class define(std::string name, const Class& superclass);

  [[nodiscard]] NSString name() const;
  [[nodiscard]] Class superclass() const;
  [[nodiscard]] bool isSubclassOfClass(const Class& other) const;
  [[nodiscard]] const ClassBody* classBody() const noexcept;
};

// The body of T's class object, looked up once: a kind test that touches no reference count.
template <class T>
const ClassBody& classBodyOf() {
  static const ClassBody& body = *T::classObject().classBody();
  return body;
}

}  // namespace velto

// The class's name; nil for nil.
VELTO_EXPORT NSString NSStringFromClass(const velto::Class& aClass);
