// Dictionaries: the handles.
#include "platform/foundation/NSDictionary.h"

#include "platform/foundation/BuiltInClass.h"
#include "platform/foundation/KeyedBody.h"
#include "platform/foundation/Ownership.h"
#include "platform/foundation/Walk.h"

using velto::KeyedBody;
using velto::KeyTable;
using velto::MutableKeyedBody;
using velto::ObjectIterator;
using velto::Tag;
using velto::Value;

namespace {

MutableKeyedBody& changing(NSMutableDictionary& dictionary) {
  if (dictionary.isNil()) dictionary = NSMutableDictionary::dictionary();
  return const_cast<MutableKeyedBody&>(static_cast<const MutableKeyedBody&>(dictionary.value().body()));
}

void requireEntry(const NSObject& key, const NSObject& value) {
  if (key.isNil() || value.isNil()) velto::raiseNilIn("a dictionary");
}

}  // namespace

NSDictionary NSDictionary::takeEntries(const Entry* first, std::size_t count) {
  KeyedBody& body = KeyedBody::make(Tag::dictionary, count);
  NSDictionary made((Value(body)));
  velto::TextFilter filter;
  for (const Entry* each = first; each != first + count; ++each) {
    if (!each->key.isNil() && !each->value.isNil()) body.put(each->key, each->value, filter);
  }
  return made;
}

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
  for (const Entry& each : entries) requireEntry(each.key, each.value);
  return takeEntries(entries.data(), entries.size());
}

NSObject NSDictionary::objectForKey(const NSObject& key) const {
  return (*this)[key];
}

NSArray NSDictionary::allKeys() const {
  if (isNil()) return nil;
  return NSArray::arrayWithObjects(std::vector<NSObject>(begin(), end()));
}

NSArray NSDictionary::allValues() const {
  if (isNil()) return nil;
  std::vector<NSObject> values;
  values.reserve(count());
  const KeyTable entries = velto::tableOf(value());
  for (std::size_t slot = 0; slot < entries.slots(); ++slot) {
    if (!entries.key(slot).isNil()) values.push_back(entries.value(slot));
  }
  return NSArray::arrayWithObjects(std::move(values));
}

ObjectIterator NSDictionary::begin() const {
  return ObjectIterator(*this, ObjectIterator::Place::begin);
}
ObjectIterator NSDictionary::end() const {
  return ObjectIterator(*this, ObjectIterator::Place::end);
}

NSDictionary NSDictionary::copy() const {
  if (value().tag() != Tag::mutableDictionary) return velto::owned(*this).as<NSDictionary>();
  KeyedBody& body = KeyedBody::make(Tag::dictionary, count());
  NSDictionary made((Value(body)));
  const KeyTable entries = velto::tableOf(value());
  for (std::size_t slot = 0; slot < entries.slots(); ++slot) {
    if (!entries.key(slot).isNil()) body.put(entries.key(slot), entries.value(slot));
  }
  return made;
}

Class NSMutableDictionary::classObject() {
  static const Class& made = *new Class(velto::defineBuiltIn("NSMutableDictionary", NSDictionary::classObject()));
  return made;
}

NSMutableDictionary NSMutableDictionary::dictionary() {
  return dictionaryWithDictionary(nil);
}

NSMutableDictionary NSMutableDictionary::dictionaryWithDictionary(const NSDictionary& entries) {
  auto* const body = new MutableKeyedBody(Tag::mutableDictionary);
  NSMutableDictionary made((Value(*body)));
  body->copy(velto::tableOf(entries.value()));
  return made;
}

void NSMutableDictionary::setObject(const NSObject& object, const NSObject& forKey) {
  requireEntry(forKey, object);
  changing(*this).put(velto::owned(forKey), velto::owned(object));
}

void NSMutableDictionary::setObjectForKeyedSubscript(const NSObject& object, const NSObject& key) {
  if (object.isNil()) {
    removeObjectForKey(key);
  } else {
    setObject(object, key);
  }
}

void NSMutableDictionary::removeObjectForKey(const NSObject& key) {
  if (!isNil()) changing(*this).remove(key);
}

void NSMutableDictionary::removeAllObjects() {
  if (!isNil()) changing(*this).clear();
}
