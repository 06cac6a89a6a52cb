#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <stop_token>
#include <utility>

#include "VeltoIPC/Outcome.h"
#include "calls/StreamState.h"
#include "platform/foundation/NSDictionary.h"
#include "platform/xpc/NSXPCPeer.h"

namespace velto::calls {

// A call that has come, to be answered once. Whoever lets go of it unanswered has dropped it, which its caller hears.
//
// Thread-safe.
class Incoming final {
 public:
  using Answer = std::function<void(Outcome<NSDictionary>)>;
  using SteadyTime = std::chrono::steady_clock::time_point;

  Incoming(NSDictionary message, NSXPCPeer process, std::optional<SteadyTime> deadline, Answer answer)
      : message_(std::move(message)), process_(std::move(process)), deadline_(deadline), answer_(std::move(answer)) {}
  ~Incoming();
  Incoming(const Incoming&) = delete;
  Incoming& operator=(const Incoming&) = delete;

  const NSDictionary& message() const noexcept { return message_; }
  const NSXPCPeer& process() const noexcept { return process_; }
  const std::optional<SteadyTime>& deadline() const noexcept { return deadline_; }
  std::stop_token stopToken() const { return stop_.get_token(); }

  // False when it has been answered.
  bool answer(Outcome<NSDictionary> outcome);
  // Called once it is answered, or let go of. Before anybody else has it.
  void setWhenAnswered(std::function<void()> whenAnswered) { whenAnswered_ = std::move(whenAnswered); }
  // Its caller waits no more, because of that.
  void takeBack(const CallError& why);

  // The stream that its caller has asked for; null when it has not. Before anybody else has it.
  const std::shared_ptr<StreamState>& stream() const noexcept { return stream_; }
  void setStream(std::shared_ptr<StreamState> stream) { stream_ = std::move(stream); }

  // Whoever handles it is there for as long as it is. Before anybody else has it.
  void keep(std::shared_ptr<const void> handler) { handler_ = std::move(handler); }

 private:
  // Goes last.
  std::shared_ptr<const void> handler_;
  const NSDictionary message_;
  const NSXPCPeer process_;
  const std::optional<SteadyTime> deadline_;
  const Answer answer_;
  std::function<void()> whenAnswered_;
  std::shared_ptr<StreamState> stream_;
  std::atomic<bool> isAnswered_{false};
  std::stop_source stop_;
};

}  // namespace velto::calls
