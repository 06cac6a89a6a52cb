// The operators new and delete of this program, and the malloc(), realloc() and free() that its objects call. They
// belong to the whole program, but only the thread that asks for it is counted against.

#include "tests/faults/Allocations.h"

#include <cstdlib>
#include <new>

namespace velto::testing {

namespace {

thread_local std::size_t allocationsLeft = 0;
thread_local bool struck = false;
thread_local std::ptrdiff_t live = 0;

bool fails() noexcept {
  if (allocationsLeft == 0 || --allocationsLeft > 0) return false;
  struck = true;
  return true;
}

// Counted below.
void* allocate(std::size_t bytes) noexcept {
  return std::malloc(bytes > 0 ? bytes : 1);
}

void free(void* bytes) noexcept {
  std::free(bytes);
}

}  // namespace

AllocationFault::AllocationFault(std::size_t number) noexcept {
  struck = false;
  allocationsLeft = number;
}

AllocationFault::~AllocationFault() {
  allocationsLeft = 0;
}

bool AllocationFault::hasStruck() const noexcept {
  return struck;
}

std::ptrdiff_t liveAllocations() noexcept {
  return live;
}

}  // namespace velto::testing

// The linker puts these between the program's objects and the C library.
extern "C" {
void* __real_malloc(std::size_t size);
void* __real_realloc(void* bytes, std::size_t size);
void __real_free(void* bytes);
void* __wrap_malloc(std::size_t size);
void* __wrap_realloc(void* bytes, std::size_t size);
void __wrap_free(void* bytes);

void* __wrap_malloc(std::size_t size) {
  using namespace velto::testing;
  if (fails()) return nullptr;
  void* const made = __real_malloc(size);
  if (made != nullptr) ++live;
  return made;
}
void* __wrap_realloc(void* bytes, std::size_t size) {
  using namespace velto::testing;
  if (fails()) return nullptr;
  void* const made = __real_realloc(bytes, size);
  if (made != nullptr && bytes == nullptr) ++live;
  return made;
}
void __wrap_free(void* bytes) {
  if (bytes != nullptr) --velto::testing::live;
  __real_free(bytes);
}
}

void* operator new(std::size_t bytes) {
  void* const made = velto::testing::allocate(bytes);
  if (made == nullptr) throw std::bad_alloc();
  return made;
}
void* operator new[](std::size_t bytes) {
  return ::operator new(bytes);
}
void* operator new(std::size_t bytes, const std::nothrow_t&) noexcept {
  return velto::testing::allocate(bytes);
}
void* operator new[](std::size_t bytes, const std::nothrow_t&) noexcept {
  return velto::testing::allocate(bytes);
}
void operator delete(void* bytes) noexcept {
  velto::testing::free(bytes);
}
void operator delete[](void* bytes) noexcept {
  velto::testing::free(bytes);
}
void operator delete(void* bytes, std::size_t) noexcept {
  velto::testing::free(bytes);
}
void operator delete[](void* bytes, std::size_t) noexcept {
  velto::testing::free(bytes);
}
void operator delete(void* bytes, const std::nothrow_t&) noexcept {
  velto::testing::free(bytes);
}
void operator delete[](void* bytes, const std::nothrow_t&) noexcept {
  velto::testing::free(bytes);
}
