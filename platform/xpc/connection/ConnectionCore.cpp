// How a connection begins and ends. Whatever the cause, an end is told in one order: the calls that are not settled,
// each to its proxy's error handler; the interruption handler if the other end vanished; the invalidation handler. All
// of it goes through the queue, behind what had arrived before.

#include "platform/xpc/connection/ConnectionCore.h"

#include <utility>

#include "platform/logging/OrderlyEnd.h"
#include "platform/xpc/connection/ConnectRetries.h"
#include "platform/xpc/contract/Limits.h"
#include "platform/xpc/interface/Errors.h"
#include "platform/xpc/transport/OwnReading.h"
#include "platform/xpc/wire/Messages.h"

namespace velto::xpc {

namespace {

void logDropped(const std::string& name, std::size_t bytes) {
  VKTLoggingLog(VKTLogGetAnchor(), VKTLogLevelFailure,
                "%s was invalidated %d ms ago, which is the maximum: %u bytes are not sent any more", name,
                limits::kFarewell.count(), bytes);
}

system::ObservedConnection::End observedEnd(Ending::Cause cause) noexcept {
  using End = system::ObservedConnection::End;
  if (cause == Ending::Cause::goodbye) return End::saidGoodbye;
  return cause == Ending::Cause::unreachable ? End::neverConnected : End::interrupted;
}

}  // namespace

// The end is told, or, where nothing is run any more, what would have heard of it is let go of.
class ConnectionCore::LastWord {
 public:
  explicit LastWord(std::shared_ptr<ConnectionCore> core) : core_(std::move(core)) {}
  ~LastWord() {
    if (core_) core_->tellNobody();
  }
  LastWord(const LastWord&) = delete;
  LastWord& operator=(const LastWord&) = delete;

  void tell() { std::exchange(core_, nullptr)->tellInvalidation(); }

 private:
  std::shared_ptr<ConnectionCore> core_;
};

std::shared_ptr<ConnectionCore> ConnectionCore::connecting(std::string name, std::string target, Connector connector) {
  auto core =
      std::make_shared<ConnectionCore>(std::move(name), std::move(target), std::move(connector), AcceptanceHooks{});
  core->holding_ = std::make_shared<transport::Holding>(core);
  return core;
}

std::shared_ptr<ConnectionCore> ConnectionCore::accepted(system::Descriptor socket,
                                                         std::shared_ptr<transport::PeerProcess> peer,
                                                         std::shared_ptr<AcceptedConnections::Place> place,
                                                         AcceptanceHooks hooks) {
  auto core = std::make_shared<ConnectionCore>("an accepted connection", "", nullptr, std::move(hooks));
  AcceptedConnections::shared().belongsTo(*place, core);
  core->holding_ = std::make_shared<transport::Holding>(core);
  core->open(std::move(socket), std::move(peer), std::move(place));
  return core;
}

ConnectionCore::ConnectionCore(std::string name, std::string target, Connector connector, AcceptanceHooks hooks)
    : name_(std::move(name)),
      target_(std::move(target)),
      connector_(std::move(connector)),
      observed_(name_.c_str(), !connector_),
      queue_(transport::Reactor::shared().makeQueue()),
      life_(std::move(hooks)) {}

void ConnectionCore::setRemoteInterface(std::shared_ptr<NSXPCInterface> interface) {
  MutexLock lock(mutex_);
  remoteProtocol_.store(interface ? &interface->protocol() : nullptr, std::memory_order_release);
  outgoing_.swapInterface(interface);
}

void ConnectionCore::setExportedInterface(std::shared_ptr<NSXPCInterface> interface) {
  MutexLock lock(mutex_);
  arrivals_.swapInterface(interface);
}

void ConnectionCore::setExportedObject(const Protocol& protocol, std::shared_ptr<void> object) {
  MutexLock lock(mutex_);
  if (!life_.isOver()) arrivals_.swapObject(protocol, object);
}

void ConnectionCore::setInterruptionHandler(std::function<void()> handler) {
  MutexLock lock(mutex_);
  life_.swapInterruptionHandler(handler);
}

void ConnectionCore::setInvalidationHandler(std::function<void()> handler) {
  MutexLock lock(mutex_);
  life_.swapInvalidationHandler(handler);
}

void ConnectionCore::setEndHandler(std::function<void()> handler) {
  MutexLock lock(mutex_);
  std::swap(endHandler_, handler);
}

void ConnectionCore::post(transport::SerialQueue::Task task) {
  queue_->add(std::move(task));
}

void ConnectionCore::postFailure(const ErrorHandler& handler, const NSError& error, bool byOrderlyEnd) {
  if (!handler || !*handler) return;
  const auto told = [handler, error, byOrderlyEnd] {
    const OrderlyEnd order(byOrderlyEnd);
    (*handler)(error);
  };
  if (handler->target<NonBlockingReply<NSError>>() != nullptr) return runHere(told);
  post(told);
}

void ConnectionCore::postFailures(const std::vector<OutgoingCall>& calls, const NSError& error, bool byOrderlyEnd) {
  for (const OutgoingCall& call : calls) {
    const std::string text = call.method->selector + ": " + error.localizedDescription().string();
    postFailure(call.errorHandler, makeError(static_cast<NSXPCErrorCode>(error.code()), text), byOrderlyEnd);
  }
}

// What calls hold is the user's, down to how it is destroyed: never under a lock, and not on a thread that reads.
void ConnectionCore::letGo(std::vector<OutgoingCall> calls) {
  if (!calls.empty()) post([calls = std::move(calls)] {});
}

void ConnectionCore::resume() {
  if (isInherited()) return;
  std::optional<Ending> ending;
  std::vector<Arrivals::Turn> prompt;
  std::size_t kept = 0;
  std::vector<system::SharedDescriptor> dropped;
  {
    MutexLock lock(mutex_);
    if (!life_.resume(ConnectionLife::Clock::now())) return;
    learnClaimable();
    dropped = arrivals_.takeDropped();
    stateArrived();
    while (auto turn = arrivals_.takePrompt()) prompt.push_back(*std::move(turn));
    kept = arrivals_.waitingCalls();
    ending = life_.takeKeptEnding();
    if (life_.maySendCalls()) sendWaiting();
  }
  for (Arrivals::Turn& turn : prompt) deliverAhead(turn);
  if (kept > 0) queue_->add(shared_from_this(), kCallsTurn, kept);
  if (ending) end(*ending);
  if (connector_ && connectAgain()) ConnectRetries::shared().wait(target_, weak_from_this());
}

bool ConnectionCore::connectAgain() {
  bool patient = false;
  {
    MutexLock lock(mutex_);
    if (!life_.mayConnect()) return false;
    patient = life_.isPatient(ConnectionLife::Clock::now());
  }
  auto attempt = [this] {
    const system::KeyForNextSocket key(observed_);
    return connector_();
  }();
  if (attempt.full && patient) return true;
  if (attempt.socket) {
    auto peer = transport::PeerProcess::of(attempt.socket.get());
    open(std::move(attempt.socket), std::move(peer), nullptr);
  } else {
    end({makeError(NSXPCConnectionInvalid, name_ + " cannot be reached: " + attempt.reason),
         Ending::Cause::unreachable});
  }
  return false;
}

void ConnectionCore::learnClaimable() {
  const auto& called = outgoing_.interface();
  const std::size_t most =
      arrivals_.learnClaimable(called ? called->claimableDescriptors(true) : 0, called && called->admitsData(true));
  if (channel_) channel_->setClaimableDescriptors(most);
}

void ConnectionCore::attach(std::shared_ptr<transport::Channel> channel) {
  channel_ = std::move(channel);
  if (life_.isResumed()) learnClaimable();
  channel_->send(wire::Hello::ours().encode());
  life_.channelOpened();
  if (life_.isClosing()) sayFarewell();
  if (life_.maySendCalls()) sendWaiting();
}

void ConnectionCore::open(system::Descriptor socket, std::shared_ptr<transport::PeerProcess> peer,
                          std::shared_ptr<AcceptedConnections::Place> place) {
  transport::OwnReading::prepare();
  observed_.connected(socket.get(), peer->identifier());
  auto channel =
      std::make_shared<transport::Channel>(std::move(socket), shared_from_this(), holding_, std::move(place));
  std::vector<OutgoingCall> forgotten;
  {
    MutexLock lock(mutex_);
    peer_ = peer;
    if (life_.hasEnded()) return;
    attach(channel);
    forgotten = outgoing_.takeForgotten();
  }
  letGo(std::move(forgotten));
  // Whoever connects has mostly called by the time that he is accepted: this thread, which is here, deals with it
  // before another is told.
  if (!connector_) channel->readFirst();
  if (!channel->start()) {
    channel->abort();
    return end({makeError(NSXPCConnectionInvalid, name_ + " cannot be watched: the kernel has no room"),
                Ending::Cause::unreachable});
  }
  channel->watch(*peer);
}

void ConnectionCore::sayFarewell() {
  if (!channel_) return;
  sendWaiting();
  if (outgoing_.hasWaiting()) return;
  life_.finish();
  // Who would hear of them may be who holds this connection.
  outgoing_.forgetAll();
  channel_->send(wire::encodeGoodbye());
  channel_->finish();
  boundFarewell(std::exchange(channel_, nullptr));
}

void ConnectionCore::boundFarewell(const std::shared_ptr<transport::Channel>& channel) {
  if (channel->waitingBytes() == 0) return;
  transport::Reactor::shared().timers().add(limits::kFarewell, [weak = std::weak_ptr(channel), name = name_] {
    const auto late = weak.lock();
    if (!late || late->waitingBytes() == 0) return;
    logDropped(name, late->waitingBytes());
    late->abort();
  });
}

void ConnectionCore::endFarewell() {
  std::size_t waiting = 0;
  {
    MutexLock lock(mutex_);
    if (!life_.isClosing()) return;
    waiting = outgoing_.waitingBytes() + waitingInChannel();
  }
  logDropped(name_, waiting);
  turnAway();
}

void ConnectionCore::invalidate() {
  if (isInherited()) return;
  std::vector<OutgoingCall> unanswered;
  std::vector<OutgoingCall> forgotten;
  std::function<void()> called;
  bool waits = false;
  {
    MutexLock lock(mutex_);
    if (life_.isOver()) return;
    arrivals_.silence();
    arrivals_.dropCalls();
    stateArrived();
    life_.invalidate(channel_ != nullptr, makeError(NSXPCConnectionInvalid, name_ + " was invalidated"));
    unanswered = life_.isClosing() ? outgoing_.takeAllAwaitingReply() : outgoing_.takeAllUnsettled(0);
    sayFarewell();
    forgotten = outgoing_.takeForgotten();
    waits = life_.isClosing();
    called = life_.takeCalled();
  }
  if (waits) {
    transport::Reactor::shared().timers().add(limits::kFarewell, [weak = weak_from_this()] {
      if (const auto self = weak.lock()) self->endFarewell();
    });
  }
  if (called) called();
  observed_.ended(system::ObservedConnection::End::invalidatedHere, "");
  postFailures(unanswered, makeError(NSXPCConnectionInvalid, name_ + " was invalidated before the reply came"), true);
  letGo(std::move(unanswered));
  letGo(std::move(forgotten));
  tellEndHere();
  postInvalidation();
}

void ConnectionCore::invalidateAtOnce() {
  if (isInherited()) return;
  const auto channel = currentChannel();
  invalidate();
  // The goodbye is written, if there was room for it.
  if (channel) channel->abort();
  turnAway();
}

std::shared_ptr<transport::PeerProcess> ConnectionCore::peer() {
  MutexLock lock(mutex_);
  return peer_;
}

void ConnectionCore::turnAway() {
  std::shared_ptr<transport::Channel> channel;
  std::vector<OutgoingCall> forgotten;
  {
    MutexLock lock(mutex_);
    life_.finish();
    channel = std::exchange(channel_, nullptr);
    outgoing_.forgetAll();
    forgotten = outgoing_.takeForgotten();
  }
  if (channel) channel->abort();
  letGo(std::move(forgotten));
}

void ConnectionCore::turnAwayIfSilent() {
  {
    MutexLock lock(mutex_);
    if (!life_.isSilent()) return;
    // A call that is on its way in comes too late.
    arrivals_.silence();
  }
  turnAway();
}

void ConnectionCore::giveWay(const std::string& reason) {
  breakProtocol(reason);
}

void ConnectionCore::channelEnded(const std::string& reason) {
  if (!reason.empty()) return cutOff(NSXPCConnectionInterrupted, reason);
  end({makeError(NSXPCConnectionInterrupted, name_ + " was interrupted: the other end has vanished"),
       Ending::Cause::interruption});
}

std::shared_ptr<transport::Channel> ConnectionCore::currentChannel() {
  MutexLock lock(mutex_);
  return channel_;
}

void ConnectionCore::giveUp() noexcept {
  if (const auto channel = currentChannel()) channel->giveUp();
}

void ConnectionCore::breakProtocol(const std::string& reason) {
  cutOff(NSXPCConnectionInterrupted, reason);
}

void ConnectionCore::cutOff(NSXPCErrorCode code, const std::string& reason) {
  if (const auto channel = currentChannel()) channel->abort();
  VKTLoggingLog(VKTLogGetAnchor(), VKTLogLevelFailure, "%s is cut off: %s", name_, reason);
  end({makeError(code, name_ + " was interrupted: " + reason), Ending::Cause::interruption});
}

void ConnectionCore::end(const Ending& ending) {
  std::vector<OutgoingCall> unsettled;
  std::vector<OutgoingCall> forgotten;
  std::shared_ptr<transport::Channel> channel;
  std::function<void()> called;
  auto telling = ConnectionLife::Telling::never;
  {
    MutexLock lock(mutex_);
    channel = std::exchange(channel_, nullptr);
    if (life_.isClosing()) {
      outgoing_.forgetAll();
      forgotten = outgoing_.takeForgotten();
    }
    telling = life_.end(ending);
    if (telling == ConnectionLife::Telling::never) return;
    called = life_.takeCalled();
    if (telling == ConnectionLife::Telling::now) {
      unsettled = outgoing_.takeAllUnsettled(channel ? channel->framesWritten() : 0);
      forgotten = outgoing_.takeForgotten();
      stateWaiting();
    }
  }
  if (called) called();
  if (telling == ConnectionLife::Telling::later) return;
  observed_.ended(observedEnd(ending.cause), ending.error.localizedDescription().UTF8String());
  postFailures(unsettled, ending.error, ending.cause == Ending::Cause::goodbye);
  letGo(std::move(unsettled));
  letGo(std::move(forgotten));
  tellEndHere();
  if (ending.cause == Ending::Cause::interruption) {
    post([self = shared_from_this()] {
      if (const auto handler = self->takeInterruptionHandler()) handler();
    });
  }
  postInvalidation();
  watchLeftovers();
  holding_->isOver();
}

std::function<void()> ConnectionCore::takeInterruptionHandler() {
  MutexLock lock(mutex_);
  return life_.takeInterruptionHandler();
}

void ConnectionCore::postInvalidation() {
  // In this order: a queue that is urgent already is brought to a thread once, not twice.
  queue_->letOvertake();
  post([last = std::make_shared<LastWord>(shared_from_this())] { last->tell(); });
}

void ConnectionCore::tellEndHere() {
  std::function<void()> handler;
  {
    MutexLock lock(mutex_);
    handler.swap(endHandler_);
  }
  if (handler) runHere(handler);
}

void ConnectionCore::tellNobody() noexcept {
  std::shared_ptr<void> object;
  ConnectionLife::LastWill left;
  std::function<void()> writable;
  MutexLock lock(mutex_);
  writable.swap(writableHandler_);
  object = arrivals_.takeObject();
  left = life_.takeLastWill();
}

void ConnectionCore::tellInvalidation() {
  // Let go of after the handler has run: it may be all that keeps this connection's owner alive.
  std::shared_ptr<void> object;
  ConnectionLife::LastWill left;
  std::function<void()> writable;
  bool inGoodOrder = false;
  {
    MutexLock lock(mutex_);
    writable.swap(writableHandler_);
    object = arrivals_.takeObject();
    left = life_.takeLastWill();
    inGoodOrder = life_.isOverInGoodOrder();
  }
  if (writable) runHere(writable);
  const OrderlyEnd told(inGoodOrder);
  if (left.invalidationHandler) left.invalidationHandler();
}

// What came before the end is delivered before the end is told. But what a connection holds is given back when it is
// over: if the callback that is in the way does not return, the rest is not delivered any more.
void ConnectionCore::watchLeftovers() {
  {
    MutexLock lock(mutex_);
    if (arrivals_.isEmpty()) return;
    arrivals_.look();
  }
  transport::Reactor::shared().timers().add(limits::kLeftoverPatience, [weak = weak_from_this()] {
    if (const auto self = weak.lock()) self->dropLeftoversIfStuck();
  });
}

void ConnectionCore::dropLeftoversIfStuck() {
  std::size_t dropped = 0;
  {
    MutexLock lock(mutex_);
    if (arrivals_.isStuck()) {
      dropped = arrivals_.dropAll();
      stateArrived();
    }
  }
  if (dropped == 0) return watchLeftovers();
  VKTLoggingLog(VKTLogGetAnchor(), VKTLogLevelFailure,
                "%s has ended, and a callback has not returned for %d ms, which is the maximum: %u calls and replies "
                "behind it are not delivered any more",
                name_, limits::kLeftoverPatience.count(), dropped);
}

void ConnectionCore::heldTooMuch(const std::string& reason) {
  breakProtocol(reason);
  MutexLock lock(mutex_);
  arrivals_.dropAll();
  stateArrived();
}

void ConnectionCore::mayReadOn() {
  if (const auto channel = currentChannel()) channel->readOn();
}

}  // namespace velto::xpc
