#pragma once

#include <span>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>

#include "platform/foundation/Description.h"
#include "platform/foundation/GoingIn.h"

// How structs that describe themselves become dictionaries, and enumerations with names texts. Included by GoingIn.h.
namespace velto {

// Adds the entries of a dictionary but for those under the keys.
VELTO_EXPORT void addOthers(ObjectBuilder& builder, const NSObject& dictionary, std::span<const std::string_view> keys);

template <class T>
Value nameValue(T enumerator) {
  for (const NamedEnumerator<T>& each : enumeratorsOf<T>) {
    if (each.value == enumerator) return textValue(each.name);
  }
  return NSObject(static_cast<std::underlying_type_t<T>>(enumerator)).giveUp();
}

template <class T, FieldRole kRole, class Owner, class Member>
void addField(ObjectBuilder& builder, const T& from, const Field<kRole, Owner, Member>& field) {
  NSObject value(from.*field.member);
  if (value.isNil()) return;
  if constexpr (kRole == FieldRole::everythingElse) {
    addOthers(builder, value, keysOf<T>);
  } else {
    builder.add(NSObject(field.key));
    builder.add(std::move(value));
  }
}

template <class T>
Value structValue(const T& from) {
  ObjectBuilder builder(2 * keysOf<T>.size());
  std::apply([&](const auto&... field) { (..., addField(builder, from, field)); }, fieldsOf<T>);
  return builder.dictionary();
}

}  // namespace velto
