#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "VeltoIPC/Client.h"
#include "calls/NameSearch.h"
#include "calls/Peer.h"
#include "calls/WaitingCalls.h"
#include "platform/foundation/NSCondition.h"
#include "platform/xpc/DelayedCall.h"
#include "platform/xpc/contract/Limits.h"

namespace velto::calls {

// What a Client stands for: it finds the name, connects, and connects anew if it is to. Calls go to the connection of
// the moment, or wait for the next.
//
// Thread-safe. Connecting happens on threads of the platform, one step at a time; whoever waits for it waits for a
// word.
class ClientCore final : public std::enable_shared_from_this<ClientCore> {
 public:
  ClientCore(const NSString& name, ClientOptions options);

  // Starts, and sleeps until the connection is made or it is given up; nothing when it is made.
  std::optional<CallError> connect();

  NSDictionary withOperation(std::string_view operation, const NSDictionary& message) const;
  Call call(const NSDictionary& message, const CallOptions& options);
  Call sending(const NSDictionary& message, const CallOptions& options);
  Stream open(const NSDictionary& message, const CallOptions& options);
  std::optional<CallError> send(const NSDictionary& message, std::optional<std::chrono::nanoseconds> timeout,
                                bool waits, std::function<void(CallError)> failed);
  void close();
  // The same, and sleeps until no handler runs any more, where that can be waited for.
  void closeAndWait();

 private:
  using Clock = std::chrono::steady_clock;
  enum class Phase : std::uint8_t { connecting, connected, ended };
  // What becomes of a sender while the other end is behind: it sleeps, or its call is kept if it may not; it sleeps, or
  // is told if it may not; or it is told at once.
  enum class Behind : std::uint8_t { isParked, isAwaited, isTold };

  // One attempt to connect; what comes of a former one is ignored.
  void attempt();
  std::shared_ptr<NameSearch> makeSearch(std::uint64_t number);
  // Notes that nobody serves the name yet. False when that attempt is over.
  bool mayWait(std::uint64_t number, const CallError& error);
  void found(std::uint64_t number, const std::shared_ptr<NSXPCConnection>& connection);
  void isReady(std::uint64_t number);
  void attemptFailed(std::uint64_t number, CallError error);
  void peerEnded(std::uint64_t number, const CallError& error);
  void endReconnectingLater();
  // Without an error: unless it is connected by now.
  void giveUp(std::optional<CallError> error);
  void tryLater(std::chrono::milliseconds pause);
  std::shared_ptr<CallState> makeState(const CallOptions& options);
  // Starts it, waits for the other end to keep up if that is possible here, or keeps it.
  void launch(const WaitingCall& call, const CallOptions& options);
  // The connection of the moment, if it is another than `peer`; and else null, and it is kept for the next. The error
  // is that there is to be none, or that too many wait.
  std::optional<CallError> peerOrKeep(const WaitingCall& call, std::shared_ptr<Peer>& peer);
  // Keeps it until the other end keeps up.
  std::optional<CallError> park(const WaitingCall& call);
  std::optional<CallError> keep(const WaitingCall& call, WaitingCalls& queue, Failure overMost,
                                std::vector<WaitingCall>& ended) VELTO_REQUIRES(condition_);
  // Once more, after its connection has ended, which may not be known yet. False when there is to be no other.
  bool startAgain(const WaitingCall& call);
  // Over that one, or over one behind it that it finds.
  void start(std::shared_ptr<Peer> peer, const WaitingCall& call);
  void startParked();
  void writableAgain();
  // Sleeps until the other end keeps up; nothing when it does, or when the connection has gone or a stop is requested.
  std::optional<CallError> awaitWritable(const std::shared_ptr<Peer>& peer, std::optional<Clock::time_point> deadline,
                                         Behind behind, const std::stop_token& stop = {});
  std::optional<CallError> awaitConnection(std::optional<Clock::time_point> deadline, Behind behind,
                                           std::shared_ptr<Peer>& peer);
  void sleep(std::optional<Clock::time_point> deadline) VELTO_REQUIRES(condition_);
  std::shared_ptr<Peer> connected() const;
  // As handlers are run.
  void perform(std::function<void()> task);

  const NSString name_;
  const ClientOptions options_;
  const TaskQueue tasks_;
  const NSCondition condition_ = NSCondition::condition();
  Phase phase_ VELTO_GUARDED_BY(condition_) = Phase::connecting;
  std::uint64_t attempt_ VELTO_GUARDED_BY(condition_) = 0;
  Clock::time_point triesUntil_ VELTO_GUARDED_BY(condition_);
  bool wasConnected_ VELTO_GUARDED_BY(condition_) = false;
  std::chrono::milliseconds pause_ VELTO_GUARDED_BY(condition_){0};
  std::optional<CallError> error_ VELTO_GUARDED_BY(condition_);
  std::shared_ptr<NameSearch> search_ VELTO_GUARDED_BY(condition_);
  std::shared_ptr<Peer> peer_ VELTO_GUARDED_BY(condition_);
  // This one, and those before it of which something may still run.
  std::vector<std::weak_ptr<Peer>> peers_ VELTO_GUARDED_BY(condition_);
  // In whose queue handlers run, or ran last; until there is one, in one of their own.
  std::shared_ptr<Peer> lastPeer_ VELTO_GUARDED_BY(condition_);
  std::shared_ptr<xpc::DelayedCall> retry_ VELTO_GUARDED_BY(condition_);
  // When reconnecting is given up.
  std::shared_ptr<xpc::DelayedCall> lastTry_ VELTO_GUARDED_BY(condition_);
  // What waits for a connection, and what waits for the other end to keep up.
  WaitingCalls waiting_ VELTO_GUARDED_BY(condition_){limits::kPendingReplies};
  WaitingCalls parked_ VELTO_GUARDED_BY(condition_){limits::kParkedCalls};
  bool startsParked_ VELTO_GUARDED_BY(condition_) = false;
  // Somebody was told so, and is to hear when it is over.
  bool toldFull_ VELTO_GUARDED_BY(condition_) = false;
};

}  // namespace velto::calls
