#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/foundation/Class.h"
#include "platform/foundation/NSSet.h"
#include "platform/xpc/wire/PlainClass.h"

namespace velto::wire {

// Which classes a decoded value may consist of, at every depth: each object must be of one of them or of a subclass.
// Made once from an NSSet of class objects, then read only; quick to ask.
class ClassSet {
 public:
  ClassSet() = default;
  // Elements that are no class objects count for nothing.
  explicit ClassSet(const NSSet& classes);

  bool admits(const Class& aClass) const;
  bool admits(PlainClass plain) const noexcept { return (plain_ >> static_cast<unsigned>(plain) & 1u) != 0; }
  // The same of many plain classes: a bit for each.
  std::uint32_t plainClasses() const noexcept { return plain_; }
  // The classes' names, sorted, separated by ", ".
  std::string names() const;

 private:
  bool admits(const ClassBody& body) const noexcept;

  std::vector<const ClassBody*> classes_;
  // One bit for each plain class that is admitted: what is asked for nearly every object.
  std::uint32_t plain_ = 0;
};

}  // namespace velto::wire
