#pragma once

#include <string>
#include <typeinfo>

#include "platform/foundation/NSException.h"
#include "platform/foundation/NSObject.h"
#include "platform/foundation/WalkBound.h"

namespace velto {

// What walks over nested objects share.

// The body as exactly a T, else null. (Final bodies need no more than this, and it costs less than a dynamic_cast.)
template <class T>
const T* bodyAs(const ObjectBody* body) {
  return body != nullptr && typeid(*body) == typeid(T) ? static_cast<const T*>(body) : nullptr;
}
template <class T>
T* bodyAs(ObjectBody* body) {
  return const_cast<T*>(bodyAs<T>(static_cast<const ObjectBody*>(body)));
}

// Compares one pair of a walk. Raises an NSException when the bound is exceeded.
bool isEqualWithin(WalkBound& bound, const NSObject& left, const NSObject& right);

// One level of a walk that compares. Raises an NSException when it is one too deep.
class ComparedLevel {
 public:
  explicit ComparedLevel(WalkBound& bound);

 private:
  WalkBound::Level level_;
};

// Appends the description of one object of a walk.
void describeWithin(WalkBound& bound, const NSObject& object, std::string& out);

// Whether a description is so long that the rest need not be walked: it will be cut.
inline bool isDescribedEnough(const std::string& out) noexcept {
  return out.size() > kMaximumDescriptionBytes;
}

[[noreturn]] void raiseNilIn(const char* container);
[[noreturn]] void raiseInvalidArgument(const char* reason);

}  // namespace velto
