// Arrays: the handles.
#include "platform/foundation/NSArray.h"

#include <algorithm>

#include "platform/foundation/ArrayBody.h"
#include "platform/foundation/BuiltInClass.h"
#include "platform/foundation/Ownership.h"
#include "platform/foundation/Walk.h"

using velto::ArrayBody;
using velto::MutableArrayBody;
using velto::ObjectIterator;
using velto::Value;

namespace {

MutableArrayBody& changing(NSMutableArray& array) {
  if (array.isNil()) array = NSMutableArray::array();
  return const_cast<MutableArrayBody&>(static_cast<const MutableArrayBody&>(array.value().body()));
}

std::vector<NSObject> ownedElementsOf(const NSArray& array) {
  const std::span<const NSObject> elements = velto::elementsOf(array.value());
  std::vector<NSObject> list;
  list.reserve(elements.size());
  for (const NSObject& each : elements) list.push_back(velto::owned(each));
  return list;
}

}  // namespace

NSArray::NSArray(std::initializer_list<NSObject> elements) {
  ArrayBody& body = ArrayBody::make(elements.size());
  for (const NSObject& each : elements) {
    if (!each.isNil()) body.add(NSObject(each).giveUp());
  }
  static_cast<NSObject&>(*this) = NSObject::adopt(Value(body));
}

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
  if (std::any_of(elements.begin(), elements.end(), [](const NSObject& each) { return each.isNil(); })) {
    velto::raiseNilIn("an array");
  }
  ArrayBody& body = ArrayBody::make(elements.size());
  for (NSObject& each : elements) body.add(each.giveUp());
  return NSArray(Value(body));
}

NSObject NSArray::objectAtIndex(std::size_t index) const {
  const std::span<const NSObject> elements = velto::elementsOf(value());
  return index < elements.size() ? elements[index] : NSObject();
}

bool NSArray::containsObject(const NSObject& object) const {
  const std::span<const NSObject> elements = velto::elementsOf(value());
  return std::find(elements.begin(), elements.end(), object) != elements.end();
}

ObjectIterator NSArray::begin() const {
  return ObjectIterator(*this, ObjectIterator::Place::begin);
}
ObjectIterator NSArray::end() const {
  return ObjectIterator(*this, ObjectIterator::Place::end);
}

NSArray NSArray::copy() const {
  return value().tag() == velto::Tag::mutableArray ? make(ownedElementsOf(*this)) : velto::owned(*this).as<NSArray>();
}

Class NSMutableArray::classObject() {
  static const Class& made = *new Class(velto::defineBuiltIn("NSMutableArray", NSArray::classObject()));
  return made;
}

NSMutableArray NSMutableArray::array() {
  return arrayWithArray(nil);
}

NSMutableArray NSMutableArray::arrayWithArray(const NSArray& elements) {
  return NSMutableArray(Value(*new MutableArrayBody(ownedElementsOf(elements))));
}

void NSMutableArray::addObject(const NSObject& object) {
  if (object.isNil()) velto::raiseNilIn("an array");
  changing(*this).add(velto::owned(object));
}

void NSMutableArray::removeObject(const NSObject& object) {
  if (isNil()) return;
  std::vector<NSObject> kept;
  for (const NSObject& element : changing(*this).elements()) {
    if (element != object) kept.push_back(element);
  }
  if (kept.size() != count()) changing(*this).replaceElements(std::move(kept));
}

void NSMutableArray::removeObjectAtIndex(std::size_t index) {
  if (!isNil()) changing(*this).removeAt(index);
}

void NSMutableArray::removeAllObjects() {
  if (!isNil()) changing(*this).replaceElements({});
}

void MutableArrayBody::removeAt(std::size_t index) {
  if (index >= elements_.size()) return;
  const NSObject removed = elements_[index];
  elements_.erase(elements_.begin() + static_cast<std::ptrdiff_t>(index));
  ++changes_;
}
