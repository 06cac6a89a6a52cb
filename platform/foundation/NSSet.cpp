// Sets: the same store as a dictionary's, with keys only.
#include "platform/foundation/NSSet.h"

#include <utility>

#include "platform/foundation/BuiltInClass.h"
#include "platform/foundation/KeyedBody.h"
#include "platform/foundation/Ownership.h"
#include "platform/foundation/Walk.h"

using velto::KeyedBody;
using velto::MutableKeyedBody;
using velto::ObjectIterator;
using velto::Tag;
using velto::Value;

namespace {

MutableKeyedBody& changing(NSMutableSet& set) {
  if (set.isNil()) set = NSMutableSet::set();
  return const_cast<MutableKeyedBody&>(static_cast<const MutableKeyedBody&>(set.value().body()));
}

template <class Elements>
NSObject setOf(const Elements& elements) {
  KeyedBody& body = KeyedBody::make(Tag::set, elements.size());
  NSObject made = NSObject::adopt(Value(body));
  for (const NSObject& each : elements) {
    if (!each.isNil()) body.put(each, nil);
  }
  return made;
}

}  // namespace

NSSet::NSSet(std::initializer_list<NSObject> elements) : NSObject(setOf(elements)) {}

Class NSSet::classObject() {
  static const Class& made = *new Class(velto::defineBuiltIn("NSSet", NSObject::classObject()));
  return made;
}

NSSet NSSet::set() {
  return setWithObjects({});
}
NSSet NSSet::setWithObjects(std::vector<NSObject> elements) {
  for (const NSObject& each : elements) {
    if (each.isNil()) velto::raiseNilIn("a set");
  }
  return NSSet(setOf(elements).giveUp());
}

bool NSSet::containsObject(const NSObject& object) const {
  return velto::tableOf(value()).find(object) != nullptr;
}

NSArray NSSet::allObjects() const {
  if (isNil()) return nil;
  return NSArray::arrayWithObjects(std::vector<NSObject>(begin(), end()));
}

ObjectIterator NSSet::begin() const {
  return ObjectIterator(*this, ObjectIterator::Place::begin);
}
ObjectIterator NSSet::end() const {
  return ObjectIterator(*this, ObjectIterator::Place::end);
}

NSSet NSSet::copy() const {
  if (value().tag() != Tag::mutableSet) return velto::owned(*this).as<NSSet>();
  return setWithObjects(std::vector<NSObject>(begin(), end()));
}

Class NSMutableSet::classObject() {
  static const Class& made = *new Class(velto::defineBuiltIn("NSMutableSet", NSSet::classObject()));
  return made;
}

NSMutableSet NSMutableSet::set() {
  return initWithSet(nil);
}

NSMutableSet NSMutableSet::initWithSet(const NSSet& elements) {
  auto* const body = new MutableKeyedBody(Tag::mutableSet);
  NSMutableSet made((Value(*body)));
  body->copy(velto::tableOf(elements.value()));
  return made;
}

void NSMutableSet::addObject(const NSObject& object) {
  if (object.isNil()) velto::raiseNilIn("a set");
  changing(*this).put(velto::owned(object), nil);
}

void NSMutableSet::removeObject(const NSObject& object) {
  if (!isNil()) changing(*this).remove(object);
}

void NSMutableSet::removeAllObjects() {
  if (!isNil()) changing(*this).clear();
}
