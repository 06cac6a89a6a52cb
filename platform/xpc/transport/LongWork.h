#pragma once

#include <cstddef>

namespace velto::transport {

// Work on something large, from construction to destruction: no more of it at once than there are processors, so that
// what is small finds one soon. Waits for its turn, but not for ever: what has the turn may be user code. Small things
// have no turn to wait for.
class LongWork {
 public:
  explicit LongWork(std::size_t bytes);
  ~LongWork();
  LongWork(const LongWork&) = delete;
  LongWork& operator=(const LongWork&) = delete;

 private:
  bool isCounted_ = false;
};

}  // namespace velto::transport
