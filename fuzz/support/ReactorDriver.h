#pragma once

namespace velto::fuzzing {

// Runs the reactor on the fuzzer's own thread, over the fake kernel: no thread is ever started, and the same input does
// the same in the same order each time.
class ReactorDriver {
 public:
  // Once, before anything else uses the reactor.
  static void takeOver();
  // Deals with every event and runs every callback, until there is nothing left to do.
  static void runUntilIdle();
  // All that was to be done later is due now.
  static void letTimePass();
  // Whether anything is still to be done later.
  static bool hasTimers();
};

}  // namespace velto::fuzzing
