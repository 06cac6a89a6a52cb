#pragma once

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "VeltoIPC/Outcome.h"
#include "calls/Peer.h"
#include "platform/foundation/NSDictionary.h"
#include "platform/xpc/NSXPCConnection.h"
#include "tools/veltoctl/BrokerLink.h"

namespace velto::ctl {

// A connection for messages that want no answer, which knows when the other end has taken them: a program that ends at
// once could lose what it has sent last. Every failure is a CommandError. For one thread.
class AsyncSender {
 public:
  AsyncSender(const std::string& name, std::chrono::nanoseconds patience);
  ~AsyncSender();
  AsyncSender(const AsyncSender&) = delete;
  AsyncSender& operator=(const AsyncSender&) = delete;

  // Waits while the other end is behind.
  void send(const NSDictionary& message, std::chrono::nanoseconds patience);
  // Waits until all has been taken, in its turn.
  void settle(std::chrono::nanoseconds patience);

 private:
  // What is told on other threads.
  struct State {
    std::mutex mutex;
    std::condition_variable changed;
    bool isReady = false;
    bool isSettled = false;
    std::optional<CallError> error;
  };
  template <class Condition>
  void waitFor(std::chrono::nanoseconds patience, const char* what, Condition condition);
  static void fail(State& state, const CallError& error);

  const std::shared_ptr<State> state_ = std::make_shared<State>();
  std::shared_ptr<NSXPCConnection> connection_;
  std::shared_ptr<calls::Peer> peer_;
};

}  // namespace velto::ctl
