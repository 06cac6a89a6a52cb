#pragma once

#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "VeltoIPC/Outcome.h"
#include "calls/CallState.h"
#include "calls/Peer.h"

namespace velto::calls {

// Something to be sent as soon as that goes.
struct WaitingCall {
  std::shared_ptr<CallState> state;
  // The error is that the connection has ended: it has not been sent.
  std::function<std::optional<CallError>(Peer&)> start;
};

// Calls that wait to be sent, in their order. One that ends meanwhile has no place: at the latest when such are as many
// as the others, they are let go of.
//
// Not thread-safe.
class WaitingCalls {
 public:
  explicit WaitingCalls(std::size_t most) : most_(most) {}

  // False when so many wait already. Those that have ended come out, to be let go of where user code may run.
  bool add(const WaitingCall& call, std::vector<WaitingCall>& ended);
  std::size_t most() const noexcept { return most_; }
  bool isEmpty() const noexcept { return calls_.empty(); }
  WaitingCall takeFirst();
  std::deque<WaitingCall> takeAll() noexcept;

 private:
  static constexpr std::size_t kFirstLook = 16;

  void takeEnded(std::vector<WaitingCall>& ended);

  const std::size_t most_;
  std::deque<WaitingCall> calls_;
  // Once they are so many, those that have ended are looked for.
  std::size_t looksAt_ = kFirstLook;
};

}  // namespace velto::calls
