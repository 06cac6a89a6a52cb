#pragma once

#include <memory>
#include <utility>

#include "platform/foundation/Export.h"

namespace velto::system {

// Owns one file descriptor and closes it when destroyed. Moved, never copied. A descriptor that was open when the
// process forked belongs to the parent: the child closes its copies at the fork and then leaves the numbers alone.
class Descriptor {
 public:
  Descriptor() noexcept = default;
  // Takes the descriptor over; -1 is none.
  explicit Descriptor(int taken) noexcept;
  Descriptor(Descriptor&& other) noexcept;
  Descriptor& operator=(Descriptor&& other) noexcept;
  ~Descriptor() { reset(); }

  // Borrowed: valid while this object lives and owns it. -1 when there is none, and in the
  // child of a fork.
  int get() const noexcept;
  explicit operator bool() const noexcept { return get() >= 0; }
  // Closes it now.
  void reset() noexcept;

 private:
  int descriptor_ = -1;
  unsigned generation_ = 0;
};

// A descriptor with several holders, each of which may send it on: an endpoint, and the frames that carry it.
using SharedDescriptor = std::shared_ptr<const Descriptor>;

// How many times this process is the child of a fork since the library was loaded.
VELTO_EXPORT unsigned forkGeneration() noexcept;

}  // namespace velto::system
