#pragma once

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

#include "platform/foundation/Lookup.h"
#include "platform/foundation/NSObject.h"
#include "platform/foundation/PlainTypes.h"

// How values become plain C++. Included by NSObject.h, of whose to() and get() this is the inside.
namespace velto {

// Why a value did not come out, and where inside of it. Told from the inside to the outside.
class VELTO_EXPORT Mismatch {
 public:
  // The value is of another kind, which is told; or nil, and then there is nothing. `wanted` as in "a number".
  void isNot(const NSObject& found, std::string_view wanted);
  void isNotOf(const NSObject& found, const NSObject& wantedClass);
  // "is 2.5, not a whole number"
  void isOnly(const NSObject& found, std::string_view wanted);
  // "has 3 bytes, not 4"
  void has(std::size_t count, std::string_view what, std::size_t wanted);
  void isOutside(const NSObject& found, std::int64_t minimum, std::uint64_t maximum);
  void hasEqualParts(std::string_view parts);
  // "is blue, not one of red, green"
  void isNoneOf(const NSObject& found, std::span<const std::string_view> names);
  void isNoField();
  // What was told is about an element of an array, or about the value under a key.
  void inElement(std::size_t index);
  void underKey(const NSObject& key);

  // "a.b[2]: is a string, not a number", of a value that is found at `place`.
  std::string text(std::string_view place) const;

  // One struct in another, and out again: false, and told, if it is one too many.
  bool enterStruct();
  void leaveStruct() noexcept { --structs_; }

 private:
  std::size_t structs_ = 0;
  std::string place_;
  std::string reason_;
};

// The places of a container's elements or keys: one after another, or each with its value behind it. Those that hold
// nil are empty. Other kinds have none.
struct Slots {
  const NSObject* first = nullptr;
  std::size_t count = 0;
  std::size_t stride = 1;
};
[[nodiscard]] VELTO_EXPORT Slots slotsOf(const NSObject& container) noexcept;
[[nodiscard]] VELTO_EXPORT std::string_view viewOfData(const NSObject& data) noexcept;
[[nodiscard]] VELTO_EXPORT double secondsOfDate(const NSObject& date);
// The whole number of ticks of so many seconds each that is meant by `seconds`, if there is one within a microsecond.
[[nodiscard]] VELTO_EXPORT bool ticksIn(double seconds, std::intmax_t numerator, std::intmax_t denominator,
                                        std::int64_t& ticks) noexcept;

// Where a path leads to.
struct PathEnd {
  NSObject value;     // nil if there is nothing
  std::string place;  // as much of the path as there was something for, and what was missing then
  std::string error;  // of a path that is none, or leads through what contains nothing; else ""
};
[[nodiscard]] VELTO_EXPORT PathEnd followPath(const NSObject& from, std::string_view path);

// Writes what the value is to `into`, and returns true; else says why it is not that, if somebody wants to know.
template <class T>
[[nodiscard]] bool comeOut(const NSObject& from, T& into, Mismatch* why);
// StructOut.h has these two.
template <class T>
[[nodiscard]] bool structOut(const NSObject& from, T& into, Mismatch* why);
template <class T>
[[nodiscard]] bool nameOut(const NSObject& from, T& into, Mismatch* why);

inline bool isOfNumbers(const NSObject& value) noexcept {
  return value.value().tag() >= Tag::signedInteger && value.value().tag() <= Tag::floatingPoint;
}

template <class Number>
constexpr bool isNegative([[maybe_unused]] Number number) noexcept {
  if constexpr (std::is_signed_v<Number>) {
    return number < 0;
  } else {
    return false;
  }
}

// Whether `into` is exactly `from` then.
template <class To, class From>
bool convertInteger(From from, To& into) noexcept {
  into = static_cast<To>(from);
  return static_cast<From>(into) == from && isNegative(into) == isNegative(from);
}

template <class To>
bool convertFloating(double from, To& into) noexcept {
  using Limits = std::numeric_limits<To>;
  const double pastMaximum = std::ldexp(1.0, Limits::digits);
  const double minimum = Limits::is_signed ? -pastMaximum : 0;
  if (!(from >= minimum && from < pastMaximum) || std::trunc(from) != from) return false;
  into = static_cast<To>(from);
  return true;
}

template <class To>
bool integerOut(const NSObject& from, To& into, Mismatch* why) {
  const Value& value = from.value();
  bool fits = false;
  if (value.tag() == Tag::floatingPoint) {
    const auto number = std::bit_cast<double>(value.bits());
    fits = convertFloating(number, into);
    if (!fits && std::trunc(number) != number) {
      if (why != nullptr) why->isOnly(from, "a whole number");
      return false;
    }
  } else if (value.tag() == Tag::signedInteger) {
    fits = convertInteger(static_cast<std::int64_t>(value.bits()), into);
  } else {
    fits = convertInteger(value.bits(), into);
  }
  using Limits = std::numeric_limits<To>;
  if (!fits && why != nullptr) {
    why->isOutside(from, static_cast<std::int64_t>(Limits::min()), static_cast<std::uint64_t>(Limits::max()));
  }
  return fits;
}

// A double is rounded to a float; an integer must be met exactly.
template <class To>
bool floatingOut(const NSObject& from, To& into, Mismatch* why) {
  const Value& value = from.value();
  bool fits = false;
  if (value.tag() == Tag::floatingPoint) {
    const auto number = std::bit_cast<double>(value.bits());
    into = static_cast<To>(number);
    fits = std::isinf(into) == std::isinf(number);
  } else if (value.tag() == Tag::signedInteger) {
    const auto number = static_cast<std::int64_t>(value.bits());
    std::int64_t back = 0;
    into = static_cast<To>(number);
    fits = convertFloating(static_cast<double>(into), back) && back == number;
  } else {
    std::uint64_t back = 0;
    into = static_cast<To>(value.bits());
    fits = convertFloating(static_cast<double>(into), back) && back == value.bits();
  }
  if (!fits && why != nullptr) why->isOnly(from, "a number that the type can hold");
  return fits;
}

template <class T>
bool numberOut(const NSObject& from, T& into, Mismatch* why) {
  if constexpr (std::same_as<T, bool>) {
    if (from.value().tag() == Tag::boolean) {
      into = from.value().bits() != 0;
      return true;
    }
    if (why != nullptr) why->isNot(from, "a bool");
    return false;
  } else {
    if (isOfNumbers(from)) {
      if constexpr (std::floating_point<T>) {
        return floatingOut(from, into, why);
      } else {
        return integerOut(from, into, why);
      }
    }
    if (why != nullptr) why->isNot(from, "a number");
    return false;
  }
}

template <class Duration>
bool durationOut(double seconds, Duration& into) {
  using Count = typename Duration::rep;
  using Period = typename Duration::period;
  if constexpr (std::floating_point<Count>) {
    into = Duration(static_cast<Count>(seconds * static_cast<double>(Period::den) / static_cast<double>(Period::num)));
    return true;
  } else {
    std::int64_t ticks = 0;
    Count count{};
    if (!ticksIn(seconds, Period::num, Period::den, ticks) || !convertInteger(ticks, count)) return false;
    into = Duration(count);
    return true;
  }
}

template <class T>
bool intervalOut(const NSObject& from, T& into, Mismatch* why) {
  if (!isOfNumbers(from)) {
    if (why != nullptr) why->isNot(from, "a number of seconds");
    return false;
  }
  if (durationOut(from.doubleValue(), into)) return true;
  if (why != nullptr) why->isOnly(from, "a whole number of ticks that the type can hold");
  return false;
}

template <class T>
bool dateOut(const NSObject& from, T& into, Mismatch* why) {
  if (from.value().tag() != Tag::date) {
    if (why != nullptr) why->isNot(from, "a date");
    return false;
  }
  typename T::duration since1970{};
  if (durationOut(secondsOfDate(from), since1970)) {
    into = T(since1970);
    return true;
  }
  if (why != nullptr) why->isOnly(from, "a whole number of ticks that the type can hold");
  return false;
}

template <class T>
bool bytesOut(const NSObject& from, T& into, Mismatch* why) {
  if (from.value().tag() != Tag::data && from.value().tag() != Tag::mutableData) {
    if (why != nullptr) why->isNot(from, "data");
    return false;
  }
  const std::string_view bytes = viewOfData(from);
  if constexpr (shape::FixedRange<T>) {
    if (bytes.size() != std::size(into)) {
      if (why != nullptr) why->has(bytes.size(), "bytes", std::size(into));
      return false;
    }
    if (!bytes.empty()) std::memcpy(into.data(), bytes.data(), bytes.size());
  } else if constexpr (requires { into.resize(bytes.size()), into.data(); }) {
    into.resize(bytes.size());
    if (!bytes.empty()) std::memcpy(into.data(), bytes.data(), bytes.size());
  } else {
    for (const char each : bytes) into.push_back(static_cast<shape::ElementOf<T>>(each));
  }
  return true;
}

template <class T>
bool elementOut(const NSObject& from, std::size_t index, T& into, Mismatch* why) {
  if (comeOut(from, into, why)) return true;
  if (why != nullptr) why->inElement(index);
  return false;
}

// False, and said why, unless it is an array with the number of elements that the type has.
inline bool isArrayOf(const NSObject& from, std::size_t count, Mismatch* why) {
  const bool isArray = from.value().tag() == Tag::array || from.value().tag() == Tag::mutableArray;
  if (isArray && slotsOf(from).count == count) return true;
  if (why != nullptr) isArray ? why->has(slotsOf(from).count, "elements", count) : why->isNot(from, "an array");
  return false;
}

// Memory for so many elements before any has come out: no more than what they have come in takes, or little.
template <class T>
std::size_t countToReserve(std::size_t count) {
  constexpr std::size_t kLittleBytes = 4096;
  return std::min(count, std::max(count * sizeof(NSObject), kLittleBytes) / sizeof(shape::ElementOf<T>));
}

template <class T>
bool arrayOut(const NSObject& from, T& into, Mismatch* why) {
  const Slots elements = slotsOf(from);
  if constexpr (shape::FixedRange<T>) {
    if (!isArrayOf(from, std::size(into), why)) return false;
    for (std::size_t at = 0; at < elements.count; ++at) {
      if (!elementOut(elements.first[at], at, into.data()[at], why)) return false;
    }
  } else {
    if (!isArrayOf(from, elements.count, why)) return false;
    if constexpr (requires { into.reserve(elements.count); }) into.reserve(countToReserve<T>(elements.count));
    for (std::size_t at = 0; at < elements.count; ++at) {
      shape::ElementOf<T> element{};
      if (!elementOut(elements.first[at], at, element, why)) return false;
      into.push_back(std::move(element));
    }
  }
  return true;
}

template <class T, std::size_t... kIndex>
bool tupleOut(const NSObject& from, T& into, Mismatch* why, std::index_sequence<kIndex...>) {
  using std::get;
  if (!isArrayOf(from, sizeof...(kIndex), why)) return false;
  [[maybe_unused]] const Slots elements = slotsOf(from);
  return (... && elementOut(elements.first[kIndex], kIndex, get<kIndex>(into), why));
}

template <class T>
bool setOut(const NSObject& from, T& into, Mismatch* why) {
  if (from.value().tag() != Tag::set && from.value().tag() != Tag::mutableSet) {
    if (why != nullptr) why->isNot(from, "a set");
    return false;
  }
  const Slots elements = slotsOf(from);
  for (std::size_t at = 0; at < elements.count; ++at) {
    if (elements.first[at].isNil()) continue;
    typename T::key_type element{};
    if (!comeOut(elements.first[at], element, why)) return false;
    if (into.insert(std::move(element)).second) continue;
    if (why != nullptr) why->hasEqualParts("elements");
    return false;
  }
  return true;
}

// A key that is not of the type is told at its dictionary, a value under its key.
template <class T>
bool entryOut(const NSObject* entry, T& into, Mismatch* why) {
  typename T::key_type key{};
  typename T::mapped_type value{};
  if (!comeOut(entry[0], key, why)) return false;
  if (!comeOut(entry[1], value, why)) {
    if (why != nullptr) why->underKey(entry[0]);
    return false;
  }
  if (into.emplace(std::move(key), std::move(value)).second) return true;
  if (why != nullptr) why->hasEqualParts("keys");
  return false;
}

template <class T>
bool dictionaryOut(const NSObject& from, T& into, Mismatch* why) {
  if (from.value().tag() != Tag::dictionary && from.value().tag() != Tag::mutableDictionary) {
    if (why != nullptr) why->isNot(from, "a dictionary");
    return false;
  }
  const Slots entries = slotsOf(from);
  for (std::size_t at = 0; at < entries.count; ++at) {
    const NSObject* entry = entries.first + at * entries.stride;
    if (!entry->isNil() && !entryOut(entry, into, why)) return false;
  }
  return true;
}

template <class T>
bool handleOut(const NSObject& from, T& into, Mismatch* why) {
  if (from.is<T>()) {
    into = from.as<T>();
    return true;
  }
  if (why != nullptr) why->isNotOf(from, T::classObject());
  return false;
}

inline bool textOut(const NSObject& from, std::string& into, Mismatch* why) {
  const Tag tag = from.value().tag();
  if (tag == Tag::text || tag == Tag::string || tag == Tag::mutableString) {
    into = from.stringValue();
    return true;
  }
  if (why != nullptr) why->isNot(from, "a string");
  return false;
}

template <class T>
bool optionalOut(const NSObject& from, T& into, Mismatch* why) {
  if (from.isNil() || from.value().tag() == Tag::null) {
    into.reset();
    return true;
  }
  return comeOut(from, into.emplace(), why);
}

template <class T>
bool comeOut(const NSObject& from, T& into, Mismatch* why) {
  constexpr PlainForm kForm = shape::formOf<T>();
  if constexpr (std::same_as<T, std::string>) {
    return textOut(from, into, why);
  } else if constexpr (kForm == PlainForm::object) {
    return handleOut(from, into, why);
  } else if constexpr (kForm == PlainForm::number) {
    return numberOut(from, into, why);
  } else if constexpr (Named<T>) {
    return nameOut(from, into, why);
  } else if constexpr (kForm == PlainForm::enumerator) {
    std::underlying_type_t<T> number{};
    if (!numberOut(from, number, why)) return false;
    into = static_cast<T>(number);
    return true;
  } else if constexpr (kForm == PlainForm::interval) {
    return intervalOut(from, into, why);
  } else if constexpr (kForm == PlainForm::date) {
    return dateOut(from, into, why);
  } else if constexpr (kForm == PlainForm::optional) {
    return optionalOut(from, into, why);
  } else if constexpr (kForm == PlainForm::bytes) {
    return bytesOut(from, into, why);
  } else if constexpr (kForm == PlainForm::dictionary) {
    return dictionaryOut(from, into, why);
  } else if constexpr (kForm == PlainForm::set) {
    return setOut(from, into, why);
  } else if constexpr (kForm == PlainForm::array) {
    return arrayOut(from, into, why);
  } else if constexpr (kForm == PlainForm::structure) {
    return structOut(from, into, why);
  } else {
    return tupleOut(from, into, why, std::make_index_sequence<std::tuple_size_v<T>>());
  }
}

}  // namespace velto

template <velto::ComesOutOfObject T>
std::optional<T> NSObject::to() const {
  std::optional<T> result(std::in_place);
  if (!velto::comeOut(*this, *result, nullptr)) result.reset();
  return result;
}

template <velto::ComesOutOfObject T>
velto::Lookup<T> NSObject::get(std::string_view path) const {
  velto::PathEnd end = velto::followPath(*this, path);
  if (!end.error.empty()) return velto::Lookup<T>::failed(std::move(end.error));
  T value{};
  velto::Mismatch why;
  if (velto::comeOut(end.value, value, &why)) return velto::Lookup<T>(std::move(value));
  return velto::Lookup<T>::failed(why.text(end.place));
}

#include "platform/foundation/StructOut.h"
