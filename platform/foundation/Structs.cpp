// What structs have in common: where the entries of their fields lie in a dictionary, and which it has beside them.

#include <algorithm>
#include <functional>
#include <vector>

#include "platform/foundation/KeyedBody.h"
#include "platform/foundation/NSDictionary.h"
#include "platform/foundation/NSString.h"
#include "platform/foundation/StringBody.h"
#include "platform/foundation/StructIn.h"
#include "platform/foundation/StructOut.h"

namespace velto {
namespace {

void find(const KeyTable& table, std::span<const std::string_view> keys, std::span<const NSObject*> places) {
  for (std::size_t at = 0; at < keys.size(); ++at) places[at] = table.findText(keys[at]);
}

// Calls back for each entry that is in none of the places, until that answers false: one walk along both.
template <class Callback>
void walkBeside(const KeyTable& table, std::span<const NSObject*> places, const Callback& callback) {
  std::sort(places.begin(), places.end(), std::less<>());
  auto place = std::find_if(places.begin(), places.end(), [](const NSObject* each) { return each != nullptr; });
  for (std::size_t slot = 0; slot < table.slots(); ++slot) {
    const NSObject& key = table.key(slot);
    if (place != places.end() && *place == &key) {
      ++place;
    } else if (!key.isNil() && !callback(key, table.value(slot))) {
      return;
    }
  }
}

std::size_t countBeside(const NSObject& dictionary, std::span<const NSObject*> places) {
  const auto found = std::count_if(places.begin(), places.end(), [](const NSObject* each) { return each != nullptr; });
  return entryCountOf(dictionary.value()) - static_cast<std::size_t>(found);
}

}  // namespace

void addOthers(ObjectBuilder& builder, const NSObject& dictionary, std::span<const std::string_view> keys) {
  const KeyTable table = tableOf(dictionary.value());
  std::vector<const NSObject*> places(keys.size());
  find(table, keys, places);
  walkBeside(table, places, [&builder](const NSObject& key, const NSObject& value) {
    builder.add(key);
    builder.add(value);
    return true;
  });
}

bool findEntries(const NSObject& from, std::span<const std::string_view> keys, std::span<const NSObject*> places,
                 Mismatch& why) {
  if (isDictionary(from.value().tag())) {
    find(tableOf(from.value()), keys, places);
    return true;
  }
  why.isNot(from, "a dictionary");
  return false;
}

NSObject entriesBeside(const NSObject& dictionary, std::span<const NSObject*> places, bool canChange) {
  const std::size_t count = countBeside(dictionary, places);
  if (count == 0) return nil;
  KeyedBody& body = KeyedBody::make(Tag::dictionary, count);
  NSObject made = NSObject::adopt(Value(body));
  walkBeside(tableOf(dictionary.value()), places, [&body](const NSObject& key, const NSObject& value) {
    body.putNew(key, value);
    return true;
  });
  return canChange ? NSMutableDictionary::dictionaryWithDictionary(made.as<NSDictionary>()) : made;
}

bool hasNoneBeside(const NSObject& dictionary, std::span<const NSObject*> places, Mismatch& why) {
  if (countBeside(dictionary, places) == 0) return true;
  why.isNoField();
  walkBeside(tableOf(dictionary.value()), places, [&why](const NSObject& key, const NSObject&) {
    why.underKey(key);
    return false;
  });
  return false;
}

std::size_t indexOfName(const NSObject& from, std::span<const std::string_view> names, Mismatch* why) {
  if (!from.is<NSString>()) {
    if (why != nullptr) why->isNot(from, "a string");
    return names.size();
  }
  const auto found = std::find(names.begin(), names.end(), textOf(from.value()));
  if (found == names.end() && why != nullptr) why->isNoneOf(from, names);
  return static_cast<std::size_t>(found - names.begin());
}

}  // namespace velto
