#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/foundation/Foundation.h"
#include "platform/foundation/ThreadAnnotations.h"
#include "platform/xpc/connection/AcceptedConnections.h"
#include "platform/xpc/connection/OutgoingCalls.h"
#include "platform/xpc/interface/NSXPCError.h"
#include "platform/xpc/interface/NSXPCInterface.h"
#include "platform/xpc/transport/Channel.h"
#include "platform/xpc/transport/Holdings.h"
#include "platform/xpc/transport/PeerProcess.h"
#include "platform/xpc/transport/SerialQueue.h"
#include "platform/xpc/transport/Sockets.h"

namespace velto::wire {
class ValueDecoder;
}

namespace velto::xpc {

class ConnectionCore;

// What an accepted connection owes its listener. `called` runs on a thread that reads, once: when the first call has
// come or the connection has ended without one. `accept` runs on the connection's queue, before the first call is
// delivered.
struct AcceptanceHooks {
  std::function<void()> called;
  std::function<void(std::shared_ptr<ConnectionCore>)> accept;
};

// The connection behind an NSXPCConnection: its life, its calls out, its calls in.
//
// Two locks, never held together with a callback: mutex_ guards everything here and is taken before the channel's own.
// All user code (methods, handlers, reply blocks) runs as tasks of the queue, but for reply blocks that never block.
//
// It outlives its NSXPCConnection by as long as it takes to send what was handed over before: the reactor holds the
// channel, the channel holds this.
class ConnectionCore final : public transport::ChannelReceiver,
                             public transport::HoldingOwner,
                             public std::enable_shared_from_this<ConnectionCore> {
 public:
  // Each try to connect. The name is the connection's in errors; the target is the same for all connections to one
  // listener.
  using Connector = std::function<transport::ConnectAttempt()>;
  static std::shared_ptr<ConnectionCore> connecting(std::string name, std::string target, Connector connector);
  // Takes a connected socket over and starts to read.
  static std::shared_ptr<ConnectionCore> accepted(system::Descriptor socket,
                                                  std::shared_ptr<transport::PeerProcess> peer,
                                                  std::shared_ptr<AcceptedConnections::Place> place,
                                                  AcceptanceHooks hooks);
  ConnectionCore(std::string name, std::string target, Connector connector, AcceptanceHooks hooks);

  void setRemoteInterface(std::shared_ptr<NSXPCInterface> interface);
  std::shared_ptr<NSXPCInterface> remoteInterface();
  void setExportedInterface(std::shared_ptr<NSXPCInterface> interface);
  void setExportedObject(const Protocol& protocol, std::shared_ptr<void> object);
  void setInterruptionHandler(std::function<void()> handler);
  void setInvalidationHandler(std::function<void()> handler);

  void resume();
  // For one that waits in line: whether it goes on waiting.
  bool connectAgain();
  void invalidate();
  void invalidateAtOnce();
  // Null until the connection is made.
  std::shared_ptr<transport::PeerProcess> peer();
  // Ends a connection that nobody has accepted.
  void turnAway();
  // The same for one that has not called. What has called is its delegate's, or about to be, and goes on.
  void turnAwayIfSilent();
  // Ends it like one that has broken the protocol.
  void giveWay(const std::string& reason);

  void call(const Method& method, std::vector<NSObject> arguments, ReplyBlock reply, ErrorHandler errorHandler);

  // For ReplyTicket.
  void sendReply(std::uint64_t identifier, const Method& method, const NSObject& value);
  void dropReply(std::uint64_t identifier);
  void replySettled();
  // Ends the connection without any memory: its other end, and this one, hear of it.
  void giveUp() noexcept;

  void frameArrived(wire::Frame frame) override;
  void channelEnded(const std::string& reason) override;
  void outputDrained() override;
  void heldTooMuch(const std::string& reason) override;
  void mayReadOn() override;

 private:
  enum class Phase {
    idle,        // not resumed
    connecting,  // resumed, no channel yet
    open,
    closing,  // invalidated here; what was handed over before still goes out
    ended
  };
  // How the other end left.
  struct Ending {
    NSError error;  // for the calls that are not settled
    bool interrupted = false;
  };
  struct Account {
    std::uint64_t bytes = 0;
    std::uint64_t calls = 0;
  };
  // A reply that has come, whose turn in the queue has not. Without its frame when that was given back.
  struct ArrivedReply {
    OutgoingCall call;
    std::optional<wire::Frame> frame;
  };
  // How many descriptors a call or a reply may carry that anybody here claims.
  struct Claimable {
    std::size_t byCalls = limits::kMaximumDescriptors;
    std::size_t byReplies = limits::kMaximumDescriptors;
  };

  // ConnectionLife.cpp
  bool isInherited() const noexcept { return generation_ != system::forkGeneration(); }
  void post(transport::SerialQueue::Task task);
  void postFailures(const std::vector<OutgoingCall>& calls, const NSError& error);
  void postFailure(const ErrorHandler& handler, const NSError& error);
  void letGo(std::vector<OutgoingCall> calls);
  void postInvalidation();
  void open(system::Descriptor socket, std::shared_ptr<transport::PeerProcess> peer,
            std::shared_ptr<AcceptedConnections::Place> place);
  void attach(std::shared_ptr<transport::Channel> channel) VELTO_REQUIRES(mutex_);
  void sayFarewell() VELTO_REQUIRES(mutex_);
  void boundFarewell(const std::shared_ptr<transport::Channel>& channel);
  void endFarewell();
  void end(Ending ending);
  void learnClaimable() VELTO_REQUIRES(mutex_);
  // What a connection that has ended still holds behind a callback that does not return.
  void watchLeftovers();
  void dropLeftoversIfStuck();
  // Returns how many calls and replies there were.
  std::size_t dropLeftovers() VELTO_REQUIRES(mutex_);
  void dropCalls() VELTO_REQUIRES(mutex_);
  void stateArrived() VELTO_REQUIRES(mutex_);
  void breakProtocol(const std::string& reason);
  void cutOff(NSXPCErrorCode code, const std::string& reason);
  std::shared_ptr<transport::Channel> currentChannel();
  void runInterruptionHandler();
  void runInvalidationHandler();
  void tellListener();

  // OutgoingTraffic.cpp
  void sendWaiting() VELTO_REQUIRES(mutex_);
  void postNotSent(const ErrorHandler& handler, const Method& method, const NSError& reason);
  NSError refusalToKeep(const wire::Frame& frame, bool wantsReply) VELTO_REQUIRES(mutex_);
  // What of a frame is more than the other end has stated to take; "" when nothing is.
  std::string overPeerLimits(const wire::Frame& frame) VELTO_REQUIRES(mutex_);
  // Sends a frame, if there is anybody to send it to. 0, or, when the other end does not read and one frame more would
  // be too many, the bytes that would then wait; it is not sent.
  std::size_t sendControl(wire::Frame frame);
  void helloArrived(const wire::Frame& frame);
  void creditArrived(const wire::Frame& frame);
  void goodbyeArrived(const wire::Frame& frame);
  void replyArrived(wire::Frame frame);
  void replyDroppedArrived(const wire::Frame& frame);
  void refusalArrived(const wire::Frame& frame);
  void deliverReply();
  void finishOnReader(const OutgoingCall& call, const wire::Frame& frame);
  void finishCall(const OutgoingCall& call, const wire::Frame& frame);
  void stateWaiting() VELTO_REQUIRES(mutex_);

  // IncomingCalls.cpp
  void callArrived(wire::Frame frame);
  void breakCredit(const std::string& reason);
  // Lets go of the descriptors of a frame that nobody can claim. False when only a peer that cheats sends so many.
  static bool keepClaimable(wire::Frame& frame, std::size_t most);
  void postDelivery();
  void deliver();
  std::optional<wire::Frame> takeCall();
  // `called` is set as soon as the user's code runs.
  void dispatch(const wire::Frame& frame, bool& called);
  // False when the call has been refused, or has ended the connection.
  bool decodeArguments(const wire::Frame& frame, const NSXPCInterface& interface, const Method& method,
                       const wire::CallHeader& header, wire::ValueDecoder& decoder, std::vector<NSObject>& arguments);
  void invoke(const Method& method, void* object, const std::vector<NSObject>& arguments,
              const wire::CallHeader& header, bool& called);
  void refuse(std::uint64_t identifier, std::uint64_t code, const std::string& reason);
  // For the small frames of which an end that reads never lets many collect.
  void sendOrCutOff(wire::Frame frame);
  void giveBack(std::size_t bytes);
  void giveCredit() VELTO_REQUIRES(mutex_);

  const unsigned generation_ = system::forkGeneration();
  const std::string name_;
  const std::string target_;
  const Connector connector_;
  const std::shared_ptr<transport::SerialQueue> queue_;
  std::shared_ptr<transport::Holding> holding_;  // made with the connection, and then read only
  std::atomic<std::uint64_t> lastIdentifier_{0};

  Mutex mutex_;
  Phase phase_ VELTO_GUARDED_BY(mutex_) = Phase::idle;
  bool resumed_ VELTO_GUARDED_BY(mutex_) = false;
  std::chrono::steady_clock::time_point patientUntil_ VELTO_GUARDED_BY(mutex_);
  // Calls of the other end are no longer delivered.
  bool silenced_ VELTO_GUARDED_BY(mutex_) = false;
  std::shared_ptr<transport::Channel> channel_ VELTO_GUARDED_BY(mutex_);
  std::shared_ptr<transport::PeerProcess> peer_ VELTO_GUARDED_BY(mutex_);
  std::shared_ptr<NSXPCInterface> remoteInterface_ VELTO_GUARDED_BY(mutex_);
  std::shared_ptr<NSXPCInterface> exportedInterface_ VELTO_GUARDED_BY(mutex_);
  const Protocol* exportedProtocol_ VELTO_GUARDED_BY(mutex_) = nullptr;
  std::shared_ptr<void> exportedObject_ VELTO_GUARDED_BY(mutex_);
  std::function<void()> interruptionHandler_ VELTO_GUARDED_BY(mutex_);
  std::function<void()> invalidationHandler_ VELTO_GUARDED_BY(mutex_);
  AcceptanceHooks hooks_ VELTO_GUARDED_BY(mutex_);

  OutgoingCalls outgoing_ VELTO_GUARDED_BY(mutex_);
  bool greeted_ VELTO_GUARDED_BY(mutex_) = false;
  std::size_t peerMaximumBytes_ VELTO_GUARDED_BY(mutex_) = limits::kMaximumFrameBytes;
  std::size_t peerMaximumDescriptors_ VELTO_GUARDED_BY(mutex_) = limits::kMaximumDescriptors;
  // What later calls are told.
  NSError endError_ VELTO_GUARDED_BY(mutex_);

  Claimable claimable_ VELTO_GUARDED_BY(mutex_);
  // Calls and replies whose turn has not come. From resume() on the queue has a task for each.
  std::deque<wire::Frame> arrivedCalls_ VELTO_GUARDED_BY(mutex_);
  std::deque<ArrivedReply> arrivedReplies_ VELTO_GUARDED_BY(mutex_);
  std::size_t arrivedDescriptors_ VELTO_GUARDED_BY(mutex_) = 0;
  // Turns that have come, and their number when it was looked at last.
  std::uint64_t turns_ VELTO_GUARDED_BY(mutex_) = 0;
  std::uint64_t turnsAtLastLook_ VELTO_GUARDED_BY(mutex_) = 0;
  // An end that came before resume().
  std::unique_ptr<Ending> heldEnding_ VELTO_GUARDED_BY(mutex_);
  Account undelivered_ VELTO_GUARDED_BY(mutex_);
  Account dealtWith_ VELTO_GUARDED_BY(mutex_);
  std::size_t undeliveredReplyBytes_ VELTO_GUARDED_BY(mutex_) = 0;
  std::size_t owedReplies_ VELTO_GUARDED_BY(mutex_) = 0;
};

}  // namespace velto::xpc
