#pragma once

#include <cstddef>

namespace velto::testing {

// While it lives, one allocation of this thread fails: the `number`th from now, counted from 1. At most one at a time.
class AllocationFault {
 public:
  explicit AllocationFault(std::size_t number) noexcept;
  ~AllocationFault();
  AllocationFault(const AllocationFault&) = delete;
  AllocationFault& operator=(const AllocationFault&) = delete;

  // Whether it has happened.
  bool hasStruck() const noexcept;
};

// Objects that this thread has allocated, less those that it has freed.
std::ptrdiff_t liveAllocations() noexcept;

}  // namespace velto::testing
