#pragma once

#include <string>
#include <typeinfo>

#include "platform/foundation/NSException.h"
#include "platform/foundation/NSObject.h"
#include "platform/foundation/ObjectBody.h"
#include "platform/foundation/SipHash.h"
#include "platform/foundation/WalkBound.h"

namespace velto {

// What walks over nested objects share.

// The body of an object of a class of one's own as exactly a T, else null. (Final bodies need no more than this, and it
// costs less than a dynamic_cast.)
template <class T>
const T* bodyAs(const ObjectBody* body) {
  return body != nullptr && typeid(*body) == typeid(T) ? static_cast<const T*>(body) : nullptr;
}
template <class T>
T* bodyAs(ObjectBody* body) {
  return const_cast<T*>(bodyAs<T>(static_cast<const ObjectBody*>(body)));
}

// A hash regards so many levels of nesting and, of a container, its elements if there are no more than so many (of an
// array, the first of them): what differs beyond that has the same hash.
inline constexpr std::size_t kHashedLevels = 3;
inline constexpr std::size_t kHashedElements = 16;

inline bool isContainer(Tag tag) noexcept {
  return tag >= Tag::array && tag <= Tag::mutableSet;
}

// The class of a value that is not nil.
const ClassBody& classBodyOf(const Value& value);

// Equal objects have equal hashes.
std::size_t hashOf(const NSObject& object);

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
