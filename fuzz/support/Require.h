#pragma once

#include <string>

namespace velto::fuzzing {

// Ends the process with the text: what a fuzzer takes for a finding.
[[noreturn]] void reportFinding(const std::string& text);

inline void require(bool condition, const char* promise) {
  if (!condition) reportFinding(promise);
}

}  // namespace velto::fuzzing
