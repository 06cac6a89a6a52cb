#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "platform/foundation/Foundation.h"
#include "platform/foundation/ThreadAnnotations.h"
#include "platform/xpc/connection/AcceptedConnections.h"
#include "platform/xpc/connection/Arrivals.h"
#include "platform/xpc/connection/ConnectionLife.h"
#include "platform/xpc/connection/OutgoingCalls.h"
#include "platform/xpc/interface/NSXPCError.h"
#include "platform/xpc/interface/NSXPCInterface.h"
#include "platform/xpc/system/Observation.h"
#include "platform/xpc/transport/Channel.h"
#include "platform/xpc/transport/Holdings.h"
#include "platform/xpc/transport/PeerProcess.h"
#include "platform/xpc/transport/SerialQueue.h"
#include "platform/xpc/transport/Sockets.h"

namespace velto::xpc {

struct DecodedCall;

// The connection behind an NSXPCConnection. It has the lock, the channel and the queue; what there is to know lies in
// three objects that say what is to be done: what goes out, what comes in, its life.
//
// Two locks, never held together with a callback: mutex_ guards everything here and is taken before the channel's own.
// A frame that comes takes it once, and so does a callback before it runs and after it. All user code (methods,
// handlers, reply blocks) runs as tasks of the queue, but for reply blocks that never block.
//
// It outlives its NSXPCConnection by as long as it takes to send what was handed over before: the reactor holds the
// channel, the channel holds this.
class ConnectionCore final : public transport::ChannelReceiver,
                             public transport::HoldingOwner,
                             public transport::Repeatable,
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
  // Its protocol; null without one.
  const Protocol* remoteProtocol() const noexcept { return remoteProtocol_.load(std::memory_order_acquire); }
  void setExportedInterface(std::shared_ptr<NSXPCInterface> interface);
  void setExportedObject(const Protocol& protocol, std::shared_ptr<void> object);
  void setInterruptionHandler(std::function<void()> handler);
  void setInvalidationHandler(std::function<void()> handler);
  void setEndHandler(std::function<void()> handler);

  // Where callbacks run from now on, in place of the platform's threads. Before resume().
  void deliverOn(std::shared_ptr<transport::QueueRunner> runner) { queue_->moveTo(std::move(runner)); }
  // Runs a task as the callbacks are run, behind those that wait.
  void perform(std::function<void()> task) { post(std::move(task)); }
  // Whether a call that is made now goes out at once, as far as this end knows. If not, the handler is called when one
  // would again.
  bool isWritable();
  void setWritableHandler(std::function<void()> handler);

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

  void call(const Method& method, std::span<const NSObject> arguments, ReplyBlock reply,
            const ErrorHandler& errorHandler);

  // For ReplyTicket.
  void sendReply(std::uint64_t identifier, const Method& method, const NSObject& value);
  void dropReply(std::uint64_t identifier);
  void replySettled();
  // Ends the connection without any memory: its other end, and this one, hear of it.
  void giveUp() noexcept;

  void framesArrived(std::span<wire::Frame> frames) override;
  void channelEnded(const std::string& reason) override;
  void outputDrained() override;
  void heldTooMuch(const std::string& reason) override;
  void mayReadOn() override;
  void takeTurn(unsigned kind) override;

 private:
  // Of the queue.
  enum Turn : unsigned { kCallsTurn, kReplysTurn };
  struct Due;
  class CreditAtEnd;
  class LastWord;

  // ConnectionCore.cpp: how it begins and ends.
  bool isInherited() const noexcept { return generation_ != system::forkGeneration(); }
  void open(system::Descriptor socket, std::shared_ptr<transport::PeerProcess> peer,
            std::shared_ptr<AcceptedConnections::Place> place);
  void attach(std::shared_ptr<transport::Channel> channel) VELTO_REQUIRES(mutex_);
  void learnClaimable() VELTO_REQUIRES(mutex_);
  std::shared_ptr<transport::Channel> currentChannel();
  void sayFarewell() VELTO_REQUIRES(mutex_);
  void boundFarewell(const std::shared_ptr<transport::Channel>& channel);
  void endFarewell();
  void breakProtocol(const std::string& reason);
  void cutOff(NSXPCErrorCode code, const std::string& reason);
  void end(const Ending& ending);
  std::function<void()> takeInterruptionHandler();
  void postInvalidation();
  void tellInvalidation();
  void tellNobody() noexcept;
  void tellEndHere();
  // What a connection that has ended still holds behind a callback that does not return.
  void watchLeftovers();
  void dropLeftoversIfStuck();
  void post(transport::SerialQueue::Task task);
  // Whether it fails because the connection is over, and that in good order, is known to whoever runs the handler.
  void postFailure(const ErrorHandler& handler, const NSError& error, bool byOrderlyEnd = false);
  void postFailures(const std::vector<OutgoingCall>& calls, const NSError& error, bool byOrderlyEnd);
  void letGo(std::vector<OutgoingCall> calls);

  // FramesThatCome.cpp; each notes what it brings about.
  std::span<wire::Frame> dispatchSome(std::span<wire::Frame> frames, Due& due) VELTO_REQUIRES(mutex_);
  void dispatch(wire::Frame& frame, Due& due) VELTO_REQUIRES(mutex_);
  void helloArrived(const wire::Frame& frame, Due& due) VELTO_REQUIRES(mutex_);
  void callArrived(wire::Frame& frame, Due& due) VELTO_REQUIRES(mutex_);
  void replyArrived(wire::Frame& frame, Due& due) VELTO_REQUIRES(mutex_);
  void replyDroppedArrived(const wire::Frame& frame, Due& due) VELTO_REQUIRES(mutex_);
  void refusalArrived(const wire::Frame& frame, Due& due) VELTO_REQUIRES(mutex_);
  void creditArrived(const wire::Frame& frame, Due& due) VELTO_REQUIRES(mutex_);
  void carryOut(Due& due);
  static void tellDropped(const std::vector<OutgoingCall>& calls);
  // User code that never blocks, on whatever thread this is.
  static void runHere(const std::function<void()>& block);
  void finishOnReader(const OutgoingCall& call, wire::Frame& frame, const NSXPCInterface& interface);

  // CallsAndReplies.cpp
  void refuseOwn(std::uint64_t identifier, const ErrorHandler& handler, const Method& method, const NSError& reason,
                 bool byOrderlyEnd = false);
  void postNotSent(const ErrorHandler& handler, const Method& method, const NSError& reason, bool byOrderlyEnd = false);
  void sendWaiting(transport::Channel::Haste haste = transport::Channel::Haste::now) VELTO_REQUIRES(mutex_);
  std::size_t waitingInChannel() const VELTO_REQUIRES(mutex_) { return channel_ ? channel_->waitingBytes() : 0; }
  // Whether what a task of the queue, or a user, sends may be gathered.
  transport::Channel::Haste hasteHere() VELTO_REQUIRES(mutex_);
  transport::Channel::Haste hasteOf(const OutgoingCall& call) VELTO_REQUIRES(mutex_);
  // Sends a frame, if there is anybody to send it to. 0, or, when the other end does not read and one frame more would
  // be too many, the bytes that would then wait; it is not sent.
  std::size_t sendControl(wire::Frame&& frame) VELTO_REQUIRES(mutex_);
  // For the small frames of which an end that reads never lets many collect. One may stand for a reply that is owed.
  void sendOrCutOff(wire::Frame frame, bool settlesReply);
  void deliver();
  void deliverOne(Arrivals::Turn& turn);
  void deliverAhead(Arrivals::Turn& turn);
  // `called` is set as soon as the user's code runs, `isOwedReply` once that can answer.
  void deliver(Arrivals::Turn& turn, bool& isOwedReply, bool& called);
  void invoke(const DecodedCall& call, void* object, std::size_t bytes, std::size_t owedReplies, bool& isOwedReply,
              bool& called);
  void refuse(std::uint64_t identifier, std::uint64_t code, const std::string& reason);
  void dealtWith(Arrivals::Size call, bool isOwedReply);
  void giveCredit() VELTO_REQUIRES(mutex_);
  // Of a reply, which does not wait for its turn any more: whoever sent it may send others.
  void acknowledgeRegions(const wire::Frame& reply) VELTO_REQUIRES(mutex_);
  void deliverReply();
  void finishCall(const OutgoingCall& call, wire::Frame& frame, const NSXPCInterface& interface);
  bool isBehind() const VELTO_REQUIRES(mutex_);
  // The handler, if it is due.
  std::function<void()> writableAgain() VELTO_REQUIRES(mutex_);
  // What this makes the process hold.
  void stateWaiting() VELTO_REQUIRES(mutex_);
  void stateArrived() VELTO_REQUIRES(mutex_);

  const unsigned generation_ = system::forkGeneration();
  const std::string name_;
  const std::string target_;
  const Connector connector_;
  system::ObservedConnection observed_;
  const std::shared_ptr<transport::SerialQueue> queue_;
  std::shared_ptr<transport::Holding> holding_;  // made with the connection, and then read only
  std::atomic<std::uint64_t> lastIdentifier_{0};
  std::atomic<const Protocol*> remoteProtocol_{nullptr};
  std::atomic<bool> peerTakesRegions_{false};
  std::atomic<std::size_t> roomForRegions_{limits::kMaximumRegionBytes};

  Mutex mutex_;
  std::shared_ptr<transport::Channel> channel_ VELTO_GUARDED_BY(mutex_);
  std::shared_ptr<transport::PeerProcess> peer_ VELTO_GUARDED_BY(mutex_);
  OutgoingCalls outgoing_ VELTO_GUARDED_BY(mutex_);
  // Calls that had come when the last went out.
  std::uint64_t callsSeen_ VELTO_GUARDED_BY(mutex_) = 0;
  // Somebody waits for the other end to keep up.
  bool awaitsWritable_ VELTO_GUARDED_BY(mutex_) = false;
  std::function<void()> writableHandler_ VELTO_GUARDED_BY(mutex_);
  std::function<void()> endHandler_ VELTO_GUARDED_BY(mutex_);
  Arrivals arrivals_ VELTO_GUARDED_BY(mutex_);
  ConnectionLife life_ VELTO_GUARDED_BY(mutex_);
};

}  // namespace velto::xpc
