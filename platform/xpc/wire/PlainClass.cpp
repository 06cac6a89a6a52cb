// The value classes as a small number each: encoder and decoder ask for the class of every object, so the question is a
// walk over a short table of addresses, made once.

#include "platform/xpc/wire/PlainClass.h"

#include <array>

#include "platform/foundation/Foundation.h"

namespace velto::wire {
namespace {

constexpr std::size_t kMutableClasses = 5;

struct Entry {
  const ClassBody* body;
  PlainClass plain;
};
using Table = std::array<Entry, kPlainClasses + kMutableClasses>;

template <class T>
Entry entry(PlainClass plain) {
  return {T::classObject().classBody(), plain};
}

// In the order of the enumeration, then the mutable ones.
const Table& table() noexcept {
  static const Table made{entry<NSString>(PlainClass::string),
                          entry<NSNumber>(PlainClass::number),
                          entry<NSDictionary>(PlainClass::dictionary),
                          entry<NSArray>(PlainClass::array),
                          entry<NSData>(PlainClass::data),
                          entry<NSDate>(PlainClass::date),
                          entry<NSNull>(PlainClass::null),
                          entry<NSSet>(PlainClass::set),
                          entry<NSUUID>(PlainClass::uuid),
                          entry<NSURL>(PlainClass::url),
                          entry<NSError>(PlainClass::error),
                          entry<NSMutableDictionary>(PlainClass::dictionary),
                          entry<NSMutableArray>(PlainClass::array),
                          entry<NSMutableString>(PlainClass::string),
                          entry<NSMutableData>(PlainClass::data),
                          entry<NSMutableSet>(PlainClass::set)};
  return made;
}

}  // namespace

const ClassBody& classBodyOf(PlainClass plain) noexcept {
  return *table()[static_cast<std::size_t>(plain)].body;
}

bool findPlainClass(const ClassBody& body, PlainClass& plain) noexcept {
  for (const Entry& each : table()) {
    if (each.body != &body) continue;
    plain = each.plain;
    return true;
  }
  return false;
}

}  // namespace velto::wire
