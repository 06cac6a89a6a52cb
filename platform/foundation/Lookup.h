#pragma once

#include <optional>
#include <string>
#include <utility>

namespace velto {

// What was found at a path: a value, or where and why there is none. It is asked as a std::expected is.
//
//   if (const auto speed = message.get<double>("wheels[2].speed")) {
//     use(*speed);
//   } else {
//     log(speed.error());  // "wheels[2].speed: is a string, not a number"
//   }
template <class T>
class [[nodiscard]] Lookup {
 public:
  explicit Lookup(T value) : value_(std::move(value)) {}
  static Lookup failed(std::string error) { return Lookup(std::nullopt, std::move(error)); }

  explicit operator bool() const noexcept { return value_.has_value(); }
  [[nodiscard]] bool has_value() const noexcept { return value_.has_value(); }
  // Only where there is a value.
  [[nodiscard]] const T& operator*() const& noexcept { return *value_; }
  [[nodiscard]] T& operator*() & noexcept { return *value_; }
  [[nodiscard]] T&& operator*() && noexcept { return *std::move(value_); }
  [[nodiscard]] const T* operator->() const noexcept { return &*value_; }
  [[nodiscard]] T* operator->() noexcept { return &*value_; }
  template <class Other>
  [[nodiscard]] T value_or(Other&& other) const& {
    return value_.value_or(std::forward<Other>(other));
  }
  template <class Other>
  [[nodiscard]] T value_or(Other&& other) && {
    return std::move(value_).value_or(std::forward<Other>(other));
  }
  // "" where there is a value.
  [[nodiscard]] const std::string& error() const noexcept { return error_; }

 private:
  Lookup(std::nullopt_t, std::string error) : error_(std::move(error)) {}

  std::optional<T> value_;
  std::string error_;
};

}  // namespace velto
