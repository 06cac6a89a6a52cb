#pragma once

#include <cstdint>
#include <iosfwd>
#include <optional>
#include <string>
#include <utility>

#include "platform/foundation/Export.h"

namespace velto {

// How something ended that did not bring its result.
enum class Failure : std::uint8_t {
  // An end did not take it: a class that it does not admit, a method that it lacks, a type that strict types forbid.
  refused,
  // Whoever was to answer let go of the request unanswered, or raised an exception.
  dropped,
  // The service answered with an error of its own.
  failed,
  // Its time was over before it was answered. What the other end does of it is unknown.
  timedOut,
  // Whoever made it took it back.
  cancelled,
  // It, or its answer, is over a limit.
  overLimit,
  // The other end is behind, and this thread may not wait, or was asked not to.
  full,
  // The other end has vanished, or has closed the connection.
  peerGone,
  // This end has closed the connection.
  closed,
  // Nobody serves the name, or nobody can be asked.
  unavailable,
  // Another serves the name.
  taken,
};

// The name of the enumerator.
[[nodiscard]] VELTO_EXPORT const char* nameOf(Failure failure) noexcept;

// Why one call, message or connection failed.
class VELTO_EXPORT CallError {
 public:
  CallError(Failure failure, std::string text, bool byPeer = false, std::int64_t code = 0)
      : text_(std::move(text)), code_(code), failure_(failure), byPeer_(byPeer) {}

  // An error of the service's own, to answer with.
  static CallError failed(std::string text, std::int64_t code = 0) {
    return {Failure::failed, std::move(text), false, code};
  }

  [[nodiscard]] Failure failure() const noexcept { return failure_; }
  // One sentence for people.
  [[nodiscard]] const std::string& text() const noexcept { return text_; }
  // Whether the other end said so, and not this one.
  [[nodiscard]] bool isByPeer() const noexcept { return byPeer_; }
  // The service's own number, of what `failed`; else 0.
  [[nodiscard]] std::int64_t code() const noexcept { return code_; }

  friend bool operator==(const CallError&, const CallError&) = default;

 private:
  std::string text_;
  std::int64_t code_;
  Failure failure_;
  bool byPeer_;
};

// "timedOut: the sentence".
VELTO_EXPORT std::ostream& operator<<(std::ostream& out, const CallError& error);

namespace detail {
// Raises std::runtime_error with the sentence; ends the process where there are no exceptions.
[[noreturn]] VELTO_EXPORT void raise(const CallError& error);
}  // namespace detail

// A result, or the reason why there is none.
template <class T>
class [[nodiscard]] Outcome {
 public:
  Outcome(T value) : value_(std::move(value)) {}
  Outcome(CallError error) : error_(std::move(error)) {}

  [[nodiscard]] bool has_value() const noexcept { return value_.has_value(); }
  explicit operator bool() const noexcept { return has_value(); }

  // What there is; without it the behaviour is that of an empty std::optional.
  const T& operator*() const& noexcept { return *value_; }
  T& operator*() & noexcept { return *value_; }
  T&& operator*() && noexcept { return *std::move(value_); }
  const T* operator->() const noexcept { return &*value_; }
  T* operator->() noexcept { return &*value_; }
  template <class Other>
  T value_or(Other&& other) const& {
    return value_.value_or(std::forward<Other>(other));
  }
  template <class Other>
  T value_or(Other&& other) && {
    return std::move(value_).value_or(std::forward<Other>(other));
  }
  // What there is; without it std::runtime_error is raised.
  const T& value() const& {
    if (!value_) detail::raise(*error_);
    return *value_;
  }
  T&& value() && {
    if (!value_) detail::raise(*error_);
    return *std::move(value_);
  }
  // Only without a value.
  [[nodiscard]] const CallError& error() const noexcept { return *error_; }

 private:
  std::optional<T> value_;
  std::optional<CallError> error_;
};

}  // namespace velto
