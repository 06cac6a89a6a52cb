#pragma once

#include <cstdint>
#include <string>
#include <variant>

#include "platform/foundation/NSNumber.h"
#include "platform/foundation/ObjectBody.h"

namespace velto {

// The value of an NSNumber, in the kind that it was made from.
class NumberBody final : public ObjectBody {
 public:
  // In the order of NSNumber::Kind.
  using Value = std::variant<bool, std::int64_t, std::uint64_t, double>;

  explicit NumberBody(Value value) noexcept : value_(value) {}

  NSNumber::Kind kind() const noexcept { return static_cast<NSNumber::Kind>(value_.index()); }
  bool boolValue() const noexcept;
  double doubleValue() const noexcept;
  // Saturates; not-a-number is 0.
  template <class Integer>
  Integer convertedTo() const noexcept;

  const ClassBody& classBody() const override;
  bool isEqual(const ObjectBody& other, WalkBound& bound) const override;
  std::size_t hash() const override;
  void describe(std::string& out, WalkBound& bound) const override;

 private:
  const Value value_;
};

// The shortest text that reads back as the same number.
std::string shortestText(double value);

}  // namespace velto
