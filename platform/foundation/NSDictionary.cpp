// Dictionaries: the handles.
#include "platform/foundation/NSDictionary.h"

#include "platform/foundation/BuiltInClass.h"
#include "platform/foundation/Class.h"
#include "platform/foundation/DictionaryBody.h"
#include "platform/foundation/Walk.h"

using velto::DictionaryBody;
using velto::ObjectIterator;
using velto::OrderedEntries;
using Mutability = velto::ContainerBody::Mutability;

namespace {

const DictionaryBody* bodyOf(const NSDictionary& dictionary) {
  return static_cast<const DictionaryBody*>(dictionary.body());
}
DictionaryBody* changing(const NSMutableDictionary& dictionary) {
  return static_cast<DictionaryBody*>(dictionary.body());
}

void requireEntry(const NSObject& key, const NSObject& value) {
  if (key.isNil() || value.isNil()) velto::raiseNilIn("a dictionary");
}

template <class Entries>
velto::ObjectBody* bodyFor(const Entries& entries) {
  OrderedEntries store;
  store.reserve(entries.size());
  for (const NSDictionary::Entry& entry : entries) {
    requireEntry(entry.key, entry.value);
    store.put(entry.key, entry.value);
  }
  return new DictionaryBody(std::move(store), Mutability::immutable);
}

}  // namespace

NSDictionary::NSDictionary(std::initializer_list<Entry> entries) : NSObject(bodyFor(entries)) {}

Class NSDictionary::classObject() {
  static const Class& made = *new Class(velto::defineBuiltIn("NSDictionary", NSObject::classObject()));
  return made;
}

NSDictionary NSDictionary::dictionary() {
  return make({});
}
NSDictionary NSDictionary::dictionaryWithEntries(std::vector<Entry> entries) {
  return make(std::move(entries));
}
NSDictionary NSDictionary::make(std::vector<Entry> entries) {
  return NSDictionary(bodyFor(entries));
}

NSObject NSDictionary::objectForKey(const NSObject& key) const {
  return isNil() ? NSObject() : bodyOf(*this)->entries().valueOf(key);
}

NSArray NSDictionary::allKeys() const {
  if (isNil()) return nil;
  return NSArray::arrayWithObjects(std::vector<NSObject>(begin(), end()));
}

NSArray NSDictionary::allValues() const {
  if (isNil()) return nil;
  std::vector<NSObject> values;
  values.reserve(count());
  for (const OrderedEntries::Slot& slot : bodyOf(*this)->entries().slots()) {
    if (!slot.key.isNil()) values.push_back(slot.value);
  }
  return NSArray::arrayWithObjects(std::move(values));
}

ObjectIterator NSDictionary::begin() const {
  return {body(), 0};
}
ObjectIterator NSDictionary::end() const {
  return {body(), isNil() ? 0 : bodyOf(*this)->slotCount()};
}

NSDictionary NSDictionary::copy() const {
  if (isNil() || !bodyOf(*this)->isMutable()) return *this;
  return NSDictionary(new DictionaryBody(bodyOf(*this)->entries(), Mutability::immutable));
}

Class NSMutableDictionary::classObject() {
  static const Class& made = *new Class(velto::defineBuiltIn("NSMutableDictionary", NSDictionary::classObject()));
  return made;
}

NSMutableDictionary NSMutableDictionary::dictionary() {
  return dictionaryWithDictionary(nil);
}

NSMutableDictionary NSMutableDictionary::dictionaryWithDictionary(const NSDictionary& entries) {
  const OrderedEntries& store = entries.isNil() ? OrderedEntries() : bodyOf(entries)->entries();
  return NSMutableDictionary(new DictionaryBody(store, Mutability::changing));
}

void NSMutableDictionary::setObject(const NSObject& object, const NSObject& forKey) {
  if (isNil()) return;
  requireEntry(forKey, object);
  changing(*this)->noteChange();
  changing(*this)->entries().put(forKey, object);
}

void NSMutableDictionary::setObjectForKeyedSubscript(const NSObject& object, const NSObject& key) {
  if (object.isNil()) {
    removeObjectForKey(key);
  } else {
    setObject(object, key);
  }
}

void NSMutableDictionary::removeObjectForKey(const NSObject& key) {
  if (!isNil() && changing(*this)->entries().remove(key)) changing(*this)->noteChange();
}

void NSMutableDictionary::removeAllObjects() {
  if (isNil()) return;
  changing(*this)->noteChange();
  changing(*this)->entries().clear();
}
