#pragma once

namespace velto::testing {

// What the tests themselves are built with.
#if defined(__has_feature)
inline constexpr bool kAddressSanitizer = __has_feature(address_sanitizer);
inline constexpr bool kThreadSanitizer = __has_feature(thread_sanitizer);
#else
#if defined(__SANITIZE_ADDRESS__)
inline constexpr bool kAddressSanitizer = true;
#else
inline constexpr bool kAddressSanitizer = false;
#endif
#if defined(__SANITIZE_THREAD__)
inline constexpr bool kThreadSanitizer = true;
#else
inline constexpr bool kThreadSanitizer = false;
#endif
#endif

// How often something random is done. The thread sanitizer, which takes ten times as long, looks for what does not
// depend on it.
constexpr int rounds(int count) {
  return kThreadSanitizer ? count / 10 : count;
}

}  // namespace velto::testing
