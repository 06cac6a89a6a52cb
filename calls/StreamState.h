#pragma once

#include <functional>
#include <memory>
#include <utility>

#include "calls/Inflow.h"
#include "calls/Outflow.h"
#include "platform/foundation/ThreadAnnotations.h"

namespace velto::calls {

// One end of a stream: what comes, what goes, and the call that it belongs to.
//
// Thread-safe.
class StreamState {
 public:
  // Runs a task where callbacks run.
  using Perform = std::function<void(std::function<void()>)>;
  // What the connection does for it, once it belongs to one.
  struct Wire {
    Outflow::Send send;
    Inflow::Grant grant;
    // Tells the other end that nothing more comes.
    std::function<void()> finish;
    // The stream has ended.
    std::function<void()> forget;
  };

  // What ends the call of a client's end, for a reason.
  using EndCall = std::function<void(const CallError&)>;

  StreamState(Perform perform, EndCall endCall) : perform_(std::move(perform)), endCall_(std::move(endCall)) {}

  Inflow& in() noexcept { return in_; }
  Outflow& out() noexcept { return out_; }

  void perform(std::function<void()> task) const { perform_(std::move(task)); }
  // Once.
  void setWire(Wire wire);
  // Allows the other end to send as much as is kept here. Once.
  void open();
  void finish();
  // Both ways. What has come can still be read.
  void end(const Outcome<NSDictionary>& result);
  // Both ways, and the call of a client's end.
  void fail(const CallError& why);
  // Reads no more; the call of a client's end is taken back.
  void cancel();

 private:
  const Perform perform_;
  const EndCall endCall_;
  Inflow in_;
  Outflow out_;
  Mutex mutex_;
  Wire wire_ VELTO_GUARDED_BY(mutex_);
  bool isFinished_ VELTO_GUARDED_BY(mutex_) = false;
};

}  // namespace velto::calls
