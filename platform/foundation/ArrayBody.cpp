// What an array holds. A change is complete before anything that it removed is let go of, since the destructor of a
// removed object may use the array again.
#include "platform/foundation/ArrayBody.h"

#include <utility>

namespace velto {

void ArrayBody::add(const NSObject& object) {
  if (object.isNil()) raiseNilIn("an array");
  elements_.push_back(object);
  noteChange();
}

std::vector<NSObject> ArrayBody::replaceElements(std::vector<NSObject> elements) noexcept {
  noteChange();
  return std::exchange(elements_, std::move(elements));
}

void ArrayBody::removeAt(std::size_t index) {
  if (index >= elements_.size()) return;
  const NSObject removed = elements_[index];
  elements_.erase(elements_.begin() + static_cast<std::ptrdiff_t>(index));
  noteChange();
}

bool ArrayBody::isEqual(const ObjectBody& other, WalkBound& bound) const {
  const auto* array = bodyAs<ArrayBody>(&other);
  if (array == nullptr || array->elements_.size() != elements_.size()) return false;
  const ComparedLevel level(bound);
  for (std::size_t index = 0; index < elements_.size(); ++index) {
    if (!isEqualWithin(bound, elements_[index], array->elements_[index])) return false;
  }
  return true;
}

void ArrayBody::describe(std::string& out, WalkBound& bound) const {
  const WalkBound::Level level(bound);
  if (!level) {
    out += "…";
    return;
  }
  out += "(";
  const char* separator = "";
  for (const NSObject& element : elements_) {
    if (isDescribedEnough(out)) return;
    out += std::exchange(separator, ", ");
    describeWithin(bound, element, out);
  }
  out += ")";
}

}  // namespace velto
