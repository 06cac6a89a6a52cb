#pragma once

#include <functional>
#include <random>
#include <string>

#include "tests/support/LibraryTest.h"

namespace velto::testing {

// Chance of one thread of a stress test; the same in every run.
class Dice {
 public:
  explicit Dice(unsigned seed) : engine_(seed) {}
  // From 0 to sides - 1.
  unsigned roll(unsigned sides) { return std::uniform_int_distribution<unsigned>(0, sides - 1)(engine_); }
  bool oneIn(unsigned sides) { return roll(sides) == 0; }

 private:
  std::mt19937 engine_;
};

// Runs the function in so many threads at once, each with dice of its own, and waits for all of them. A thread that
// does not end within the bound ends the program.
void inThreads(unsigned count, const std::function<void(Dice&)>& run);

// A library test at whose end every descriptor that was opened in between must be closed again.
class StressTest : public LibraryTest {
 protected:
  void SetUp() override;
  void TearDown() override;

 private:
  std::size_t descriptors_ = 0;
};

// Whether a synchronous send of `asked` came to an end that it may have: the echo, or (since its connection may be
// closed at any moment) one of the two errors of a connection that is gone. Anything else fails the test.
enum class End { replied, closed };
End checkedEnd(const NSDictionary& asked, const NSDictionary& reply, const NSError& error);

}  // namespace velto::testing
