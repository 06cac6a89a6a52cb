#pragma once

#include <compare>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <iterator>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>

#include "platform/foundation/Description.h"

class NSObject;
class NSString;
class NSNumber;
class NSArray;
class NSDictionary;
class NSSet;
class NSData;
class NSDate;

// Which types of plain C++ stand for a value, told by their shape: no header of the standard library's containers is
// needed for it, and containers of others are known as well.
namespace velto {

// The kind of value that a type stands for.
enum class PlainForm {
  none,
  object,      // what NSObject has constructors of its own for, every handle, and what converts to one by itself
  number,      // bool, integers, floating point
  text,        // whatever converts to a string
  enumerator,  // its underlying integer, or its name
  interval,    // std::chrono::duration: seconds
  date,        // std::chrono::time_point of the system's clock
  optional,
  bytes,  // a range of std::uint8_t or std::byte
  dictionary,
  set,
  array,  // any other range
  tuple,
  structure,  // a dictionary of its members
};

namespace shape {

using std::begin;
using std::end;

template <class T>
auto beginOf(T& range) -> decltype(begin(range));
template <class T>
auto endOf(T& range) -> decltype(end(range));
template <class T>
using IteratorOf = decltype(shape::beginOf(std::declval<std::remove_reference_t<T>&>()));
template <class T>
using ElementOf = std::iter_value_t<IteratorOf<T>>;

template <class T>
concept Complete = requires {
  sizeof(T);
};
template <class T>
concept Range = requires(T& range) {
  requires std::input_iterator<decltype(shape::beginOf(range))>;
  requires std::sentinel_for<decltype(shape::endOf(range)), decltype(shape::beginOf(range))>;
};
template <class T>
concept ByteRange = Range<T> &&(std::same_as<ElementOf<T>, std::uint8_t> || std::same_as<ElementOf<T>, std::byte>);
// Of text in an encoding that is not known here, or of itself, as a path is.
template <class T>
concept StrangeRange = std::same_as<ElementOf<T>, wchar_t> || std::same_as < ElementOf<T>,
char8_t > || std::same_as<ElementOf<T>, char16_t> || std::same_as<ElementOf<T>, char32_t> ||
    std::same_as<ElementOf<T>, std::remove_cv_t<T>>;
// Maps and sets whose keys are distinct: those of others would be lost.
template <class T>
concept Map = Range<T> && requires(T& map, const typename std::remove_cv_t<T>::key_type& key) {
  typename std::remove_cv_t<T>::mapped_type;
  map.at(key);
};
template <class T>
concept Set = Range<T> && !requires {
  typename std::remove_cv_t<T>::mapped_type;
}
&&requires(std::remove_cv_t<T>& set, const typename std::remove_cv_t<T>::key_type& key) {
  { set.insert(key).second } -> std::convertible_to<bool>;
};
template <class T>
concept Optional = requires(T& value) {
  typename T::value_type;
  { value.has_value() } -> std::same_as<bool>;
  *value;
}
&&!requires(T & value) {
  value.error();
};
template <class T>
concept Duration = requires(const T& value) {
  typename T::rep;
  T::period::num;
  T::period::den;
  { value.count() } -> std::convertible_to<typename T::rep>;
};
template <class T>
concept SystemTime = requires(const T& value) {
  typename T::duration;
  value.time_since_epoch();
  T::clock::to_time_t(typename T::clock::time_point());
};
template <class T>
concept TupleLike = requires {
  { std::tuple_size<std::remove_cv_t<T>>::value } -> std::convertible_to<std::size_t>;
};

// Whether a class says itself which value it stands for.
template <class T>
concept ConvertsByItself = requires(T& value) {
  value.operator NSObject();
}
|| requires(T& value) {
  value.operator NSString();
}
|| requires(T& value) {
  value.operator NSNumber();
}
|| requires(T& value) {
  value.operator NSArray();
}
|| requires(T& value) {
  value.operator NSDictionary();
}
|| requires(T& value) {
  value.operator NSSet();
}
|| requires(T& value) {
  value.operator NSData();
}
|| requires(T& value) {
  value.operator NSDate();
};
template <class T>
concept TextLike = std::convertible_to<T&, std::string_view> || std::convertible_to<T&, std::string> ||
    std::convertible_to<T&, const char*>;

template <class T>
inline constexpr bool isText = std::same_as<T, std::string> || std::same_as<T, std::string_view> ||
                               std::same_as<T, const char*> || std::same_as<T, char*>;
template <class T>
inline constexpr bool isCharacters = false;
template <std::size_t kLength>
inline constexpr bool isCharacters<char[kLength]> = true;
template <>
inline constexpr bool isCharacters<char[]> = true;

template <class T>
constexpr PlainForm formOfRange() {
  if constexpr (StrangeRange<T>) {
    return PlainForm::none;
  } else if constexpr (Map<T>) {
    return PlainForm::dictionary;
  } else if constexpr (Set<T>) {
    return PlainForm::set;
  } else {
    return ByteRange<T> ? PlainForm::bytes : PlainForm::array;
  }
}

template <class T>
constexpr PlainForm formOfClass() {
  if constexpr (ConvertsByItself<T>) {
    return PlainForm::object;
  } else if constexpr (Described<std::remove_cv_t<T>>) {
    return PlainForm::structure;
  } else if constexpr (TextLike<T>) {
    return PlainForm::text;
  } else if constexpr (Duration<T>) {
    return PlainForm::interval;
  } else if constexpr (SystemTime<T>) {
    return PlainForm::date;
  } else if constexpr (Range<T>) {
    return formOfRange<T>();
  } else if constexpr (Optional<T>) {
    return PlainForm::optional;
  } else {
    return TupleLike<T> ? PlainForm::tuple : PlainForm::none;
  }
}

template <class T>
constexpr bool isObject() {
  if constexpr (Complete<T> && std::is_class_v<T>) {
    return isText<T> || std::derived_from<T, NSObject>;
  } else {
    return isText<T> || isCharacters<T> || std::same_as<T, std::nullptr_t>;
  }
}

// `T` is no reference; a const range counts if it can be walked as const.
template <class T>
constexpr PlainForm formOf() {
  using Bare = std::remove_cv_t<T>;
  if constexpr (std::is_arithmetic_v<Bare>) {
    return PlainForm::number;
  } else if constexpr (isObject<Bare>()) {
    return PlainForm::object;
  } else if constexpr (std::is_enum_v<Bare>) {
    return PlainForm::enumerator;
  } else if constexpr (std::is_bounded_array_v<Bare>) {
    return formOfRange<T>();
  } else if constexpr (Complete<Bare> && std::is_class_v<Bare> && !std::is_volatile_v<T>) {
    return formOfClass<T>();
  } else {
    return PlainForm::none;
  }
}

// What can have the entries of a dictionary that are nobody else's.
template <class T>
concept HoldsEntries = std::derived_from<T, NSDictionary> || formOf<T>()
== PlainForm::dictionary;

// The structs that a question has come through: of one that holds itself, in a vector, it has been asked already.
template <class... Structs>
struct Within {};
template <class T, class Outer>
inline constexpr bool isWithin = false;
template <class T, class... Structs>
inline constexpr bool isWithin<T, Within<Structs...>> = (... || std::same_as<T, Structs>);

template <class T, class Outer = Within<>>
constexpr bool goesIn();

template <class T, class Outer, std::size_t... kIndex>
constexpr bool elementsGoIn(std::index_sequence<kIndex...>) {
  return (... && goesIn<std::tuple_element_t<kIndex, std::remove_cv_t<T>>, Outer>());
}

template <class T, class... Structs, class... Fields>
constexpr bool fieldsGoIn(Within<Structs...>, const std::tuple<Fields...>&) {
  return (... && goesIn<const typename Fields::Type, Within<Structs..., T>>());
}

template <class T, class Outer>
constexpr bool structGoesIn() {
  if constexpr (isWithin<T, Outer>) {
    return true;
  } else {
    return fieldsGoIn<T>(Outer(), fieldsOf<T>);
  }
}

template <class T, class Outer>
constexpr bool goesIn() {
  using Bare = std::remove_cv_t<T>;
  constexpr PlainForm kForm = formOf<T>();
  if constexpr (kForm == PlainForm::array) {
    return goesIn<ElementOf<T>, Outer>();
  } else if constexpr (kForm == PlainForm::set) {
    return goesIn<typename Bare::key_type, Outer>();
  } else if constexpr (kForm == PlainForm::dictionary) {
    return goesIn<typename Bare::key_type, Outer>() && goesIn<typename Bare::mapped_type, Outer>();
  } else if constexpr (kForm == PlainForm::optional) {
    return goesIn<typename Bare::value_type, Outer>();
  } else if constexpr (kForm == PlainForm::tuple) {
    return elementsGoIn<T, Outer>(std::make_index_sequence<std::tuple_size_v<Bare>>());
  } else if constexpr (kForm == PlainForm::structure) {
    return structGoesIn<Bare, Outer>();
  } else {
    return kForm != PlainForm::none;
  }
}

// Containers that can be filled: of a fixed number of elements, or one by one.
template <class T>
concept FixedRange = TupleLike<T> && requires(T& range) {
  { *range.data() } -> std::same_as<ElementOf<T>&>;
};
template <class T>
concept GrowingRange = requires(T& range, ElementOf<T> element) {
  range.push_back(std::move(element));
};

template <class T, class Outer = Within<>>
constexpr bool comesOut();

template <class T, class Outer, std::size_t... kIndex>
constexpr bool elementsComeOut(std::index_sequence<kIndex...>) {
  return (... && comesOut<std::tuple_element_t<kIndex, T>, Outer>());
}

template <class T, class... Structs, class... Fields>
constexpr bool fieldsComeOut(Within<Structs...>, const std::tuple<Fields...>&) {
  return (... && comesOut<typename Fields::Type, Within<Structs..., T>>());
}

template <class T, class Outer>
constexpr bool structComesOut() {
  if constexpr (isWithin<T, Outer>) {
    return true;
  } else {
    return fieldsComeOut<T>(Outer(), fieldsOf<T>);
  }
}

template <class T, class Outer>
constexpr bool partsComeOut() {
  constexpr PlainForm kForm = formOf<T>();
  if constexpr (kForm == PlainForm::interval) {
    return std::is_arithmetic_v<typename T::rep>;
  } else if constexpr (kForm == PlainForm::date) {
    return partsComeOut<typename T::duration, Outer>();
  } else if constexpr (kForm == PlainForm::optional) {
    return comesOut<typename T::value_type, Outer>();
  } else if constexpr (kForm == PlainForm::dictionary) {
    return comesOut<typename T::key_type, Outer>() && comesOut<typename T::mapped_type, Outer>();
  } else if constexpr (kForm == PlainForm::set) {
    return comesOut<typename T::key_type, Outer>();
  } else if constexpr (kForm == PlainForm::array || kForm == PlainForm::bytes) {
    return (FixedRange<T> || GrowingRange<T>)&&comesOut<ElementOf<T>, Outer>();
  } else if constexpr (kForm == PlainForm::tuple) {
    return elementsComeOut<T, Outer>(std::make_index_sequence<std::tuple_size_v<T>>());
  } else if constexpr (kForm == PlainForm::structure) {
    return structComesOut<T, Outer>();
  } else {
    return kForm == PlainForm::number || kForm == PlainForm::enumerator;
  }
}

template <class T>
concept CanBeFilled = Complete<T> && !std::is_const_v<T> && std::default_initializable<T> && std::movable<T>;

template <class T, class Outer>
constexpr bool comesOut() {
  if constexpr (!CanBeFilled<T>) {
    return false;
  } else if constexpr (std::derived_from<T, NSObject>) {
    return requires {
      T::classObject();
    };
  } else {
    return std::same_as<T, std::string> || partsComeOut<T, Outer>();
  }
}

}  // namespace shape

// What becomes an object where an object is expected: bool, numbers, text, handles, enumerators, durations, points in
// time, structs that describe themselves (Fields.h), and optionals, ranges, maps, sets, pairs and tuples of what does.
// Pointers do not, but for the text at a `const char*`.
template <class T>
concept BecomesObject = shape::goesIn<std::remove_reference_t<T>>();

// What an object can be asked for by NSObject::to() and get(): bool, numbers, std::string, handles, enumerators,
// durations, points in time, structs that describe themselves, and optionals, containers, pairs and tuples of what can
// be.
template <class T>
concept ComesOutOfObject = shape::comesOut<T>();

// What becomes an object, without numbers, strings and handles, for which there are constructors of their own.
template <class T>
concept PlainValue = BecomesObject<T> && shape::formOf<std::remove_reference_t<T>>()
!= PlainForm::object&& shape::formOf<std::remove_reference_t<T>>() != PlainForm::number;
// By what it becomes.
template <class T>
concept BecomesArray = BecomesObject<T> &&(shape::formOf<std::remove_reference_t<T>>() == PlainForm::array ||
                                           shape::formOf<std::remove_reference_t<T>>() == PlainForm::tuple);
template <class T>
concept BecomesDictionary = BecomesObject<T> &&(shape::formOf<std::remove_reference_t<T>>() == PlainForm::dictionary ||
                                                shape::formOf<std::remove_reference_t<T>>() == PlainForm::structure);
template <class T>
concept BecomesSet = BecomesObject<T> && shape::formOf<std::remove_reference_t<T>>()
== PlainForm::set;
template <class T>
concept BecomesData = BecomesObject<T> && shape::formOf<std::remove_reference_t<T>>()
== PlainForm::bytes;
template <class T>
concept BecomesDate = BecomesObject<T> && shape::formOf<std::remove_reference_t<T>>()
== PlainForm::date;

}  // namespace velto
