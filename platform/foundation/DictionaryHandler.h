#pragma once

#include <concepts>
#include <cstddef>
#include <functional>
#include <type_traits>
#include <typeinfo>
#include <utility>

#include "platform/foundation/EmptyBraces.h"
#include "platform/foundation/NSDictionary.h"

namespace velto {

template <class F>
concept DictionaryCallable =
    !std::same_as<std::remove_cvref_t<F>, std::function<void(NSDictionary)>> && requires(std::decay_t<F> & callable) {
  std::invoke(callable, NSDictionary());
};

}  // namespace velto

// A std::function like any other, but for one thing: called with a pair of empty braces it hands over an empty
// dictionary. (`{}` stands for a default-constructed argument, which would be nil: to whoever gets a reply, a failure.)
// nil, and a variable that is nil, are handed over as nil. NSDictionary.h includes this, so that the type means the
// same wherever it is used.
template <>
class std::function<void(NSDictionary)> {
 public:
  using result_type = void;

  function() noexcept = default;
  function(std::nullptr_t) noexcept {}
  template <velto::DictionaryCallable F>
  function(F callable) : held_(std::move(callable)) {}

  function& operator=(std::nullptr_t) noexcept {
    held_ = nullptr;
    return *this;
  }
  template <velto::DictionaryCallable F>
  function& operator=(F&& callable) {
    held_ = std::forward<F>(callable);
    return *this;
  }
  template <class F>
  function& operator=(std::reference_wrapper<F> callable) noexcept {
    held_ = callable;
    return *this;
  }
  void swap(function& other) noexcept { held_.swap(other.held_); }

  explicit operator bool() const noexcept { return static_cast<bool>(held_); }
  void operator()(NSDictionary dictionary) const { held_(std::move(dictionary)); }
  void operator()(velto::EmptyBraces) const { held_(NSDictionary::dictionary()); }

#ifdef __cpp_rtti
  const std::type_info& target_type() const noexcept {
    return held_.target_type();
  }
#endif
  template <class F>
  F* target() noexcept {
    return held_.target<F>();
  }
  template <class F>
  const F* target() const noexcept {
    return held_.target<F>();
  }

 private:
  std::function<void(NSDictionary&&)> held_;
};
