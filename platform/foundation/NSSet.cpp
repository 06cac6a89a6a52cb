// Sets: the same store as a dictionary's, with keys only.
#include "platform/foundation/NSSet.h"

#include <utility>

#include "platform/foundation/BuiltInClass.h"
#include "platform/foundation/Class.h"
#include "platform/foundation/SetBody.h"
#include "platform/foundation/Walk.h"

namespace velto {

const ClassBody& SetBody::classBody() const {
  return isMutable() ? classBodyOf<NSMutableSet>() : classBodyOf<NSSet>();
}

bool SetBody::isEqual(const ObjectBody& other, WalkBound& bound) const {
  const auto* set = bodyAs<SetBody>(&other);
  if (set == nullptr || set->count() != count()) return false;
  const ComparedLevel level(bound);
  for (const OrderedEntries::Slot& slot : entries_.slots()) {
    if (!slot.key.isNil() && set->entries_.find(slot.key, bound) == nullptr) return false;
  }
  return true;
}

void SetBody::describe(std::string& out, WalkBound& bound) const {
  const WalkBound::Level level(bound);
  if (!level) {
    out += "…";
    return;
  }
  out += "{(";
  const char* separator = "";
  for (const OrderedEntries::Slot& slot : entries_.slots()) {
    if (slot.key.isNil()) continue;
    if (isDescribedEnough(out)) return;
    out += std::exchange(separator, ", ");
    describeWithin(bound, slot.key, out);
  }
  out += ")}";
}

}  // namespace velto

using velto::ObjectIterator;
using velto::OrderedEntries;
using velto::SetBody;
using Mutability = velto::ContainerBody::Mutability;

namespace {

const SetBody* bodyOf(const NSSet& set) {
  return static_cast<const SetBody*>(set.body());
}
SetBody* changing(const NSMutableSet& set) {
  return static_cast<SetBody*>(set.body());
}

template <class Elements>
velto::ObjectBody* bodyFor(const Elements& elements) {
  OrderedEntries entries;
  entries.reserve(elements.size());
  for (const NSObject& element : elements) {
    if (element.isNil()) velto::raiseNilIn("a set");
    entries.put(element, nil);
  }
  return new SetBody(std::move(entries), Mutability::immutable);
}

}  // namespace

NSSet::NSSet(std::initializer_list<NSObject> elements) : NSObject(bodyFor(elements)) {}

Class NSSet::classObject() {
  static const Class& made = *new Class(velto::defineBuiltIn("NSSet", NSObject::classObject()));
  return made;
}

NSSet NSSet::set() {
  return setWithObjects({});
}
NSSet NSSet::setWithObjects(std::vector<NSObject> elements) {
  return NSSet(bodyFor(elements));
}

bool NSSet::containsObject(const NSObject& object) const {
  return !isNil() && bodyOf(*this)->entries().find(object) != nullptr;
}

NSArray NSSet::allObjects() const {
  if (isNil()) return nil;
  return NSArray::arrayWithObjects(std::vector<NSObject>(begin(), end()));
}

ObjectIterator NSSet::begin() const {
  return {body(), 0};
}
ObjectIterator NSSet::end() const {
  return {body(), isNil() ? 0 : bodyOf(*this)->slotCount()};
}

NSSet NSSet::copy() const {
  if (isNil() || !bodyOf(*this)->isMutable()) return *this;
  return NSSet(new SetBody(bodyOf(*this)->entries(), Mutability::immutable));
}

Class NSMutableSet::classObject() {
  static const Class& made = *new Class(velto::defineBuiltIn("NSMutableSet", NSSet::classObject()));
  return made;
}

NSMutableSet NSMutableSet::set() {
  return initWithSet(nil);
}

NSMutableSet NSMutableSet::initWithSet(const NSSet& elements) {
  OrderedEntries entries = elements.isNil() ? OrderedEntries() : bodyOf(elements)->entries();
  return NSMutableSet(new SetBody(std::move(entries), Mutability::changing));
}

void NSMutableSet::addObject(const NSObject& object) {
  if (isNil()) return;
  if (object.isNil()) velto::raiseNilIn("a set");
  if (containsObject(object)) return;
  changing(*this)->noteChange();
  changing(*this)->entries().put(object, nil);
}

void NSMutableSet::removeObject(const NSObject& object) {
  if (!isNil() && changing(*this)->entries().remove(object)) changing(*this)->noteChange();
}

void NSMutableSet::removeAllObjects() {
  if (isNil()) return;
  changing(*this)->noteChange();
  changing(*this)->entries().clear();
}
