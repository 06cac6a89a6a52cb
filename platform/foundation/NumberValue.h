#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/foundation/Value.h"

namespace velto {

// What the words of a number answer. All but isNumber() are asked of numbers only.

inline bool isNumber(Tag tag) noexcept {
  return tag >= Tag::boolean && tag <= Tag::floatingPoint;
}
bool boolOf(const Value& number) noexcept;
double doubleOf(const Value& number) noexcept;
// Saturate; not-a-number is 0.
std::int64_t signedOf(const Value& number) noexcept;
std::uint64_t unsignedOf(const Value& number) noexcept;
// Of the same value, whatever their kinds.
bool areEqualNumbers(const Value& left, const Value& right) noexcept;
std::size_t hashOfNumber(const Value& number) noexcept;

}  // namespace velto
