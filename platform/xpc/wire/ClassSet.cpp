// Admission by kind: an object is admitted when its class, or one above it, is in the set. Class bodies are never
// destroyed, so plain pointers to them are enough.

#include "platform/xpc/wire/ClassSet.h"

#include <algorithm>

namespace velto::wire {

ClassSet::ClassSet(const NSSet& classes) {
  for (const NSObject& element : classes) {
    const ClassBody* const body = element.as<Class>().classBody();
    if (body != nullptr) classes_.push_back(body);
  }
  for (unsigned index = 0; index < kPlainClasses; ++index) {
    if (admits(classBodyOf(static_cast<PlainClass>(index)))) plain_ |= 1u << index;
  }
}

bool ClassSet::admits(const Class& aClass) const {
  const ClassBody* const body = aClass.classBody();
  return body != nullptr && admits(*body);
}

bool ClassSet::admits(const ClassBody& body) const noexcept {
  return std::any_of(classes_.begin(), classes_.end(),
                     [&body](const ClassBody* admitted) { return body.isSubclassOf(*admitted); });
}

std::string ClassSet::names() const {
  std::vector<std::string> sorted;
  sorted.reserve(classes_.size());
  for (const ClassBody* body : classes_) sorted.push_back(body->name());
  std::sort(sorted.begin(), sorted.end());
  std::string names;
  for (const std::string& name : sorted) {
    if (!names.empty()) names += ", ";
    names += name;
  }
  return names;
}

}  // namespace velto::wire
