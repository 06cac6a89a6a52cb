#pragma once

#include <memory>

#include "platform/foundation/ThreadAnnotations.h"
#include "platform/xpc/system/Descriptor.h"

namespace velto::transport {

// Has had its turn, and may have more to do.
class TurnTaker {
 public:
  virtual ~TurnTaker() = default;
  // Called by one of the reactor's threads.
  virtual void takeTurn() = 0;
  // Has the kernel tell of it again if it has more to do. False when the kernel will not.
  virtual bool remind() noexcept = 0;

 private:
  friend class LaterTurns;
  std::shared_ptr<TurnTaker> next_;
};

// The line of those that have had a turn and want more. One at a time has one, behind all that the kernel has to tell
// of just then: so whoever has little to say waits for one of them, however many there are. Who is alone takes its turn
// when the kernel tells of it, which costs nothing besides.
//
// Thread-safe.
class LaterTurns {
 public:
  // Makes the descriptor if that has failed before. False, and errno, when the kernel has none to give; nobody has a
  // turn until it has.
  bool makeBell();
  // Tells, edge-triggered, that it is somebody's turn; borrowed.
  int descriptor();

  // Who is in line must not come again before its turn. Needs no memory.
  void add(std::shared_ptr<TurnTaker> taker) noexcept;
  // The next turn, if there is one; others may be taken at the same time.
  void takeNext();
  // Takes one that the kernel has told of, or that wants no turn any more, out of the line. False when it is not in it,
  // or not alone.
  bool takeOut(const TurnTaker& taker) noexcept;

 private:
  void ring() noexcept VELTO_REQUIRES(mutex_);
  std::shared_ptr<TurnTaker> takeFirst() noexcept VELTO_REQUIRES(mutex_);

  Mutex mutex_;
  // Never read: each write is an event, and the counter has room for ever.
  system::Descriptor bell_ VELTO_GUARDED_BY(mutex_);
  // With each goes the one behind it.
  std::shared_ptr<TurnTaker> first_ VELTO_GUARDED_BY(mutex_);
  TurnTaker* last_ VELTO_GUARDED_BY(mutex_) = nullptr;
};

}  // namespace velto::transport
