// How a connection begins and ends. Whatever the cause, an end is told in one order: the calls that are not settled,
// each to its proxy's error handler; the interruption handler if the other end vanished; the invalidation handler. All
// of it goes through the queue, behind what had arrived before.

#include <algorithm>
#include <utility>

#include "platform/logging/VeltoLogging.h"
#include "platform/xpc/connection/ConnectRetries.h"
#include "platform/xpc/connection/ConnectionCore.h"
#include "platform/xpc/contract/Limits.h"
#include "platform/xpc/interface/Errors.h"
#include "platform/xpc/wire/Messages.h"

namespace velto::xpc {

namespace {

// What keeping a call or a reply costs besides its bytes.
constexpr std::size_t kKeepingBytes = 128;

void logDropped(const std::string& name, std::size_t bytes) {
  VKTLoggingLog(VKTLogGetAnchor(), VKTLogLevelFailure,
                "%s was invalidated %d ms ago, which is the maximum: %u bytes are not sent any more", name,
                limits::kFarewell.count(), bytes);
}

}  // namespace

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
      queue_(transport::Reactor::shared().makeQueue()),
      hooks_(std::move(hooks)) {}

void ConnectionCore::setRemoteInterface(std::shared_ptr<NSXPCInterface> interface) {
  MutexLock lock(mutex_);
  std::swap(remoteInterface_, interface);
}

std::shared_ptr<NSXPCInterface> ConnectionCore::remoteInterface() {
  MutexLock lock(mutex_);
  return remoteInterface_;
}

void ConnectionCore::setExportedInterface(std::shared_ptr<NSXPCInterface> interface) {
  MutexLock lock(mutex_);
  std::swap(exportedInterface_, interface);
}

void ConnectionCore::setExportedObject(const Protocol& protocol, std::shared_ptr<void> object) {
  MutexLock lock(mutex_);
  if (phase_ == Phase::closing || phase_ == Phase::ended) return;
  exportedProtocol_ = &protocol;
  std::swap(exportedObject_, object);
}

void ConnectionCore::setInterruptionHandler(std::function<void()> handler) {
  MutexLock lock(mutex_);
  std::swap(interruptionHandler_, handler);
}

void ConnectionCore::setInvalidationHandler(std::function<void()> handler) {
  MutexLock lock(mutex_);
  std::swap(invalidationHandler_, handler);
}

void ConnectionCore::post(transport::SerialQueue::Task task) {
  queue_->add(std::move(task));
}

void ConnectionCore::postFailure(const ErrorHandler& handler, const NSError& error) {
  if (!handler || !*handler) return;
  post([handler, error] { (*handler)(error); });
}

void ConnectionCore::postFailures(const std::vector<OutgoingCall>& calls, const NSError& error) {
  for (const OutgoingCall& call : calls) {
    const std::string text = call.method->selector + ": " + error.localizedDescription().string();
    postFailure(call.errorHandler, makeError(static_cast<NSXPCErrorCode>(error.code()), text));
  }
}

// What calls hold is the user's, down to how it is destroyed: never under a lock, and not on a thread that reads.
void ConnectionCore::letGo(std::vector<OutgoingCall> calls) {
  if (!calls.empty()) post([calls = std::move(calls)] {});
}

void ConnectionCore::postInvalidation() {
  post([self = shared_from_this()] { self->runInvalidationHandler(); });
  queue_->letOvertake();
}

void ConnectionCore::resume() {
  if (isInherited()) return;
  std::unique_ptr<Ending> ending;
  std::size_t held = 0;
  {
    MutexLock lock(mutex_);
    if (resumed_) return;
    resumed_ = true;
    patientUntil_ = std::chrono::steady_clock::now() + limits::kConnectPatience;
    learnClaimable();
    for (wire::Frame& frame : arrivedCalls_) keepClaimable(frame, claimable_.byCalls);
    arrivedDescriptors_ = 0;
    for (const wire::Frame& frame : arrivedCalls_) arrivedDescriptors_ += frame.descriptors.size();
    stateArrived();
    held = arrivedCalls_.size();
    ending = std::move(heldEnding_);
    if (phase_ == Phase::idle) phase_ = Phase::connecting;
    if (phase_ == Phase::open) sendWaiting();
  }
  for (; held > 0; --held) postDelivery();
  if (ending) end(std::move(*ending));
  if (connector_ && connectAgain()) ConnectRetries::shared().wait(target_, weak_from_this());
}

bool ConnectionCore::connectAgain() {
  bool patient = false;
  {
    MutexLock lock(mutex_);
    if (phase_ != Phase::connecting && phase_ != Phase::closing) return false;
    patient = std::chrono::steady_clock::now() < patientUntil_;
  }
  auto attempt = connector_();
  if (attempt.full && patient) return true;
  if (attempt.socket) {
    auto peer = transport::PeerProcess::of(attempt.socket.get());
    open(std::move(attempt.socket), std::move(peer), nullptr);
  } else {
    end({makeError(NSXPCConnectionInvalid, name_ + " cannot be reached: " + attempt.reason), false});
  }
  return false;
}

void ConnectionCore::learnClaimable() {
  claimable_.byCalls = exportedInterface_ ? exportedInterface_->claimableDescriptors(false) : 0;
  claimable_.byReplies = remoteInterface_ ? remoteInterface_->claimableDescriptors(true) : 0;
  if (channel_) channel_->setClaimableDescriptors(std::max(claimable_.byCalls, claimable_.byReplies));
}

void ConnectionCore::attach(std::shared_ptr<transport::Channel> channel) {
  channel_ = std::move(channel);
  if (resumed_) learnClaimable();
  channel_->send(wire::Hello::ours().encode());
  if (phase_ == Phase::closing) {
    sayFarewell();
    return;
  }
  phase_ = Phase::open;
  if (resumed_) sendWaiting();
}

void ConnectionCore::open(system::Descriptor socket, std::shared_ptr<transport::PeerProcess> peer,
                          std::shared_ptr<AcceptedConnections::Place> place) {
  auto channel =
      std::make_shared<transport::Channel>(std::move(socket), shared_from_this(), holding_, std::move(place));
  {
    MutexLock lock(mutex_);
    peer_ = peer;
    if (phase_ == Phase::ended) return;
    attach(channel);
  }
  if (!channel->start()) {
    channel->abort();
    return end({makeError(NSXPCConnectionInvalid, name_ + " cannot be watched: the kernel has no room"), false});
  }
  channel->watch(*peer);
}

void ConnectionCore::sayFarewell() {
  if (!channel_) return;
  sendWaiting();
  if (outgoing_.hasWaiting()) return;
  phase_ = Phase::ended;
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
    if (phase_ != Phase::closing) return;
    waiting = outgoing_.waitingBytes() + (channel_ ? channel_->waitingBytes() : 0);
  }
  logDropped(name_, waiting);
  turnAway();
}

void ConnectionCore::invalidate() {
  if (isInherited()) return;
  std::vector<OutgoingCall> unanswered;
  bool waits = false;
  {
    MutexLock lock(mutex_);
    if (phase_ == Phase::closing || phase_ == Phase::ended) return;
    const bool canSend = phase_ == Phase::connecting || channel_;
    phase_ = canSend ? Phase::closing : Phase::ended;
    silenced_ = true;
    dropCalls();
    endError_ = makeError(NSXPCConnectionInvalid, name_ + " was invalidated");
    unanswered = canSend ? outgoing_.takeAllAwaitingReply() : outgoing_.takeAllUnsettled(0);
    sayFarewell();
    waits = phase_ == Phase::closing;
  }
  if (waits) {
    transport::Reactor::shared().timers().add(limits::kFarewell, [weak = weak_from_this()] {
      if (const auto self = weak.lock()) self->endFarewell();
    });
  }
  tellListener();
  postFailures(unanswered, makeError(NSXPCConnectionInvalid, name_ + " was invalidated before the reply came"));
  letGo(std::move(unanswered));
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
  {
    MutexLock lock(mutex_);
    phase_ = Phase::ended;
    channel = std::exchange(channel_, nullptr);
  }
  if (channel) channel->abort();
}

void ConnectionCore::turnAwayIfSilent() {
  {
    MutexLock lock(mutex_);
    if (!hooks_.accept) return;
    // A call that is on its way in comes too late.
    silenced_ = true;
  }
  turnAway();
}

void ConnectionCore::giveWay(const std::string& reason) {
  breakProtocol(reason);
}

void ConnectionCore::channelEnded(const std::string& reason) {
  if (!reason.empty()) return cutOff(NSXPCConnectionInterrupted, reason);
  end({makeError(NSXPCConnectionInterrupted, name_ + " was interrupted: the other end has vanished"), true});
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
  end({makeError(code, name_ + " was interrupted: " + reason), true});
}

void ConnectionCore::end(Ending ending) {
  std::vector<OutgoingCall> unsettled;
  std::vector<OutgoingCall> forgotten;
  std::shared_ptr<transport::Channel> channel;
  bool tellNow = false;
  {
    MutexLock lock(mutex_);
    channel = std::exchange(channel_, nullptr);
    if (phase_ == Phase::closing) phase_ = Phase::ended;
    if (phase_ == Phase::ended || heldEnding_) return;
    if (resumed_) {
      phase_ = Phase::ended;
      endError_ = ending.error;
      unsettled = outgoing_.takeAllUnsettled(channel ? channel->framesWritten() : 0);
      forgotten = outgoing_.takeForgotten();
      stateWaiting();
      tellNow = true;
    } else {
      heldEnding_ = std::make_unique<Ending>(ending);
    }
  }
  tellListener();
  if (!tellNow) return;
  postFailures(unsettled, ending.error);
  letGo(std::move(unsettled));
  letGo(std::move(forgotten));
  if (ending.interrupted) post([self = shared_from_this()] { self->runInterruptionHandler(); });
  postInvalidation();
  watchLeftovers();
  holding_->isOver();
}

// What came before the end is delivered before the end is told. But what a connection holds is given back when it is
// over: if the callback that is in the way does not return, the rest is not delivered any more.
void ConnectionCore::watchLeftovers() {
  {
    MutexLock lock(mutex_);
    if (arrivedCalls_.empty() && arrivedReplies_.empty()) return;
    turnsAtLastLook_ = turns_;
  }
  transport::Reactor::shared().timers().add(limits::kLeftoverPatience, [weak = weak_from_this()] {
    if (const auto self = weak.lock()) self->dropLeftoversIfStuck();
  });
}

void ConnectionCore::dropLeftoversIfStuck() {
  std::size_t dropped = 0;
  {
    MutexLock lock(mutex_);
    const std::size_t bytes = undelivered_.bytes + undeliveredReplyBytes_;
    const bool isWorthIt = bytes > limits::kLeftoverBytes || arrivedDescriptors_ > 0;
    if (isWorthIt && turns_ == turnsAtLastLook_) dropped = dropLeftovers();
  }
  if (dropped == 0) return watchLeftovers();
  VKTLoggingLog(VKTLogGetAnchor(), VKTLogLevelFailure,
                "%s has ended, and a callback has not returned for %d ms, which is the maximum: %u calls and replies "
                "behind it are not delivered any more",
                name_, limits::kLeftoverPatience.count(), dropped);
}

std::size_t ConnectionCore::dropLeftovers() {
  const std::size_t dropped = arrivedCalls_.size() + arrivedReplies_.size();
  dropCalls();
  for (ArrivedReply& reply : arrivedReplies_) {
    if (reply.frame) arrivedDescriptors_ -= reply.frame->descriptors.size();
    reply.frame.reset();
  }
  undeliveredReplyBytes_ = 0;
  stateArrived();
  return dropped;
}

void ConnectionCore::dropCalls() {
  for (const wire::Frame& frame : arrivedCalls_) {
    undelivered_.bytes -= frame.size();
    arrivedDescriptors_ -= frame.descriptors.size();
  }
  undelivered_.calls -= arrivedCalls_.size();
  arrivedCalls_.clear();
  stateArrived();
}

void ConnectionCore::stateArrived() {
  using Place = transport::Holding::Place;
  holding_->setBytes(Place::calls, undelivered_.bytes + undelivered_.calls * kKeepingBytes);
  holding_->setBytes(Place::replies, undeliveredReplyBytes_ + arrivedReplies_.size() * kKeepingBytes);
  holding_->setDescriptors(Place::calls, arrivedDescriptors_);
}

void ConnectionCore::heldTooMuch(const std::string& reason) {
  breakProtocol(reason);
  MutexLock lock(mutex_);
  dropLeftovers();
}

void ConnectionCore::mayReadOn() {
  if (const auto channel = currentChannel()) channel->readOn();
}

void ConnectionCore::tellListener() {
  std::function<void()> called;
  {
    MutexLock lock(mutex_);
    called = std::exchange(hooks_.called, nullptr);
  }
  if (called) called();
}

void ConnectionCore::runInterruptionHandler() {
  std::function<void()> handler;
  {
    MutexLock lock(mutex_);
    handler = std::exchange(interruptionHandler_, nullptr);
  }
  if (handler) handler();
}

void ConnectionCore::runInvalidationHandler() {
  // Let go of after the handler has run: it may be all that keeps this connection's owner alive.
  std::shared_ptr<void> object;
  std::function<void()> interruption;
  std::function<void()> handler;
  AcceptanceHooks hooks;
  {
    MutexLock lock(mutex_);
    object = std::exchange(exportedObject_, nullptr);
    interruption = std::exchange(interruptionHandler_, nullptr);
    handler = std::exchange(invalidationHandler_, nullptr);
    std::swap(hooks, hooks_);
  }
  if (handler) handler();
}

}  // namespace velto::xpc
