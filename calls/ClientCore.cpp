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

// On a thread that others wait for.
bool mayNotSleep() {
  return xpc::isThreadOfThePlatform() || Loop::isDispatching();
}

CallError behind() {
  return {Failure::full, "the other end is behind"};
}

}  // namespace

ClientCore::ClientCore(const NSString& name, ClientOptions options)
    : name_(name), options_(std::move(options)), tasks_(options_.delivery) {}

std::optional<CallError> ClientCore::connect() {
  const auto end = Clock::now() + options_.patience;
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
  const auto peer = std::make_shared<Peer>(connection, std::move(hooks), options_.admitsDescriptors);
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
  std::deque<Waiting> waiting;
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
    waiting.swap(waiting_);
    condition_.signal();
  }
  peer->deliverOn(options_.delivery);
  // They were made before, and the connection that they waited for has gone.
  startParked();
  for (const Waiting& each : waiting) start(peer, each);
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
  goesOn ? tryLater(pause) : giveUp(error);
}

void ClientCore::tryLater(std::chrono::milliseconds pause) {
  auto retry = xpc::DelayedCall::after(pause, [weak = weak_from_this()] {
    if (const auto self = weak.lock()) self->attempt();
  });
  const ConditionLock lock(condition_);
  if (phase_ != Phase::ended) retry_.swap(retry);
}

void ClientCore::peerEnded(std::uint64_t number, const CallError& error) {
  std::shared_ptr<Peer> peer;
  {
    const ConditionLock lock(condition_);
    if (attempt_ != number || phase_ == Phase::ended) return;
    if (phase_ == Phase::connected) {
      peer.swap(peer_);
      phase_ = Phase::connecting;
      triesUntil_ = options_.reconnectsFor ? xpc::timeAfter(*options_.reconnectsFor) : Clock::time_point::max();
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
  auto end = xpc::DelayedCall::after(*options_.reconnectsFor, [weak = weak_from_this()] {
    if (const auto self = weak.lock()) self->endReconnecting();
  });
  const ConditionLock lock(condition_);
  if (phase_ == Phase::connecting) lastTry_.swap(end);
}

void ClientCore::endReconnecting() {
  std::optional<CallError> error;
  {
    const ConditionLock lock(condition_);
    if (phase_ != Phase::connecting) return;
    error = error_;
  }
  giveUp(error ? *error : CallError(Failure::unavailable, "the connection was not made again in time"));
}

void ClientCore::giveUp(const CallError& error) {
  std::deque<Waiting> waiting;
  std::deque<Waiting> parked;
  std::shared_ptr<xpc::DelayedCall> retry;
  std::shared_ptr<xpc::DelayedCall> lastTry;
  std::shared_ptr<NameSearch> search;
  {
    const ConditionLock lock(condition_);
    if (phase_ == Phase::ended) return;
    lastTry.swap(lastTry_);
    search.swap(search_);
    phase_ = Phase::ended;
    error_ = error;
    waiting.swap(waiting_);
    parked.swap(parked_);
    retry.swap(retry_);
    condition_.signal();
  }
  for (const Waiting& each : waiting) each.state->end(error);
  for (const Waiting& each : parked) each.state->end(error);
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
  const Waiting waiting{state, [state, message](Peer& peer) { return peer.makeCall(state, message); }};
  if (options.isIdempotent) {
    state->setMakeAgain([weak = weak_from_this(), weakState = std::weak_ptr(state), message,
                         repeats = std::make_shared<std::atomic<int>>(0)] {
      const auto self = weak.lock();
      const auto again = weakState.lock();
      if (!self || !again || !self->options_.reconnects || ++*repeats > limits::kRepeats) return false;
      return self->startAgain({again, [again, message](Peer& peer) { return peer.makeCall(again, message); }});
    });
  }
  launch(waiting);
  return Call(state);
}

Call ClientCore::sending(const NSDictionary& message, const CallOptions& options) {
  const auto state = makeState(options);
  launch({state, [state, message](Peer& peer) {
            peer.send(message, nullptr);
            state->end(NSDictionary::dictionary());
            return std::optional<CallError>();
          }});
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
  launch({state, [state, message, stream](Peer& peer) { return peer.makeCall(state, message, stream); }});
  return Stream(std::shared_ptr<void>(nullptr, [state](void*) { state->cancel(); }), stream);
}

void ClientCore::launch(const Waiting& waiting) {
  std::shared_ptr<Peer> peer;
  if (const auto error = peerOrKeep(waiting, peer)) return void(waiting.state->end(*error));
  if (!peer) return;
  std::optional<Clock::time_point> deadline;
  if (const auto left = waiting.state->timeLeft()) deadline = xpc::timeAfter(*left);
  const auto error = awaitWritable(peer, deadline, true);
  if (!error) return start(peer, waiting);
  if (error->failure() != Failure::full) return void(waiting.state->end(*error));
  if (const auto none = park(waiting)) return void(waiting.state->end(*none));
  startParked();
}

std::optional<CallError> ClientCore::peerOrKeep(const Waiting& waiting, std::shared_ptr<Peer>& peer) {
  const ConditionLock lock(condition_);
  if (phase_ == Phase::connected && peer_ != peer) {
    peer = peer_;
    return std::nullopt;
  }
  peer.reset();
  return add(waiting, waiting_, limits::kPendingReplies, Failure::overLimit);
}

std::optional<CallError> ClientCore::park(const Waiting& waiting) {
  const ConditionLock lock(condition_);
  return add(waiting, parked_, limits::kParkedCalls, Failure::full);
}

std::optional<CallError> ClientCore::add(const Waiting& waiting, std::deque<Waiting>& queue, std::size_t most,
                                         Failure overMost) {
  if (phase_ == Phase::ended) return error_ ? *error_ : closedHere();
  if (queue.size() >= most) return CallError(overMost, std::to_string(most) + " calls wait already");
  queue.push_back(waiting);
  return std::nullopt;
}

bool ClientCore::startAgain(const Waiting& waiting) {
  std::shared_ptr<Peer> peer;
  if (peerOrKeep(waiting, peer)) return false;
  if (peer) start(peer, waiting);
  return true;
}

void ClientCore::start(std::shared_ptr<Peer> peer, const Waiting& waiting) {
  while (peer && !waiting.state->hasEnded()) {
    auto error = waiting.start(*peer);
    if (!error) return;
    if (!options_.reconnects || peerOrKeep(waiting, peer)) return void(waiting.state->end(*std::move(error)));
  }
}

// One at a time, so that their order stays.
void ClientCore::startParked() {
  for (;;) {
    const auto peer = connected();
    if (!peer || !peer->isWritable()) return;
    Waiting next;
    {
      const ConditionLock lock(condition_);
      if (startsParked_ || parked_.empty()) return;
      startsParked_ = true;
      next = std::move(parked_.front());
      parked_.pop_front();
    }
    start(peer, next);
    const ConditionLock lock(condition_);
    startsParked_ = false;
  }
}

std::optional<CallError> ClientCore::awaitWritable(const std::shared_ptr<Peer>& peer,
                                                   std::optional<Clock::time_point> deadline, bool waits) {
  while (!peer->isWritable()) {
    if (!waits || mayNotSleep()) return behind();
    const ConditionLock lock(condition_);
    if (phase_ != Phase::connected || peer_ != peer) return std::nullopt;
    if (deadline && Clock::now() >= *deadline) {
      return CallError(Failure::timedOut, "the other end was behind all the time");
    }
    sleep(deadline);
  }
  return std::nullopt;
}

std::optional<CallError> ClientCore::awaitConnection(std::optional<Clock::time_point> deadline, bool waits,
                                                     std::shared_ptr<Peer>& peer) {
  const ConditionLock lock(condition_);
  while (phase_ != Phase::connected) {
    if (phase_ == Phase::ended) return error_ ? *error_ : closedHere();
    if (!waits || mayNotSleep()) return CallError(Failure::full, "there is no connection at the moment");
    if (deadline && Clock::now() >= *deadline)
      return CallError(Failure::timedOut, "there was no connection all the time");
    sleep(deadline);
  }
  peer = peer_;
  return std::nullopt;
}

// Until there is news, and not for ever: the word may have come before.
void ClientCore::sleep(std::optional<Clock::time_point> deadline) {
  constexpr double kLook = 0.1;
  const double left = deadline ? std::chrono::duration<double>(*deadline - Clock::now()).count() : kLook;
  condition_.waitUntilDate(NSDate::dateWithTimeIntervalSinceNow(std::min(left, kLook)));
  // A signal wakes one.
  condition_.signal();
}

void ClientCore::writableAgain() {
  std::shared_ptr<Peer> peer;
  {
    const ConditionLock lock(condition_);
    if (std::exchange(toldFull_, false)) peer = peer_;
    condition_.signal();
  }
  startParked();
  if (peer && options_.onWritable) peer->perform(options_.onWritable);
}

std::optional<CallError> ClientCore::send(const NSDictionary& message, std::optional<std::chrono::nanoseconds> timeout,
                                          bool waits, std::function<void(CallError)> failed) {
  std::optional<Clock::time_point> deadline;
  if (timeout) deadline = Clock::now() + *timeout;
  std::shared_ptr<Peer> peer;
  if (auto error = awaitConnection(deadline, waits, peer)) return error;
  if (!waits) setToldFull(true);
  if (auto error = awaitWritable(peer, deadline, waits)) return error;
  if (!waits) setToldFull(false);
  peer->send(message, std::move(failed));
  return std::nullopt;
}

// Before anybody could miss that it is writable again.
void ClientCore::setToldFull(bool isTold) {
  const ConditionLock lock(condition_);
  toldFull_ = isTold;
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
  std::shared_ptr<Peer> peer;
  {
    const ConditionLock lock(condition_);
    peer = peer_;
  }
  giveUp(closedHere());
  if (peer) peer->close();
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
