// A broken promise ends the process the way a broken assertion does: the fuzzer keeps the input and shows the stack.

#include "fuzz/support/Require.h"

#include <cstdio>
#include <cstdlib>

namespace velto::fuzzing {

void reportFinding(const std::string& text) {
  std::fprintf(stderr, "finding: %s\n", text.c_str());
  std::abort();
}

}  // namespace velto::fuzzing
