#include "calls/ClientCore.h"

#include <algorithm>
#include <atomic>
#include <future>
#include <utility>

#include "platform/foundation/Foundation.h"
#include "platform/xpc/contract/Limits.h"

namespace velto::calls {

namespace {

constexpr std::chrono::milliseconds kFirstPause{20};
constexpr std::chrono::milliseconds kLongestPause{2'000};
// While the first connection is waited for, somebody waits.
constexpr std::chrono::milliseconds kLongestFirstPause{200};

CallError closedHere() {
  return {Failure::closed, "this end has closed the connection"};
}

// No more than there are.
std::chrono::nanoseconds nanosecondsOf(std::chrono::milliseconds time) {
  return std::min(time, std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::nanoseconds::max()));
}

// On a thread that others wait for.
bool mayNotSleep() {
  return xpc::isThreadOfThePlatform() || Loop::isDispatching();
}

}  // namespace

ClientCore::ClientCore(const NSString& name, ClientOptions options)
    : name_(name), options_(std::move(options)), tasks_(options_.delivery) {}

std::optional<CallError> ClientCore::connect() {
  const auto end = xpc::timeAfter(nanosecondsOf(options_.patience));
  {
    const ConditionLock lock(condition_);
    triesUntil_ = end;
  }
  attempt();
  const ConditionLock lock(condition_);
  while (phase_ == Phase::connecting && Clock::now() < end) {
    condition_.waitUntilDate(
        NSDate::dateWithTimeIntervalSinceNow(std::chrono::duration<double>(end - Clock::now()).count()));
  }
  if (phase_ == Phase::connected) return std::nullopt;
  return error_ ? *error_ : CallError(Failure::timedOut, "the connection was not made in time");
}

void ClientCore::attempt() {
  std::uint64_t number = 0;
  {
    const ConditionLock lock(condition_);
    if (phase_ == Phase::ended) return;
    phase_ = Phase::connecting;
    number = ++attempt_;
  }
  const auto search = makeSearch(number);
  std::shared_ptr<NameSearch> former;
  {
    const ConditionLock lock(condition_);
    if (phase_ != Phase::connecting || attempt_ != number) return;
    former = std::exchange(search_, search);
  }
  search->start();
}

std::shared_ptr<NameSearch> ClientCore::makeSearch(std::uint64_t number) {
  NameSearch::Ends ends;
  ends.found = [weak = weak_from_this(), number](const std::shared_ptr<NSXPCConnection>& connection) {
    if (const auto self = weak.lock()) self->found(number, connection);
  };
  ends.changed = [weak = weak_from_this()] {
    if (const auto self = weak.lock()) self->tryLater({});
  };
  ends.failed = [weak = weak_from_this(), number](const CallError& error) {
    if (const auto self = weak.lock()) self->attemptFailed(number, error);
  };
  ends.isAbsent = [weak = weak_from_this(), number](const CallError& error) {
    const auto self = weak.lock();
    return self && self->mayWait(number, error);
  };
  return std::make_shared<NameSearch>(name_, options_.place, std::move(ends));
}

bool ClientCore::mayWait(std::uint64_t number, const CallError& error) {
  const ConditionLock lock(condition_);
  if (phase_ != Phase::connecting || attempt_ != number) return false;
  error_ = error;
  return true;
}

void ClientCore::found(std::uint64_t number, const std::shared_ptr<NSXPCConnection>& connection) {
  Peer::Hooks hooks;
  hooks.ready = [weak = weak_from_this(), number] {
    if (const auto self = weak.lock()) self->isReady(number);
  };
  hooks.ended = [weak = weak_from_this(), number](const CallError& error) {
    if (const auto self = weak.lock()) self->peerEnded(number, error);
  };
  if (options_.onMessage) {
    const auto handler = std::make_shared<const std::function<void(Request)>>(options_.onMessage);
    hooks.received = [handler](std::shared_ptr<Incoming> incoming) {
      incoming->keep(handler);
      (*handler)(Request(std::move(incoming)));
    };
  }
  connection->setWritableHandler([weak = weak_from_this()] {
    if (const auto self = weak.lock()) self->writableAgain();
  });
  const auto peer = Peer::make(connection, std::move(hooks), options_.admitsDescriptors);
  std::shared_ptr<NameSearch> search;
  bool isWanted = false;
  {
    const ConditionLock lock(condition_);
    isWanted = phase_ == Phase::connecting && attempt_ == number;
    if (isWanted) {
      search.swap(search_);
      peer_ = peer;
      std::erase_if(peers_, [](const auto& each) { return each.expired(); });
      peers_.push_back(peer);
    }
  }
  if (isWanted) peer->introduce();
}

// The first thing that runs in the connection's queue: what comes behind it runs where it is to be delivered.
void ClientCore::isReady(std::uint64_t number) {
  std::deque<WaitingCall> waiting;
  std::shared_ptr<xpc::DelayedCall> lastTry;
  std::shared_ptr<Peer> peer;
  bool again = false;
  {
    const ConditionLock lock(condition_);
    if (phase_ != Phase::connecting || attempt_ != number || !peer_) return;
    phase_ = Phase::connected;
    pause_ = {};
    error_.reset();
    lastTry.swap(lastTry_);
    peer = lastPeer_ = peer_;
    again = std::exchange(wasConnected_, true);
    waiting = waiting_.takeAll();
    condition_.broadcast();
  }
  peer->deliverOn(options_.delivery);
  // Those that waited for the former one, and who was told that there is none, first.
  writableAgain();
  for (const WaitingCall& each : waiting) start(peer, each);
  if (again && options_.onReconnected) peer->perform(options_.onReconnected);
}

void ClientCore::attemptFailed(std::uint64_t number, CallError error) {
  std::chrono::milliseconds pause{0};
  std::shared_ptr<Peer> peer;
  std::shared_ptr<NameSearch> search;
  bool goesOn = false;
  {
    const ConditionLock lock(condition_);
    if (phase_ != Phase::connecting || attempt_ != number) return;
    search.swap(search_);
    peer.swap(peer_);
    goesOn = Clock::now() < triesUntil_;
    pause_ = std::clamp(2 * pause_, kFirstPause, wasConnected_ ? kLongestPause : kLongestFirstPause);
    pause = pause_;
    error_ = error;
    if (goesOn) ++attempt_;
  }
  if (peer) peer->close();
  goesOn ? tryLater(pause) : giveUp(error);
}

void ClientCore::tryLater(std::chrono::milliseconds pause) {
  // Let go of after the lock.
  std::shared_ptr<xpc::DelayedCall> former;
  const ConditionLock lock(condition_);
  if (phase_ == Phase::ended) return;
  former = std::exchange(retry_, xpc::DelayedCall::after(pause, [weak = weak_from_this()] {
                           if (const auto self = weak.lock()) self->attempt();
                         }));
}

void ClientCore::peerEnded(std::uint64_t number, const CallError& error) {
  std::shared_ptr<Peer> peer;
  {
    const ConditionLock lock(condition_);
    if (attempt_ != number || phase_ == Phase::ended) return;
    if (phase_ == Phase::connected) {
      peer.swap(peer_);
      phase_ = Phase::connecting;
      pause_ = kFirstPause;
      triesUntil_ =
          options_.reconnectsFor ? xpc::timeAfter(nanosecondsOf(*options_.reconnectsFor)) : Clock::time_point::max();
      ++attempt_;
    }
  }
  // It ended before it was ready.
  if (!peer) return attemptFailed(number, error);
  writableAgain();
  if (options_.onLost) peer->perform([handler = options_.onLost, error] { handler(error); });
  if (!options_.reconnects) return giveUp(error);
  endReconnectingLater();
  tryLater(kFirstPause);
}

// A wait for the name has no end of its own.
void ClientCore::endReconnectingLater() {
  if (!options_.reconnectsFor) return;
  std::shared_ptr<xpc::DelayedCall> former;
  const ConditionLock lock(condition_);
  if (phase_ != Phase::connecting) return;
  former = std::exchange(lastTry_,
                         xpc::DelayedCall::after(nanosecondsOf(*options_.reconnectsFor), [weak = weak_from_this()] {
                           if (const auto self = weak.lock()) self->giveUp(std::nullopt);
                         }));
}

void ClientCore::giveUp(std::optional<CallError> error) {
  std::deque<WaitingCall> waiting;
  std::deque<WaitingCall> parked;
  std::shared_ptr<xpc::DelayedCall> retry;
  std::shared_ptr<xpc::DelayedCall> lastTry;
  std::shared_ptr<NameSearch> search;
  std::shared_ptr<Peer> peer;
  {
    const ConditionLock lock(condition_);
    if (phase_ == Phase::ended || (!error && phase_ == Phase::connected)) return;
    if (!error) error = error_;
    if (!error) error = CallError(Failure::unavailable, "the connection was not made again in time");
    lastTry.swap(lastTry_);
    search.swap(search_);
    peer.swap(peer_);
    phase_ = Phase::ended;
    error_ = error;
    waiting = waiting_.takeAll();
    parked = parked_.takeAll();
    retry.swap(retry_);
    condition_.broadcast();
  }
  for (const WaitingCall& each : waiting) each.state->end(*error);
  for (const WaitingCall& each : parked) each.state->end(*error);
  if (peer) peer->close();
}

std::shared_ptr<Peer> ClientCore::connected() const {
  const ConditionLock lock(condition_);
  return phase_ == Phase::connected ? peer_ : nullptr;
}

std::shared_ptr<CallState> ClientCore::makeState(const CallOptions& options) {
  auto state = std::make_shared<CallState>(
      [self = shared_from_this()](std::function<void()> task) { self->perform(std::move(task)); });
  state->begin(options.timeout, options.stop);
  return state;
}

NSDictionary ClientCore::withOperation(std::string_view operation, const NSDictionary& message) const {
  NSMutableDictionary whole = NSMutableDictionary::dictionaryWithDictionary(message);
  whole[NSString(options_.operationKey)] = NSString(operation);
  return whole;
}

Call ClientCore::call(const NSDictionary& message, const CallOptions& options) {
  const auto state = makeState(options);
  const WaitingCall waiting{state, [state, message](Peer& peer) { return peer.makeCall(state, message); }};
  if (options.isIdempotent) {
    state->setMakeAgain([weak = weak_from_this(), weakState = std::weak_ptr(state), message,
                         repeats = std::make_shared<std::atomic<int>>(0)] {
      const auto self = weak.lock();
      const auto again = weakState.lock();
      if (!self || !again || !self->options_.reconnects || ++*repeats > limits::kRepeats) return false;
      return self->startAgain({again, [again, message](Peer& peer) { return peer.makeCall(again, message); }});
    });
  }
  launch(waiting, options);
  return Call(state);
}

Call ClientCore::sending(const NSDictionary& message, const CallOptions& options) {
  const auto state = makeState(options);
  launch({state,
          [state, message](Peer& peer) {
            peer.send(message, nullptr);
            state->end(NSDictionary::dictionary());
            return std::optional<CallError>();
          }},
         options);
  return Call(state);
}

Stream ClientCore::open(const NSDictionary& message, const CallOptions& options) {
  const auto state = makeState(options);
  const auto stream = std::make_shared<StreamState>(
      [self = shared_from_this()](std::function<void()> task) { self->perform(std::move(task)); },
      [weak = std::weak_ptr(state)](const CallError& why) {
        if (const auto call = weak.lock()) call->endHere(why);
      });
  state->whenEnded([stream](const CallState::Result& result) { stream->end(result); }, true);
  launch({state, [state, message, stream](Peer& peer) { return peer.makeCall(state, message, stream); }}, options);
  return Stream(std::shared_ptr<void>(nullptr, [state](void*) { state->cancel(); }), stream);
}

void ClientCore::launch(const WaitingCall& call, const CallOptions& options) {
  std::shared_ptr<Peer> peer;
  if (const auto error = peerOrKeep(call, peer)) return void(call.state->end(*error));
  if (!peer) return;
  std::optional<Clock::time_point> deadline;
  if (const auto left = call.state->timeLeft()) deadline = xpc::timeAfter(*left);
  const auto error = awaitWritable(peer, deadline, Behind::isParked, options.stop);
  if (!error) return start(peer, call);
  if (error->failure() != Failure::full) return void(call.state->end(*error));
  if (const auto none = park(call)) return void(call.state->end(*none));
  startParked();
}

std::optional<CallError> ClientCore::peerOrKeep(const WaitingCall& call, std::shared_ptr<Peer>& peer) {
  const std::shared_ptr<Peer> other = std::exchange(peer, nullptr);
  std::vector<WaitingCall> ended;
  const ConditionLock lock(condition_);
  if (phase_ != Phase::connected || peer_ == other) return keep(call, waiting_, Failure::overLimit, ended);
  peer = peer_;
  return std::nullopt;
}

std::optional<CallError> ClientCore::park(const WaitingCall& call) {
  std::vector<WaitingCall> ended;
  const ConditionLock lock(condition_);
  return keep(call, parked_, Failure::full, ended);
}

std::optional<CallError> ClientCore::keep(const WaitingCall& call, WaitingCalls& queue, Failure overMost,
                                          std::vector<WaitingCall>& ended) {
  if (phase_ == Phase::ended) return error_ ? *error_ : closedHere();
  if (queue.add(call, ended)) return std::nullopt;
  return CallError(overMost, std::to_string(queue.most()) + " calls wait already");
}

bool ClientCore::startAgain(const WaitingCall& call) {
  std::shared_ptr<Peer> peer;
  if (peerOrKeep(call, peer)) return false;
  if (peer) start(peer, call);
  return true;
}

void ClientCore::start(std::shared_ptr<Peer> peer, const WaitingCall& call) {
  while (peer && !call.state->hasEnded()) {
    auto error = call.start(*peer);
    if (!error) return;
    if (!options_.reconnects || peerOrKeep(call, peer)) return void(call.state->end(*std::move(error)));
  }
}

// One at a time, so that their order stays.
void ClientCore::startParked() {
  for (;;) {
    const auto peer = connected();
    if (!peer || !peer->isWritable()) return;
    WaitingCall next;
    {
      const ConditionLock lock(condition_);
      if (startsParked_ || parked_.isEmpty()) return;
      startsParked_ = true;
      next = parked_.takeFirst();
    }
    start(peer, next);
    const ConditionLock lock(condition_);
    startsParked_ = false;
  }
}

// What tells that it is writable again needs the lock: no word of it is missed.
std::optional<CallError> ClientCore::awaitWritable(const std::shared_ptr<Peer>& peer,
                                                   std::optional<Clock::time_point> deadline, Behind behind,
                                                   const std::stop_token& stop) {
  const std::stop_callback wakes(stop, [this] {
    const ConditionLock lock(condition_);
    condition_.broadcast();
  });
  const ConditionLock lock(condition_);
  while (phase_ == Phase::connected && peer_ == peer && !peer->isWritable() && !stop.stop_requested()) {
    if (behind == Behind::isTold || mayNotSleep()) {
      toldFull_ = toldFull_ || behind != Behind::isParked;
      return CallError(Failure::full, "the other end is behind");
    }
    if (deadline && Clock::now() >= *deadline) {
      return CallError(Failure::timedOut, "the other end was behind all the time");
    }
    sleep(deadline);
  }
  return std::nullopt;
}

std::optional<CallError> ClientCore::awaitConnection(std::optional<Clock::time_point> deadline, Behind behind,
                                                     std::shared_ptr<Peer>& peer) {
  const ConditionLock lock(condition_);
  while (phase_ != Phase::connected) {
    if (phase_ == Phase::ended) return error_ ? *error_ : closedHere();
    if (behind == Behind::isTold || mayNotSleep()) {
      toldFull_ = true;
      return CallError(Failure::full, "there is no connection at the moment");
    }
    if (deadline && Clock::now() >= *deadline) {
      return CallError(Failure::timedOut, "there was no connection all the time");
    }
    sleep(deadline);
  }
  peer = peer_;
  return std::nullopt;
}

void ClientCore::sleep(std::optional<Clock::time_point> deadline) {
  if (!deadline) return condition_.wait();
  const double left = std::chrono::duration<double>(*deadline - Clock::now()).count();
  condition_.waitUntilDate(NSDate::dateWithTimeIntervalSinceNow(left));
}

void ClientCore::writableAgain() {
  std::shared_ptr<Peer> peer;
  {
    const ConditionLock lock(condition_);
    if (peer_ && std::exchange(toldFull_, false)) peer = peer_;
    condition_.broadcast();
  }
  startParked();
  if (peer && options_.onWritable) peer->perform(options_.onWritable);
}

std::optional<CallError> ClientCore::send(const NSDictionary& message, std::optional<std::chrono::nanoseconds> timeout,
                                          bool waits, std::function<void(CallError)> failed) {
  const Behind behind = waits ? Behind::isAwaited : Behind::isTold;
  std::optional<Clock::time_point> deadline;
  if (timeout) deadline = xpc::timeAfter(*timeout);
  std::shared_ptr<Peer> peer;
  if (auto error = awaitConnection(deadline, behind, peer)) return error;
  if (auto error = awaitWritable(peer, deadline, behind)) return error;
  peer->send(message, std::move(failed));
  return std::nullopt;
}

void ClientCore::perform(std::function<void()> task) {
  std::shared_ptr<Peer> peer;
  {
    const ConditionLock lock(condition_);
    peer = lastPeer_;
  }
  peer ? peer->perform(std::move(task)) : tasks_.add(std::move(task));
}

void ClientCore::close() {
  giveUp(closedHere());
}

void ClientCore::closeAndWait() {
  close();
  if (options_.delivery.runner() || xpc::isThreadOfThePlatform()) return;
  std::vector<std::weak_ptr<Peer>> peers;
  {
    const ConditionLock lock(condition_);
    peers.swap(peers_);
  }
  for (const auto& weak : peers) {
    if (const auto peer = weak.lock()) peer->closeAndWait();
  }
  std::promise<void> isOver;
  tasks_.add([&isOver] { isOver.set_value(); });
  isOver.get_future().wait();
}

}  // namespace velto::calls
