#pragma once

#include <chrono>

namespace velto::transport {

// Whether a thread that waits looks again and again, or sleeps at once. Where the other end answers within a few
// microseconds, looking is ten times faster than sleeping and being woken, and costs less; everywhere else it is a
// waste. So it is tried for a moment, and given up for more and more waits each time that nothing came of it. Between
// two looks others get the processor; if they keep it, it is theirs.
//
// Of one thread at a time; not synchronised.
class Polling {
 public:
  // A wait begins: whether to look before sleeping.
  bool begin() noexcept;
  // There was nothing: whether to look again. Others had the processor meanwhile, if they wanted it.
  bool goOn() noexcept;
  // There was something.
  void hasPaid() noexcept { pause_ = 0; }
  // Whether others used the processor when it was last given away between two looks.
  bool sharesProcessor() const noexcept { return sharesProcessor_; }

 private:
  using Clock = std::chrono::steady_clock;

  void giveUp(unsigned leastPause) noexcept;

  Clock::time_point end_;
  // Waits that are slept through at the next failure, and those left of the last.
  unsigned pause_ = 0;
  unsigned left_ = 0;
  bool sharesProcessor_ = false;
};

}  // namespace velto::transport
