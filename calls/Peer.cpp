// A call has a proxy of its own, so that its failure names it. What ends it runs on the thread that learns of it and
// blocks nobody: a call that is waited for inside of a callback ends all the same.

#include "calls/Peer.h"

#include <algorithm>
#include <future>
#include <limits>
#include <utility>

#include "calls/Handover.h"
#include "calls/Terms.h"
#include "message/PeerProtocol.h"
#include "message/TypeChecking.h"
#include "platform/foundation/Foundation.h"
#include "platform/logging/VeltoLogging.h"
#include "platform/xpc/DelayedCall.h"
#include "platform/xpc/NSFileDescriptor.h"
#include "platform/xpc/contract/Limits.h"

namespace velto::calls {

namespace {

constexpr char kVersion[] = "calls";
constexpr char kDescriptors[] = "descriptors";
constexpr std::int64_t kThisVersion = 1;

// Whatever holds messages admits what messages may hold.
std::shared_ptr<NSXPCInterface> makeInterface(bool admitsDescriptors) {
  auto interface = NSXPCInterface::interfaceWithProtocol<CallsPeer>();
  if (!admitsDescriptors) return interface;
  struct Place {
    const char* selector;
    std::size_t index;
    bool ofReply;
  };
  constexpr Place kPlaces[] = {{"connectionID:withMessage:handler:", 1, false},
                               {"connectionID:withMessage:handler:", 0, true},
                               {"call:terms:message:outcome:", 2, false},
                               {"call:terms:message:outcome:", 0, true},
                               {"item:ofCall:", 0, false}};
  for (const auto& [selector, index, ofReply] : kPlaces) {
    NSMutableSet classes = NSMutableSet::initWithSet(interface->classesForSelector(selector, index, ofReply));
    classes.addObject(NSFileDescriptor::classObject());
    interface->setClasses(classes, selector, index, ofReply);
  }
  return interface;
}

CallError takenBack() {
  return {Failure::cancelled, "the caller has taken the call back", true};
}

CallError letGo() {
  return {Failure::dropped, "the other end let go of the request without an answer", true};
}

}  // namespace

Peer::Peer(std::shared_ptr<NSXPCConnection> connection, Hooks hooks, bool admitsDescriptors)
    : connection_(std::move(connection)), admitsDescriptors_(admitsDescriptors), hooks_(std::move(hooks)) {}

NSDictionary Peer::abilities() const {
  return {{kVersion, kThisVersion}, {kDescriptors, admitsDescriptors_}};
}

std::optional<CallError> Peer::wrongTypes(const NSDictionary& message) const {
  if (!strictTypes_) return std::nullopt;
  const auto why = whyNotPlain(message, mayGetDescriptors_ ? NSFileDescriptor::classObject() : Class());
  if (!why) return std::nullopt;
  return CallError(Failure::refused, *why + ", which the other end's strict types forbid");
}

std::shared_ptr<Peer> Peer::make(std::shared_ptr<NSXPCConnection> connection, Hooks hooks, bool admitsDescriptors) {
  const std::shared_ptr<Peer> peer(new Peer(std::move(connection), std::move(hooks), admitsDescriptors));
  const auto interface = makeInterface(admitsDescriptors);
  peer->connection_->setRemoteObjectInterface(interface);
  peer->connection_->setExportedInterface(interface);
  peer->connection_->setInvalidationHandler([weak = std::weak_ptr(peer)] {
    if (const auto self = weak.lock()) self->end(self->endError());
  });
  return peer;
}

void Peer::takeUp() {
  connection_->setExportedObject<CallsPeer>(shared_from_this());
  connection_->resume();
}

void Peer::serve(const NSString& identifier, bool strictTypes) {
  strictTypes_ = strictTypes;
  {
    MutexLock lock(mutex_);
    identifier_ = identifier;
    owesIdentifier_ = true;
  }
  takeUp();
}

// A service's first words are its answer to the client's: what is sent from then on does not overtake them.
void Peer::greet() {
  std::function<void()> met;
  {
    MutexLock lock(mutex_);
    if (!std::exchange(owesIdentifier_, false)) return;
    met.swap(hooks_.met);
  }
  if (met) met();
  plainProxy()->call<&CallsPeer::setStrictMessageTypesRemote>(strictTypes_.load());
  plainProxy()->call<&CallsPeer::connectionUUID>(identifier());
}

void Peer::introduce() {
  takeUp();
  const auto learn = [weak = weak_from_this()](const NSDictionary& there) {
    if (const auto self = weak.lock()) self->learnAbilities(there);
  };
  const auto first =
      connection_->remoteObjectProxyWithErrorHandler<CallsPeer>([learn](const NSError&) { learn(NSDictionary()); });
  first->call<&CallsPeer::meet>(abilities(), learn);
  // What an end of the two classes expects.
  plainProxy()->call<&CallsPeer::ping>();
}

void Peer::learnAbilities(const NSDictionary& there) {
  isOfCalls_ = there[kVersion].integerValue() >= kThisVersion;
  mayGetDescriptors_ = there[kDescriptors].boolValue();
  {
    MutexLock lock(mutex_);
    knowsAbilities_ = true;
  }
  tellReadyIfSo();
}

void Peer::tellReadyIfSo() {
  std::function<void()> ready;
  {
    MutexLock lock(mutex_);
    if (!knowsAbilities_ || !identifier_) return;
    ready.swap(hooks_.ready);
  }
  if (ready) ready();
}

void Peer::end(const CallError& error) {
  Hooks hooks;
  std::unordered_map<std::uint64_t, std::weak_ptr<Incoming>> incoming;
  {
    MutexLock lock(mutex_);
    std::swap(hooks, hooks_);
    incoming.swap(incoming_);
  }
  for (const auto& [number, weak] : incoming) {
    if (const auto request = weak.lock()) request->takeBack(error);
  }
  // A call whose answer has come, and not all of its stream, waits for nothing else.
  streams_.fail(error);
  if (hooks.ended) hooks.ended(error);
  const ConditionLock lock(idle_);
  hasEnded_ = true;
  idle_.signal();
}

NSString Peer::identifier() const {
  MutexLock lock(mutex_);
  return identifier_;
}

std::shared_ptr<Peer::Proxy> Peer::plainProxy() {
  return connection_->remoteObjectProxyWithErrorHandler<CallsPeer>(NonBlockingReply<NSError>{[](const NSError&) {}});
}

CallError Peer::endError() const {
  return isClosed_ ? CallError(Failure::closed, "this end has closed the connection")
                   : CallError(Failure::peerGone, "the other end has gone", true);
}

CallError Peer::errorOf(const NSError& error) const {
  const std::string text = error.localizedDescription().string();
  switch (error.code()) {
    case NSXPCCallRefused:
      return {Failure::refused, text, true};
    case NSXPCReplyRefused:
    case NSXPCVersionMismatch:
      return {Failure::refused, text};
    case NSXPCLimitExceeded:
      return {Failure::overLimit, text};
    default:
      return endError();
  }
}

std::optional<CallError> Peer::makeCall(const std::shared_ptr<CallState>& state, const NSDictionary& message,
                                        const std::shared_ptr<StreamState>& stream) {
  if (auto wrong = wrongTypes(message)) {
    state->end(*std::move(wrong));
    return std::nullopt;
  }
  if (!isOfCalls_ && stream) {
    state->end(CallError(Failure::refused, "the other end knows no streams"));
    return std::nullopt;
  }
  const auto handover = std::make_shared<Handover>();
  const auto proxy = connection_->remoteObjectProxyWithErrorHandler<CallsPeer>(
      NonBlockingReply<NSError>{[self = shared_from_this(), state, handover](const NSError& error) {
        const CallError why = self->errorOf(error);
        if (!handover->isHere() || !handover->fails(why)) state->end(why);
      }});
  isOfCalls_ ? startCall(*proxy, state, message, stream) : startMessage(*proxy, state, message);
  auto error = handover->finish();
  if (!error || error->failure() == Failure::peerGone) return error;
  state->end(*std::move(error));
  return std::nullopt;
}

// To an end of the two classes.
void Peer::startMessage(const Proxy& proxy, const std::shared_ptr<CallState>& state, const NSDictionary& message) {
  proxy.call<&CallsPeer::connectionID>(
      identifier(), message,
      NonBlockingReply<NSDictionary>{[state](NSDictionary reply) { state->end(std::move(reply)); },
                                     [state] { state->end(letGo()); }});
}

void Peer::startCall(const Proxy& proxy, const std::shared_ptr<CallState>& state, const NSDictionary& message,
                     const std::shared_ptr<StreamState>& stream) {
  // The other end takes a number for one that has had its turn when it has seen a greater one.
  MutexLock lock(order_);
  const std::uint64_t number = ++lastNumber_;
  const bool isWanted = state->setTellOther([weak = weak_from_this(), number] {
    if (const auto self = weak.lock()) self->plainProxy()->call<&CallsPeer::cancel>(number);
  });
  if (!isWanted) return;
  const auto answered = [state, stream](const NSDictionary& outcome) {
    const auto items = itemsIn(outcome);
    if (!stream || !items) return void(state->end(outcomeIn(outcome)));
    stream->in().expect(*items, [state, outcome] { state->end(outcomeIn(outcome)); });
  };
  if (stream) {
    const auto call = static_cast<std::int64_t>(number);
    streams_.add(call, stream);
    connect(call, *stream);
  }
  proxy.call<&CallsPeer::call>(number, dictionaryOf({state->timeLeft(), stream != nullptr}), message,
                               NonBlockingReply<NSDictionary>{answered, [state] { state->end(letGo()); }});
}

void Peer::connect(std::int64_t call, StreamState& stream) {
  const auto weak = weak_from_this();
  stream.setWire({[weak, call](const NSDictionary& item) {
                    const auto self = weak.lock();
                    return self ? self->sendItem(call, item) : std::optional(CallError(Failure::closed, "it is over"));
                  },
                  [weak, call](std::size_t items, std::size_t bytes) {
                    if (const auto self = weak.lock()) {
                      self->plainProxy()->call<&CallsPeer::allow>(items, bytes, call);
                    }
                  },
                  [weak, call] {
                    if (const auto self = weak.lock()) self->plainProxy()->call<&CallsPeer::finish>(call);
                  },
                  [weak, call] {
                    if (const auto self = weak.lock()) self->streams_.remove(call);
                  }});
}

// A stream that the other end opens; null when it has too many.
std::shared_ptr<StreamState> Peer::streamForPeer(std::int64_t number) {
  auto stream = std::make_shared<StreamState>(
      [weak = weak_from_this()](std::function<void()> task) {
        if (const auto self = weak.lock()) self->perform(std::move(task));
      },
      nullptr);
  connect(-number, *stream);
  return streams_.addForPeer(number, stream) ? stream : nullptr;
}

// What is refused before it leaves is told now. One that fails later ends the stream, and the other end, which would
// wait for it, gets an empty place.
std::optional<CallError> Peer::sendItem(std::int64_t call, const NSDictionary& item) {
  if (auto wrong = wrongTypes(item)) return wrong;
  const auto handover = std::make_shared<Handover>();
  const auto proxy = connection_->remoteObjectProxyWithErrorHandler<CallsPeer>(
      NonBlockingReply<NSError>{[self = shared_from_this(), handover, call](const NSError& error) {
        const CallError why = self->errorOf(error);
        if (!handover->fails(why)) self->itemFailed(call, why);
      }});
  proxy->call<&CallsPeer::item>(item, call);
  return handover->finish();
}

void Peer::itemFailed(std::int64_t call, const CallError& why) {
  if (const auto stream = streams_.find(call)) stream->out().end(why);
  if (why.failure() == Failure::refused || why.failure() == Failure::overLimit) {
    plainProxy()->call<&CallsPeer::item>(NSDictionary(), call);
  }
}

void Peer::send(const NSDictionary& message, std::function<void(CallError)> failed) {
  const auto tell = [self = shared_from_this(), failed = std::move(failed)](const CallError& error) {
    if (failed) self->perform([failed, error] { failed(error); });
  };
  if (const auto wrong = wrongTypes(message)) return tell(*wrong);
  const auto proxy = connection_->remoteObjectProxyWithErrorHandler<CallsPeer>(NonBlockingReply<NSError>{
      [self = shared_from_this(), tell](const NSError& error) { tell(self->errorOf(error)); }});
  // No block: nothing waits for an answer, and none comes.
  proxy->call<&CallsPeer::connectionID>(identifier(), message, VeltoReplyHandler());
}

void Peer::close() {
  isClosed_ = true;
  connection_->invalidate();
}

void Peer::perform(std::function<void()> task) {
  {
    const ConditionLock lock(idle_);
    ++tasks_;
  }
  // Counts what it brings about before it counts itself no more.
  connection_->perform([self = shared_from_this(), task = std::move(task)] {
    const Done done{*self};
    task();
  });
}

void Peer::taskIsDone() {
  const ConditionLock lock(idle_);
  --tasks_;
  idle_.signal();
}

void Peer::closeAndWait() {
  close();
  if (xpc::isThreadOfThePlatform()) return;
  {
    const ConditionLock lock(idle_);
    while (!hasEnded_ || tasks_ > 0) idle_.wait();
    idle_.signal();
  }
  // The callback that runs now may be none of these.
  std::promise<void> isOver;
  connection_->perform([&isOver] { isOver.set_value(); });
  isOver.get_future().wait();
}

void Peer::receive(std::uint64_t number, NSDictionary message, std::optional<Incoming::SteadyTime> deadline,
                   Incoming::Answer answer, std::shared_ptr<StreamState> stream) {
  const auto incoming =
      std::make_shared<Incoming>(std::move(message), connection_->peer(), deadline, std::move(answer));
  incoming->setStream(std::move(stream));
  std::function<void(std::shared_ptr<Incoming>)> received;
  bool isCancelled = false;
  {
    MutexLock lock(mutex_);
    received = hooks_.received;
    if (number != 0) incoming_[number] = incoming;
    lastReceived_ = std::max(lastReceived_, number);
    isCancelled = cancelled_.erase(number) > 0;
  }
  if (isCancelled) {
    incoming->answer(takenBack());
    return;
  }
  if (!received) {
    incoming->answer(CallError(Failure::refused, "nobody takes messages here", true));
    return;
  }
  try {
    received(incoming);
  } catch (const std::exception& exception) {
    incoming->answer(
        CallError(Failure::dropped, std::string("the handler raised an exception: ") + exception.what(), true));
  } catch (...) {
    incoming->answer(CallError(Failure::dropped, "the handler raised an exception of a type of its own", true));
  }
}

void Peer::forget(std::uint64_t number) {
  MutexLock lock(mutex_);
  incoming_.erase(number);
}

void Peer::connectionID(NSString, NSDictionary withMessage, VeltoReplyHandler handler) {
  receive(0, std::move(withMessage), std::nullopt,
          [handler = std::move(handler)](const Outcome<NSDictionary>& outcome) {
            if (!handler) return;
            if (outcome) return handler(*outcome);
            // What is let go of unanswered is let go of here, too: the platform tells the other end.
            if (outcome.error().failure() != Failure::dropped) handler(replyOf(outcome.error()));
          });
}

void Peer::call(NSNumber number, NSDictionary terms, NSDictionary message, Answer outcome) {
  const auto identified = number.to<std::int64_t>();
  if (!identified || *identified <= 0) throw NSXPCRefusal("a call has a number greater than 0");
  const Terms wanted = termsIn(terms);
  std::optional<Incoming::SteadyTime> deadline;
  if (wanted.timeout) deadline = xpc::timeAfter(*wanted.timeout);
  std::shared_ptr<StreamState> stream;
  if (wanted.streams && !(stream = streamForPeer(*identified))) {
    return outcome(outcomeOf(CallError(Failure::overLimit, "too many streams are open", true)));
  }
  if (stream) stream->out().allow(limits::kStreamItems, limits::kStreamBytes);
  receive(
      static_cast<std::uint64_t>(*identified), std::move(message), deadline,
      [weak = weak_from_this(), identified, outcome = std::move(outcome), stream](const Outcome<NSDictionary>& result) {
        if (const auto self = weak.lock()) self->forget(static_cast<std::uint64_t>(*identified));
        std::optional<std::uint64_t> items;
        if (stream) {
          stream->end(CallError(Failure::closed, "the request has been answered"));
          items = stream->out().count();
        }
        if (outcome) outcome(outcomeOf(result, items));
      },
      stream);
}

// One that has not had its turn is remembered, unless there are more than can wait.
void Peer::cancel(NSNumber number) {
  const std::uint64_t identified = number.unsignedIntegerValue();
  std::shared_ptr<Incoming> found;
  {
    MutexLock lock(mutex_);
    const auto place = incoming_.find(identified);
    if (place != incoming_.end()) {
      found = place->second.lock();
    } else if (identified > lastReceived_ && cancelled_.size() < limits::kUndeliveredCalls) {
      cancelled_.insert(identified);
    }
  }
  if (found) found->takeBack(takenBack());
}

void Peer::item(NSDictionary item, NSNumber ofCall) {
  const auto stream = streams_.named(ofCall);
  if (!stream) return;
  std::optional<CallError> error;
  if (item.isNil()) {
    error = CallError(Failure::refused, "an item of the stream was refused on its way");
  } else {
    error = stream->in().put(std::move(item));
  }
  if (error) stream->fail(*error);
}

void Peer::finish(NSNumber call) {
  streams_.finish(call);
}

void Peer::allow(NSNumber items, NSNumber bytes, NSNumber ofCall) {
  const auto stream = streams_.named(ofCall);
  if (stream) stream->out().allow(items.unsignedIntegerValue(), bytes.unsignedIntegerValue());
}

void Peer::meet(NSDictionary there, Answer abilitiesThere) {
  greet();
  if (abilitiesThere) abilitiesThere(abilities());
  learnAbilities(there);
}

void Peer::connectionUUID(NSString connectionID) {
  {
    MutexLock lock(mutex_);
    identifier_ = std::move(connectionID);
  }
  tellReadyIfSo();
}

void Peer::setStrictMessageTypesRemote(bool flag) {
  strictTypes_ = flag;
}

void Peer::connectionError(NSError error) {
  VKTLoggingLog(VKTLogGetAnchor(), VKTLogLevelProgress, "The other end reports an error: %@", error);
}

// The first word of a client of the two classes.
void Peer::ping() {
  greet();
  {
    MutexLock lock(mutex_);
    if (knowsAbilities_) return;
  }
  learnAbilities(NSDictionary());
}

}  // namespace velto::calls
