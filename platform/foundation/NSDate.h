#pragma once

#include <chrono>

#include "platform/foundation/NSObject.h"

// A point in time. A date made relative to now also keeps the steady clock's reading, and measures by it: setting the
// system's clock neither cuts nor stretches a wait for it. An interval that is not a number counts as none at all, and
// very large ones saturate. Two dates are equal when their seconds since 1970 are. See NSObject for nil and threads.
class VELTO_EXPORT NSDate : public NSObject {
 public:
  NSDate() noexcept = default;
  NSDate(std::nullptr_t) noexcept {}
  explicit operator bool() const noexcept { return !isNil(); }
  // A std::chrono::time_point of the system's clock.
  template <velto::BecomesDate T>
  NSDate(const T& time) : NSObject(velto::plainValue(time)) {}

  static velto::Class classObject();
  static constexpr bool isKind(velto::Tag tag) noexcept { return tag == velto::Tag::date; }
  [[nodiscard]] static NSDate date();
  [[nodiscard]] static NSDate dateWithTimeIntervalSinceNow(double seconds);
  [[nodiscard]] static NSDate dateWithTimeIntervalSince1970(double seconds);

  // Seconds from now to this date; negative once it has passed. 0 for nil.
  [[nodiscard]] double timeIntervalSinceNow() const;
  [[nodiscard]] double timeIntervalSince1970() const;
  // The point on the steady clock at which this date comes, saturated so that it can be waited for; now for nil.
  [[nodiscard]] std::chrono::steady_clock::time_point steadyTime() const;

 private:
  explicit NSDate(const velto::Value& adopted) noexcept : NSObject(adopted) {}
};
