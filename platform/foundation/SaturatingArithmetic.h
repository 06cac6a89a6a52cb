#pragma once

#include <concepts>
#include <limits>

namespace velto {

// The arithmetic of limits: what would wrap stays at the greatest value instead, and so over every limit.

template <std::unsigned_integral T>
constexpr T saturatingSum(T left, T right) noexcept {
  T sum = 0;
  return __builtin_add_overflow(left, right, &sum) ? std::numeric_limits<T>::max() : sum;
}

template <std::unsigned_integral T>
constexpr T saturatingProduct(T left, T right) noexcept {
  T product = 0;
  return __builtin_mul_overflow(left, right, &product) ? std::numeric_limits<T>::max() : product;
}

}  // namespace velto
