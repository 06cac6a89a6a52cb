#pragma once

#include <array>
#include <cstddef>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>

// What a struct says of itself by VELTO_FIELDS, and an enumeration by VELTO_NAMES (Fields.h has both), as constants.
// Both define a function that is found by the type that it is about, as a member or by argument-dependent lookup.
namespace velto {

// The argument by which a description is found.
template <class T>
struct DescriptionOf {};

enum class FieldRole {
  required,
  withDefault,     // keeps what a default-constructed struct has if there is nothing under its key
  everythingElse,  // has the entries that no other field has
};

// A member, and the key that it is found under.
template <FieldRole kRole, class Owner, class Member>
struct Field {
  using Type = Member;
  static constexpr FieldRole kFieldRole = kRole;

  std::string_view key;
  Member Owner::*member;
};

// What becomes of keys that no field has: the base of a description.
struct OthersIgnored {
  static constexpr bool kRefusesOthers = false;
};
struct OthersRefused {
  static constexpr bool kRefusesOthers = true;
};

template <class Enumeration>
struct NamedEnumerator {
  std::string_view name;
  Enumeration value;
};

// Of types without const and volatile. A description that is inherited is of the base only, and does not count.
template <class T>
concept DescribedInside = requires(T& value) {
  value.veltoFields(DescriptionOf<T>());
};
template <class T>
concept DescribedBeside = requires {
  veltoFields(DescriptionOf<T>());
};
template <class T>
concept Described = DescribedInside<T> || DescribedBeside<T>;
template <class T>
concept Named = std::is_enum_v<T> && requires {
  veltoNames(DescriptionOf<T>());
};

template <class T>
constexpr auto findDescription(T& value) {
  if constexpr (DescribedInside<T>) {
    return value.veltoFields(DescriptionOf<T>());
  } else {
    return veltoFields(DescriptionOf<T>());
  }
}
// Never called: the answer is in the type, so that no object is needed for it.
template <class T>
using FoundDescription = decltype(findDescription(std::declval<T&>()));

template <std::size_t kCount>
constexpr bool areDistinct(const std::array<std::string_view, kCount>& texts) {
  for (std::size_t at = 0; at < kCount; ++at) {
    for (std::size_t before = 0; before < at; ++before) {
      if (texts[before] == texts[at]) return false;
    }
  }
  return true;
}

template <class... Fields>
inline constexpr std::size_t namedFieldsAmong = (std::size_t{0} + ... +
                                                 (Fields::kFieldRole == FieldRole::everythingElse ? 0 : 1));

// In the order of the fields, without the one that has everything else.
template <class... Fields>
constexpr auto keysAmong(const std::tuple<Fields...>& fields) {
  std::array<std::string_view, namedFieldsAmong<Fields...>> keys{};
  std::size_t count = 0;
  const auto add = [&keys, &count]<FieldRole kRole, class O, class M>(const Field<kRole, O, M>& field) {
    if constexpr (kRole != FieldRole::everythingElse) keys[count++] = field.key;
  };
  std::apply([&add](const auto&... field) { (..., add(field)); }, fields);
  return keys;
}

template <class T>
inline constexpr bool refusesOthers = FoundDescription<T>::kRefusesOthers;

template <class T>
constexpr auto checkedFields() {
  constexpr auto kFields = FoundDescription<T>::fields();
  constexpr auto kKeys = keysAmong(kFields);
  constexpr std::size_t kWithoutKey = std::tuple_size_v<decltype(kFields)> - kKeys.size();
  static_assert(areDistinct(kKeys), "VELTO_FIELDS: two members have the same key");
  static_assert(kWithoutKey <= 1, "VELTO_FIELDS: two members have everything else");
  static_assert(kWithoutKey == 0 || !refusesOthers<T>, "VELTO_FIELDS_ONLY: everything else is refused");
  return kFields;
}

// A tuple of Field, and their keys without that of everything else.
template <Described T>
inline constexpr auto fieldsOf = checkedFields<T>();
template <Described T>
inline constexpr auto keysOf = keysAmong(fieldsOf<T>);

template <class Enumeration, std::size_t kCount>
constexpr auto namesAmong(const std::array<NamedEnumerator<Enumeration>, kCount>& enumerators) {
  std::array<std::string_view, kCount> names{};
  for (std::size_t at = 0; at < kCount; ++at) names[at] = enumerators[at].name;
  return names;
}

template <class T>
constexpr auto checkedEnumerators() {
  constexpr auto kEnumerators = veltoNames(DescriptionOf<T>());
  static_assert(areDistinct(namesAmong(kEnumerators)), "VELTO_NAMES: two enumerators have the same name");
  return kEnumerators;
}

// Arrays of NamedEnumerator, and of the names alone.
template <Named T>
inline constexpr auto enumeratorsOf = checkedEnumerators<T>();
template <Named T>
inline constexpr auto namesOf = namesAmong(enumeratorsOf<T>);

}  // namespace velto
