#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

#include "platform/foundation/NSObject.h"
#include "platform/foundation/PlainTypes.h"

// How plain C++ becomes values. Included by NSObject.h, whose constructor this is the inside of.
namespace velto {

// Gathers the elements of a container that is being made. For one thread.
class VELTO_EXPORT ObjectBuilder {
 public:
  // `expected`: how many elements there will be, as far as that is known.
  explicit ObjectBuilder(std::size_t expected);
  ~ObjectBuilder();
  ObjectBuilder(const ObjectBuilder&) = delete;
  ObjectBuilder& operator=(const ObjectBuilder&) = delete;

  void add(NSObject element);

  // What was gathered, with one reference; of a dictionary, keys and values by turns. Each raises an NSException when a
  // part is nil. The builder is empty afterwards.
  [[nodiscard]] Value array();
  [[nodiscard]] Value set();
  [[nodiscard]] Value dictionary();

 private:
  void moveToRoomFor(std::size_t capacity);
  NSObject take(const char* container);

  std::size_t capacity_;
  std::size_t count_ = 0;
  NSObject gathered_;
};

[[nodiscard]] VELTO_EXPORT Value dataValue(const void* bytes, std::size_t length);
[[nodiscard]] VELTO_EXPORT Value dateValue(double secondsSince1970);

template <class T>
[[nodiscard]] Value plainValue(T&& value);
// StructIn.h has these two.
template <class T>
[[nodiscard]] Value structValue(const T& from);
template <class T>
[[nodiscard]] Value nameValue(T enumerator);

// As an element of an array, set or tuple, which nil cannot be: an empty optional is the null object.
template <class T>
[[nodiscard]] NSObject elementOf(T&& value) {
  if constexpr (shape::formOf<std::remove_reference_t<T>>() == PlainForm::optional) {
    if (!value.has_value()) return NSObject::adopt(Value(Tag::null, 0));
    return elementOf(*std::forward<T>(value));
  } else {
    return NSObject(std::forward<T>(value));
  }
}

template <class T>
std::size_t expectedCount(const T& range) {
  if constexpr (requires { std::size(range); }) {
    return static_cast<std::size_t>(std::size(range));
  } else {
    return 0;
  }
}

// Proxies, as those of std::vector<bool>, become what they stand for.
template <class Range>
void gather(ObjectBuilder& builder, Range& range) {
  for (auto&& each : range) {
    using Element = shape::ElementOf<Range>;
    if constexpr (std::same_as<std::remove_cvref_t<decltype(each)>, Element>) {
      builder.add(elementOf(each));
    } else {
      builder.add(elementOf(static_cast<Element>(std::forward<decltype(each)>(each))));
    }
  }
}

template <class Range>
[[nodiscard]] Value arrayValue(Range& range) {
  ObjectBuilder builder(expectedCount(range));
  gather(builder, range);
  return builder.array();
}

template <class Range>
[[nodiscard]] Value setValue(Range& range) {
  ObjectBuilder builder(expectedCount(range));
  gather(builder, range);
  return builder.set();
}

template <class Map>
[[nodiscard]] Value dictionaryValue(Map& map) {
  ObjectBuilder builder(2 * expectedCount(map));
  for (auto&& [key, value] : map) {
    if constexpr (shape::formOf<std::remove_reference_t<decltype(value)>>() == PlainForm::optional) {
      if (!value.has_value()) continue;
    }
    builder.add(elementOf(key));
    builder.add(elementOf(value));
  }
  return builder.dictionary();
}

template <class Range>
[[nodiscard]] Value bytesValue(Range& range) {
  if constexpr (std::contiguous_iterator<shape::IteratorOf<Range>> && requires { std::data(range); }) {
    return dataValue(std::data(range), std::size(range));
  } else {
    std::string bytes;
    for (const auto& each : range) bytes += static_cast<char>(each);
    return dataValue(bytes.data(), bytes.size());
  }
}

template <class T, std::size_t... kIndex>
[[nodiscard]] Value tupleValue(const T& tuple, std::index_sequence<kIndex...>) {
  using std::get;
  ObjectBuilder builder(sizeof...(kIndex));
  (..., builder.add(elementOf(get<kIndex>(tuple))));
  return builder.array();
}

template <class T>
[[nodiscard]] Value textLikeValue(T& text) {
  if constexpr (std::convertible_to<T&, std::string_view>) {
    return textValue(static_cast<std::string_view>(text));
  } else if constexpr (std::convertible_to<T&, std::string>) {
    return textValue(static_cast<std::string>(text));
  } else {
    return NSObject(static_cast<const char*>(text)).giveUp();
  }
}

template <class Duration>
[[nodiscard]] double secondsIn(const Duration& duration) {
  constexpr auto kNumerator = static_cast<double>(Duration::period::num);
  constexpr auto kDenominator = static_cast<double>(Duration::period::den);
  return static_cast<double>(duration.count()) * kNumerator / kDenominator;
}

template <class T>
Value plainValue(T&& value) {
  using Type = std::remove_reference_t<T>;
  constexpr PlainForm kForm = shape::formOf<Type>();
  if constexpr (Named<std::remove_cv_t<Type>>) {
    return nameValue<std::remove_cv_t<Type>>(value);
  } else if constexpr (kForm == PlainForm::enumerator) {
    return NSObject(static_cast<std::underlying_type_t<Type>>(value)).giveUp();
  } else if constexpr (kForm == PlainForm::text) {
    return textLikeValue(value);
  } else if constexpr (kForm == PlainForm::interval) {
    return NSObject(secondsIn(value)).giveUp();
  } else if constexpr (kForm == PlainForm::date) {
    return dateValue(secondsIn(value.time_since_epoch()));
  } else if constexpr (kForm == PlainForm::optional) {
    return value.has_value() ? NSObject(*std::forward<T>(value)).giveUp() : Value();
  } else if constexpr (kForm == PlainForm::bytes) {
    return bytesValue(value);
  } else if constexpr (kForm == PlainForm::dictionary) {
    return dictionaryValue(value);
  } else if constexpr (kForm == PlainForm::set) {
    return setValue(value);
  } else if constexpr (kForm == PlainForm::array) {
    return arrayValue(value);
  } else if constexpr (kForm == PlainForm::structure) {
    return structValue<std::remove_cv_t<Type>>(value);
  } else {
    return tupleValue(value, std::make_index_sequence<std::tuple_size_v<std::remove_cv_t<Type>>>());
  }
}

}  // namespace velto

template <class T>
// NOLINTNEXTLINE(bugprone-forwarding-reference-overload): no handle, and so no copy, meets the constraint.
requires velto::PlainValue<T> NSObject::NSObject(T&& value) : value_(velto::plainValue(std::forward<T>(value))) {}

#include "platform/foundation/StructIn.h"
