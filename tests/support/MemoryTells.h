#pragma once

namespace velto::testing {

// The address sanitizer keeps what has been freed, and the thread sanitizer a history of all memory: with them, the
// memory of a process tells nothing.
#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
inline constexpr bool kMemoryTells = false;
#else
inline constexpr bool kMemoryTells = true;
#endif
#elif defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool kMemoryTells = false;
#else
inline constexpr bool kMemoryTells = true;
#endif

}  // namespace velto::testing
