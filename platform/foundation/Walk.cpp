// The walks over nested objects, and the programmer's errors that they find. An overrun while comparing raises: neither
// "equal" nor "different" would be true. A description only ends early.
#include "platform/foundation/Walk.h"

namespace velto {

bool isEqualWithin(WalkBound& bound, const NSObject& left, const NSObject& right) {
  if (!bound.visit()) {
    throw NSException("WalkBoundException", "compared objects hold more than " +
                                                std::to_string(bound.maximumObjects()) +
                                                " objects, the most that one comparison visits");
  }
  if (left.isIdenticalTo(right)) return true;
  if (left.isNil() || right.isNil()) return false;
  return left.body()->isEqual(*right.body(), bound);
}

ComparedLevel::ComparedLevel(WalkBound& bound) : level_(bound) {
  if (level_) return;
  throw NSException("WalkBoundException", "compared objects nest deeper than " + std::to_string(bound.maximumDepth()) +
                                              " levels, the deepest that a comparison goes");
}

void describeWithin(WalkBound& bound, const NSObject& object, std::string& out) {
  if (object.isNil()) {
    out += "(null)";
  } else if (!bound.visit()) {
    out += "…";
  } else {
    object.body()->describe(out, bound);
  }
}

void raiseNilIn(const char* container) {
  throw NSException("NilInContainerException", std::string(container) + " cannot hold nil");
}

void raiseInvalidArgument(const char* reason) {
  throw NSException("InvalidArgumentException", reason);
}

}  // namespace velto
