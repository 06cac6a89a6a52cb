#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string_view>
#include <utility>

#include "platform/foundation/NSError.h"

namespace velto::xpc {

class ConnectionCore;

// What an accepted connection owes its listener. `called` runs on a thread that reads, once: when the first call has
// come or the connection has ended without one. `accept` runs on the connection's queue, before the first call is
// delivered.
struct AcceptanceHooks {
  std::function<void()> called;
  std::function<void(std::shared_ptr<ConnectionCore>)> accept;
};

// How the other end left, or that it was never there.
struct Ending {
  enum class Cause { goodbye, unreachable, interruption };

  NSError error;  // for the calls that are not settled
  Cause cause = Cause::unreachable;
};

// How far a connection has come, and who is still to hear of it: the handlers of its user, the hooks of its listener.
// Whatever is taken out is the user's, to be run and let go of where user code may run. Not synchronised: the
// connection's lock guards it.
class ConnectionLife {
 public:
  using Clock = std::chrono::steady_clock;

  explicit ConnectionLife(AcceptanceHooks hooks) : hooks_(std::move(hooks)) {}

  bool isOpen() const noexcept { return phase_ == Phase::open; }
  // Invalidated here; what was handed over before still goes out.
  bool isClosing() const noexcept { return phase_ == Phase::closing; }
  bool hasEnded() const noexcept { return phase_ == Phase::ended; }
  // Nothing more is taken on.
  bool isOver() const noexcept { return isClosing() || hasEnded(); }
  bool isResumed() const noexcept { return resumed_; }
  bool mayConnect() const noexcept { return phase_ == Phase::connecting || isClosing(); }
  bool maySendCalls() const noexcept { return isOpen() && resumed_; }

  // False when it was resumed before.
  bool resume(Clock::time_point now);
  // Whether a listener that has no room yet is waited for.
  bool isPatient(Clock::time_point now) const noexcept { return now < patientUntil_; }
  // There is a channel. One that is closing stays so.
  void channelOpened() noexcept;

  // What is wrong with the order in which a frame has come; "" when nothing is.
  std::string_view disorder(bool isHello) noexcept;

  // Ends it from here, and later calls are told so. It is closing then if there is or will be somebody to say goodbye
  // to. Not for one that is over.
  void invalidate(bool hasChannel, NSError told) noexcept;
  // The goodbye is on its way, or nobody is there to hear it.
  void finish() noexcept { phase_ = Phase::ended; }
  // Ends it for a cause that is not here. Whether that is to be told now; or later, when it is resumed, from
  // takeKeptEnding(); or not, since it was over before.
  enum class Telling { now, later, never };
  Telling end(const Ending& ending);
  std::optional<Ending> takeKeptEnding() noexcept { return std::exchange(keptEnding_, std::nullopt); }
  // What calls that are made after the end are told.
  const NSError& endError() const noexcept { return endError_; }
  // Whether it is over, and nothing had gone wrong: one of its ends wanted it so.
  bool isOverInGoodOrder() const noexcept { return isOver() && endedInGoodOrder_; }

  // The one before comes back.
  void swapInterruptionHandler(std::function<void()>& handler) noexcept { interruptionHandler_.swap(handler); }
  void swapInvalidationHandler(std::function<void()>& handler) noexcept { invalidationHandler_.swap(handler); }
  std::function<void()> takeInterruptionHandler() noexcept { return std::exchange(interruptionHandler_, nullptr); }
  // Everything that is left when the end is told.
  struct LastWill {
    std::function<void()> interruptionHandler;
    std::function<void()> invalidationHandler;
    AcceptanceHooks hooks;
  };
  LastWill takeLastWill() noexcept;

  // Whether it was accepted, and no call has come.
  bool isSilent() const noexcept { return static_cast<bool>(hooks_.accept); }
  // Its listener is told at the first call or at the end, whatever comes first, and asked at the first call.
  std::function<void()> takeCalled() noexcept { return std::exchange(hooks_.called, nullptr); }
  std::function<void(std::shared_ptr<ConnectionCore>)> takeAccept() noexcept {
    return std::exchange(hooks_.accept, nullptr);
  }

 private:
  enum class Phase {
    idle,        // not resumed
    connecting,  // resumed, no channel yet
    open,
    closing,
    ended
  };

  Phase phase_ = Phase::idle;
  bool resumed_ = false;
  bool greeted_ = false;
  Clock::time_point patientUntil_;
  NSError endError_;
  bool endedInGoodOrder_ = false;
  // One that came before resume().
  std::optional<Ending> keptEnding_;
  std::function<void()> interruptionHandler_;
  std::function<void()> invalidationHandler_;
  AcceptanceHooks hooks_;
};

}  // namespace velto::xpc
