#pragma once

#include <cstddef>
#include <initializer_list>
#include <utility>

#include "platform/foundation/NSArray.h"
#include "platform/foundation/NSObject.h"
#include "platform/foundation/NSString.h"

namespace velto {

// An entry of a dictionary that is written in braces, whose value may be in braces itself:
//
//   {"terms", {1, 2, 3.5}}              an array: two values or more
//   {"point", {{"x", 1}, {"y", 2}}}     a dictionary: two pairs or more, whose keys are texts
//
// Braces around one value are that value, here as everywhere. So an array or a dictionary of one is written out,
// NSArray{1} or NSDictionary{{"x", 1}}, and what might be read in two ways does not compile: braces around a single
// pair, pairs of numbers, braces inside of an array.
template <class Key>
class BracedEntry {
 public:
  BracedEntry(Key key, NSObject value) : key_(std::move(key)), value_(std::move(value)) {}
  template <std::size_t kCount>
  requires(kCount >= 2) BracedEntry(Key key, const NSObject (&elements)[kCount])
      : key_(std::move(key)), value_(arrayOf(elements, kCount)) {}
  BracedEntry(Key key, std::initializer_list<BracedEntry<NSString>> entries)
      : key_(std::move(key)), value_(dictionaryOf(entries)) {}

  // An entry without a key or without a value is left out.
  void addTo(ObjectBuilder& builder) const {
    if (key_.isNil() || value_.isNil()) return;
    builder.add(key_);
    builder.add(value_);
  }

 private:
  static NSObject arrayOf(const NSObject* elements, std::size_t count) {
    ObjectBuilder builder(count);
    for (std::size_t at = 0; at < count; ++at) {
      if (!elements[at].isNil()) builder.add(elements[at]);
    }
    return NSObject::adopt(builder.array());
  }
  // Empty braces are nil.
  static NSObject dictionaryOf(std::initializer_list<BracedEntry<NSString>> entries);

  Key key_;
  NSObject value_;
};

template <class Key>
[[nodiscard]] Value bracedDictionary(std::initializer_list<BracedEntry<Key>> entries) {
  ObjectBuilder builder(2 * entries.size());
  for (const BracedEntry<Key>& each : entries) each.addTo(builder);
  return builder.dictionary();
}

template <class Key>
NSObject BracedEntry<Key>::dictionaryOf(std::initializer_list<BracedEntry<NSString>> entries) {
  return entries.size() > 0 ? NSObject::adopt(bracedDictionary(entries)) : NSObject();
}

}  // namespace velto
