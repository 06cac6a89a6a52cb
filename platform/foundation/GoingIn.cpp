// Containers that are made of plain C++: the elements are gathered in an array, which grows if their number was not
// known, and is then the result or poured into one.
#include "platform/foundation/GoingIn.h"

#include <algorithm>
#include <span>
#include <utility>

#include "platform/foundation/ArrayBody.h"
#include "platform/foundation/KeyedBody.h"
#include "platform/foundation/NSData.h"
#include "platform/foundation/NSDate.h"
#include "platform/foundation/Walk.h"

namespace velto {
namespace {

constexpr std::size_t kFirstCapacity = 8;

ArrayBody& bodyOf(const NSObject& array) {
  return const_cast<ArrayBody&>(static_cast<const ArrayBody&>(array.value().body()));
}

// The elements of an array that nobody else has, to be moved from.
std::span<NSObject> partsOf(const NSObject& array) {
  const std::span<const NSObject> elements = bodyOf(array).elements();
  return {const_cast<NSObject*>(elements.data()), elements.size()};
}

NSObject arrayWithRoom(std::size_t capacity) {
  return NSObject::adopt(Value(ArrayBody::make(capacity)));
}

}  // namespace

ObjectBuilder::ObjectBuilder(std::size_t expected) : capacity_(expected), gathered_(arrayWithRoom(expected)) {}

void ObjectBuilder::add(NSObject element) {
  if (count_ == capacity_) moveToRoomFor(std::max(kFirstCapacity, 2 * capacity_));
  bodyOf(gathered_).add(element.giveUp());
  ++count_;
}

ObjectBuilder::~ObjectBuilder() {
  bodyOf(gathered_).fillUp(capacity_);
}

void ObjectBuilder::moveToRoomFor(std::size_t capacity) {
  NSObject moved = arrayWithRoom(capacity);
  for (NSObject& each : partsOf(gathered_)) bodyOf(moved).add(each.giveUp());
  bodyOf(gathered_).fillUp(capacity_);
  gathered_ = std::move(moved);
  capacity_ = capacity;
}

NSObject ObjectBuilder::take(const char* container) {
  if (count_ < capacity_) moveToRoomFor(count_);
  NSObject taken = std::exchange(gathered_, arrayWithRoom(0));
  count_ = capacity_ = 0;
  for (const NSObject& each : partsOf(taken)) {
    if (each.isNil()) raiseNilIn(container);
  }
  return taken;
}

Value ObjectBuilder::array() {
  return take("an array").giveUp();
}

Value ObjectBuilder::set() {
  const NSObject elements = take("a set");
  const std::span<NSObject> parts = partsOf(elements);
  KeyedBody& body = KeyedBody::make(Tag::set, parts.size());
  NSObject made = NSObject::adopt(Value(body));
  for (NSObject& each : parts) body.put(std::move(each), nil);
  return made.giveUp();
}

Value ObjectBuilder::dictionary() {
  const NSObject elements = take("a dictionary");
  const std::span<NSObject> parts = partsOf(elements);
  KeyedBody& body = KeyedBody::make(Tag::dictionary, parts.size() / 2);
  NSObject made = NSObject::adopt(Value(body));
  for (std::size_t at = 0; at + 1 < parts.size(); at += 2) body.put(std::move(parts[at]), std::move(parts[at + 1]));
  return made.giveUp();
}

Value dataValue(const void* bytes, std::size_t length) {
  return NSData::dataWithBytes(bytes, length).giveUp();
}

Value dateValue(double secondsSince1970) {
  return NSDate::dateWithTimeIntervalSince1970(secondsSince1970).giveUp();
}

}  // namespace velto
