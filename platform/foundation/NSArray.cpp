// Arrays: the handles.
#include "platform/foundation/NSArray.h"

#include <algorithm>

#include "platform/foundation/ArrayBody.h"
#include "platform/foundation/BuiltInClass.h"

using velto::ArrayBody;
using velto::ObjectIterator;
using Mutability = velto::ContainerBody::Mutability;

namespace {

const ArrayBody* bodyOf(const NSArray& array) {
  return static_cast<const ArrayBody*>(array.body());
}
ArrayBody* changing(const NSMutableArray& array) {
  return static_cast<ArrayBody*>(array.body());
}

std::vector<NSObject> elementsOf(const NSArray& array) {
  return array.isNil() ? std::vector<NSObject>() : bodyOf(array)->elements();
}

velto::ObjectBody* bodyFor(std::vector<NSObject> elements) {
  const bool holdsNil =
      std::any_of(elements.begin(), elements.end(), [](const NSObject& each) { return each.isNil(); });
  if (holdsNil) velto::raiseNilIn("an array");
  return new ArrayBody(std::move(elements), Mutability::immutable);
}

}  // namespace

NSArray::NSArray(std::initializer_list<NSObject> elements) : NSObject(bodyFor(elements)) {}

Class NSArray::classObject() {
  static const Class& made = *new Class(velto::defineBuiltIn("NSArray", NSObject::classObject()));
  return made;
}

NSArray NSArray::array() {
  return make({});
}
NSArray NSArray::arrayWithObjects(std::vector<NSObject> elements) {
  return make(std::move(elements));
}
NSArray NSArray::make(std::vector<NSObject> elements) {
  return NSArray(bodyFor(std::move(elements)));
}

NSObject NSArray::objectAtIndex(std::size_t index) const {
  return isNil() ? NSObject() : bodyOf(*this)->elementAt(index);
}

bool NSArray::containsObject(const NSObject& object) const {
  if (isNil()) return false;
  const std::vector<NSObject>& elements = bodyOf(*this)->elements();
  return std::find(elements.begin(), elements.end(), object) != elements.end();
}

ObjectIterator NSArray::begin() const {
  return {body(), 0};
}
ObjectIterator NSArray::end() const {
  return {body(), count()};
}

NSArray NSArray::copy() const {
  if (isNil() || !bodyOf(*this)->isMutable()) return *this;
  return make(elementsOf(*this));
}

Class NSMutableArray::classObject() {
  static const Class& made = *new Class(velto::defineBuiltIn("NSMutableArray", NSArray::classObject()));
  return made;
}

NSMutableArray NSMutableArray::array() {
  return arrayWithArray(nil);
}

NSMutableArray NSMutableArray::arrayWithArray(const NSArray& elements) {
  return NSMutableArray(new ArrayBody(elementsOf(elements), Mutability::changing));
}

void NSMutableArray::addObject(const NSObject& object) {
  if (!isNil()) changing(*this)->add(object);
}

void NSMutableArray::removeObject(const NSObject& object) {
  if (isNil()) return;
  std::vector<NSObject> kept;
  for (const NSObject& element : bodyOf(*this)->elements()) {
    if (element != object) kept.push_back(element);
  }
  if (kept.size() != count()) changing(*this)->replaceElements(std::move(kept));
}

void NSMutableArray::removeObjectAtIndex(std::size_t index) {
  if (!isNil()) changing(*this)->removeAt(index);
}

void NSMutableArray::removeAllObjects() {
  if (!isNil()) changing(*this)->replaceElements({});
}
