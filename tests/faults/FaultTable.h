#pragma once

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

#include "tests/faults/FaultPlan.h"

namespace velto::testing {

// What a failed system call may do to the exchange in which it fails.
enum class Effect {
  none,          // the exchange is whole all the same: tried again, or of no consequence
  reported,      // something fails, and whom it concerns is told
  maybeReported  // that, or nothing: it depends on which of the calls it is
};

// A system call, the errors with which the kernel can answer it, and what must come of them.
struct Fault {
  SystemCall call;
  std::vector<int> errors;
  Effect effect;
  // With these codes, in the platform's domain, where a handler hears of it.
  std::vector<std::int64_t> codes;
  FaultPlan::Selection selection = FaultPlan::anyDescriptor;
};

const std::vector<Fault>& allFaults();
// The calls of its rows, each once.
std::vector<SystemCall> callsOfTheTable();
// How the name of a test shows it.
inline void PrintTo(SystemCall call, std::ostream* out) {
  *out << nameOf(call);
}
// The calls that a plain exchange never makes, or makes only once in a process: they have tests of their own.
const std::vector<SystemCall>& callsApart();

}  // namespace velto::testing
