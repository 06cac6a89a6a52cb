#pragma once

#include <array>
#include <concepts>
#include <string_view>
#include <tuple>
#include <type_traits>

#include "platform/foundation/NSObject.h"

// Structs that travel as dictionaries: a line says which members they have.
//
//   struct Sample {
//     std::string name;
//     std::vector<double> values;
//     std::optional<std::string> unit;
//     VELTO_FIELDS(Sample, name, values, unit)
//   };
//
//   connection->sendMessage({{"op", "store"}, {"sample", sample}});   // or the struct alone, which is a dictionary
//   message.get<Sample>("sample")                                     // at the other end: it, or what is wrong where
//
// VELTO_FIELDS(Type, member…) stands in the struct, in a public part of it, and may name members that are private; or
// behind it in the same namespace, so that structs of others can be described. The struct has a default constructor and
// can be moved. VELTO_FIELDS_ONLY(Type, member…) is the same for a struct that refuses keys which are none of its own.
//
// A member travels under its name. In parentheses, other things can be said of it, one or several:
//
//   (member, "another key")
//   (member, velto::orDefault)          if there is nothing under the key, it is as a default-constructed struct has it
//   (member, velto::everythingElse)     a dictionary or a map: what no other member has, in both directions
//
// A std::optional may be missing. Every other member has to be there.
//
// VELTO_NAMES(Enumeration, enumerator…), behind the enumeration in the same namespace (for one inside of a class:
// behind the class), makes it travel as text. (enumerator, "another text") is possible here, too.
//
// docs/values.md says more.
namespace velto {

struct OrDefault {};
struct EverythingElse {};
inline constexpr OrDefault orDefault;
inline constexpr EverythingElse everythingElse;

template <class T>
concept FieldOption =
    std::same_as<T, OrDefault> || std::same_as<T, EverythingElse> || std::convertible_to<T, std::string_view>;

template <class... Options>
constexpr FieldRole roleAmong() {
  if ((... || std::same_as<Options, EverythingElse>)) return FieldRole::everythingElse;
  return (... || std::same_as<Options, OrDefault>) ? FieldRole::withDefault : FieldRole::required;
}

template <class Option>
constexpr std::string_view keyBy(std::string_view key, const Option& option) {
  if constexpr (std::convertible_to<Option, std::string_view>) {
    return option;
  } else {
    return key;
  }
}

// What VELTO_FIELDS makes of a member.
template <class Owner, class Member, FieldOption... Options>
constexpr auto field(std::string_view name, Member Owner::*member, Options... options) {
  constexpr FieldRole kRole = roleAmong<Options...>();
  constexpr PlainForm kForm = shape::formOf<Member>();
  static_assert(kForm != PlainForm::none, "VELTO_FIELDS: no value stands for the type of this member");
  if constexpr (kRole == FieldRole::everythingElse) {
    static_assert(sizeof...(Options) == 1, "VELTO_FIELDS: everything else has no key");
    static_assert(shape::HoldsEntries<Member>, "VELTO_FIELDS: everything else is a dictionary or a map");
  }
  ((name = keyBy(name, options)), ...);
  return Field<kRole, Owner, Member>{name, member};
}

}  // namespace velto

// The members are in the type of what the function answers: a class of its own, which sees what is private.
#define VELTO_DESCRIBE_(Others, Type, ...)                                                                       \
  [[maybe_unused]] constexpr auto veltoFields(::velto::DescriptionOf<Type>) {                                    \
    struct VeltoFields : ::velto::Others {                                                                       \
      static constexpr auto fields() { return ::std::make_tuple(VELTO_EACH_(VELTO_FIELD_, Type, __VA_ARGS__)); } \
    };                                                                                                           \
    return VeltoFields();                                                                                        \
  }
#define VELTO_NAME_(Type, ...)                                                                                   \
  [[maybe_unused]] constexpr auto veltoNames(::velto::DescriptionOf<Type>) {                                     \
    return ::std::to_array<::velto::NamedEnumerator<Type>>({VELTO_EACH_(VELTO_ENUMERATOR_, Type, __VA_ARGS__)}); \
  }

// The comma behind the arguments makes one of nothing where there would be none.
#define VELTO_FIELDS(...) VELTO_FIELDS_OF_(OthersIgnored, __VA_ARGS__, )
#define VELTO_FIELDS_ONLY(...) VELTO_FIELDS_OF_(OthersRefused, __VA_ARGS__, )
#define VELTO_FIELDS_OF_(...) VELTO_DESCRIBE_(__VA_ARGS__)
#define VELTO_NAMES(...) VELTO_NAMES_OF_(__VA_ARGS__, )
#define VELTO_NAMES_OF_(...) VELTO_NAME_(__VA_ARGS__)

// A member, or (member, option…).
#define VELTO_FIELD_(Type, item) VELTO_JOINED_(VELTO_FIELD_, VELTO_IS_IN_PARENTHESES_(item))(Type, item)
#define VELTO_FIELD_0(Type, member) ::velto::field(#member, &Type::member)
#define VELTO_FIELD_1(Type, item) VELTO_FIELD_WITH_(Type, VELTO_UNWRAPPED_ item)
#define VELTO_FIELD_WITH_(...) VELTO_FIELD_WITH_OPTIONS_(__VA_ARGS__)
#define VELTO_FIELD_WITH_OPTIONS_(Type, member, ...) ::velto::field(#member, &Type::member, __VA_ARGS__)

// An enumerator, or (enumerator, text).
#define VELTO_ENUMERATOR_(Type, item) VELTO_JOINED_(VELTO_ENUMERATOR_, VELTO_IS_IN_PARENTHESES_(item))(Type, item)
#define VELTO_ENUMERATOR_0(Type, enumerator) \
  { #enumerator, Type::enumerator }
#define VELTO_ENUMERATOR_1(Type, item) VELTO_ENUMERATOR_WITH_(Type, VELTO_UNWRAPPED_ item)
#define VELTO_ENUMERATOR_WITH_(...) VELTO_ENUMERATOR_WITH_TEXT_(__VA_ARGS__)
#define VELTO_ENUMERATOR_WITH_TEXT_(Type, enumerator, text) \
  { text, Type::enumerator }

// 1 or 0.
#define VELTO_IS_IN_PARENTHESES_(item) VELTO_SECOND_OF_(VELTO_IF_IN_PARENTHESES_ item, 0, )
#define VELTO_IF_IN_PARENTHESES_(...) , 1
#define VELTO_SECOND_OF_(...) VELTO_SECOND_(__VA_ARGS__)
#define VELTO_SECOND_(first, second, ...) second
#define VELTO_UNWRAPPED_(...) __VA_ARGS__
#define VELTO_JOINED_(first, second) VELTO_JOIN_(first, second)
#define VELTO_JOIN_(first, second) first##second

// macro(Type, item) for each item, with commas between them. (Compilers give up from some 250 on.)
#define VELTO_EACH_(macro, Type, ...) __VA_OPT__(VELTO_REPEATED_(VELTO_STEP_(macro, Type, __VA_ARGS__)))
#define VELTO_STEP_(macro, Type, item, ...) \
  macro(Type, item) __VA_OPT__(, VELTO_NEXT_STEP_ VELTO_PARENTHESES_(macro, Type, __VA_ARGS__))
#define VELTO_NEXT_STEP_() VELTO_STEP_
#define VELTO_PARENTHESES_ ()
#define VELTO_REPEATED_(...) VELTO_REPEATED_64_(VELTO_REPEATED_64_(VELTO_REPEATED_64_(VELTO_REPEATED_64_(__VA_ARGS__))))
#define VELTO_REPEATED_64_(...) \
  VELTO_REPEATED_16_(VELTO_REPEATED_16_(VELTO_REPEATED_16_(VELTO_REPEATED_16_(__VA_ARGS__))))
#define VELTO_REPEATED_16_(...) VELTO_REPEATED_4_(VELTO_REPEATED_4_(VELTO_REPEATED_4_(VELTO_REPEATED_4_(__VA_ARGS__))))
#define VELTO_REPEATED_4_(...) VELTO_SCANNED_(VELTO_SCANNED_(VELTO_SCANNED_(VELTO_SCANNED_(__VA_ARGS__))))
#define VELTO_SCANNED_(...) __VA_ARGS__
