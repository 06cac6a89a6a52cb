#include "calls/ServiceCore.h"

#include <algorithm>
#include <future>
#include <utility>

#include "platform/foundation/Foundation.h"
#include "platform/xpc/NSXPCError.h"

namespace velto::calls {

namespace {

constexpr std::chrono::milliseconds kFirstPause{20};
constexpr std::chrono::milliseconds kLongestPause{2'000};

NSDate dateAfter(std::chrono::steady_clock::duration time) {
  return NSDate::dateWithTimeIntervalSinceNow(std::chrono::duration<double>(time).count());
}

CallError linkHasEnded() {
  return {Failure::unavailable, "the link to the broker has ended"};
}

CallError refusedWith(const std::string& why) {
  return {Failure::unavailable, "the broker refuses: " + why};
}

CallError refusedBy(const NSError& error) {
  return refusedWith(error.localizedDescription().string());
}

std::optional<CallError> notKept() {
  return CallError(Failure::unavailable, "the broker does not keep the name");
}

}  // namespace

ServiceCore::ServiceCore(const NSString& name, ServiceOptions options)
    : name_(name), options_(std::move(options)), tasks_(options_.delivery) {}

void ServiceCore::setHandler(const std::string& operation, Handler handler) {
  auto shared = std::make_shared<const Handler>(std::move(handler));
  const ConditionLock lock(condition_);
  handlers_[operation].swap(shared);
}

void ServiceCore::setOtherHandler(Handler handler) {
  auto shared = std::make_shared<const Handler>(std::move(handler));
  const ConditionLock lock(condition_);
  otherHandler_.swap(shared);
}

void ServiceCore::start() {
  {
    const ConditionLock lock(condition_);
    if (isClosed_ || isStopping_ || std::exchange(hasStarted_, true)) return;
  }
  registerName();
}

// Needs no more than a place among the services of this process, where there is one.
bool ServiceCore::hasListener() {
  if (options_.place) return true;
  {
    const ConditionLock lock(condition_);
    if (listener_) return true;
  }
  auto listener = NSXPCListener::anonymousListener();
  if (!listener) return false;
  listener->setDelegate(weak_from_this());
  listener->resume();
  {
    const ConditionLock lock(condition_);
    if (!isClosed_ && !isStopping_) listener_.swap(listener);
  }
  // Nobody has it.
  if (listener) listener->invalidate();
  return true;
}

void ServiceCore::registerName() {
  const bool canListen = hasListener();
  const auto link = options_.place ? nullptr : NSXPCConnection::initWithServiceName(VeltoIPCDaemonServiceName);
  // Let go of after the lock.
  auto former = link;
  std::uint64_t number = 0;
  NSXPCListenerEndpoint endpoint;
  bool takesOver = false;
  {
    const ConditionLock lock(condition_);
    if (isClosed_ || isStopping_) return;
    link_.swap(former);
    number = ++registration_;
    takesOver = options_.namePolicy == NamePolicy::takeOver && !isPushedOut_;
    if (listener_) endpoint = listener_->endpoint();
  }
  if (!canListen) {
    return registered(number, CallError(Failure::unavailable, "the kernel has nothing left for a listener"));
  }
  if (!options_.place) return askBroker(number, link, endpoint, takesOver);
  answered(number, options_.place->names()->add(name_.string(), weak_from_this(), takesOver));
}

void ServiceCore::askBroker(std::uint64_t number, const std::shared_ptr<NSXPCConnection>& link,
                            const NSXPCListenerEndpoint& endpoint, bool takesOver) {
  link->setRemoteObjectInterface(NSXPCInterface::interfaceWithProtocol<VeltoIPCNamesProtocol>());
  link->setInvalidationHandler([weak = weak_from_this(), number] {
    if (const auto self = weak.lock()) self->registered(number, linkHasEnded());
  });
  link->resume();
  const auto broker = link->remoteObjectProxyWithErrorHandler<VeltoIPCNamesProtocol>(
      [weak = weak_from_this(), number, endpoint](const NSError& error) {
        const auto self = weak.lock();
        if (!self) return;
        // All that a broker which has the method refuses it answers.
        if (error.code() == NSXPCCallRefused) return self->askOlderBroker(number, endpoint);
        self->registered(number, refusedBy(error));
      });
  broker->call<&VeltoIPCNamesProtocol::registerName>(name_, endpoint, takesOver,
                                                     [weak = weak_from_this(), number](const NSDictionary& answer) {
                                                       if (const auto self = weak.lock())
                                                         self->answered(number, nameAnswerIn(answer));
                                                     });
}

// The name is asked for behind its registration, over the same link: the answer says that this has been dealt with.
void ServiceCore::askOlderBroker(std::uint64_t number, const NSXPCListenerEndpoint& endpoint) {
  const auto link = linkOf(number);
  if (!link) return;
  const auto broker = link->remoteObjectProxyWithErrorHandler<VeltoIPCNamesProtocol>(
      [weak = weak_from_this(), number](const NSError& error) {
        if (const auto self = weak.lock()) self->registered(number, refusedBy(error));
      });
  broker->call<&VeltoIPCNamesProtocol::sendListenerConnection>(endpoint, name_);
  broker->call<&VeltoIPCNamesProtocol::findListenerEndpointForName>(
      name_, [weak = weak_from_this(), number](const NSXPCListenerEndpoint& standing) {
        if (const auto self = weak.lock()) self->registered(number, standing ? std::nullopt : notKept());
      });
}

std::shared_ptr<NSXPCConnection> ServiceCore::linkOf(std::uint64_t number) const {
  const ConditionLock lock(condition_);
  return number == registration_ ? link_ : nullptr;
}

void ServiceCore::answered(std::uint64_t number, const NameAnswer& answer) {
  if (answer.isTaken) return pushedOut(number, answer.state);
  if (!answer.stands()) return registered(number, refusedWith(answer.refusal));
  {
    const ConditionLock lock(condition_);
    if (number != registration_ || isClosed_ || isStopping_) return;
    standing_ = answer.state.registration;
  }
  registered(number, std::nullopt);
  watch(number, answer.state.registration);
}

void ServiceCore::registered(std::uint64_t number, const std::optional<CallError>& error) {
  {
    const ConditionLock lock(condition_);
    if (number != registration_ || isClosed_ || isStopping_) return;
    isRegistered_ = !error;
    error_ = error;
    if (error) {
      ++registration_;
      standing_ = 0;
    } else {
      pause_ = {};
      isPushedOut_ = false;
    }
    condition_.signal();
  }
  if (!error && options_.onRegistered) tasks_.add(options_.onRegistered);
  if (!error) return;
  if (options_.onUnregistered) tasks_.add([handler = options_.onUnregistered, told = *error] { handler(told); });
  tryLater();
}

void ServiceCore::tryLater() {
  // Let go of after the lock.
  std::shared_ptr<xpc::DelayedCall> former;
  const ConditionLock lock(condition_);
  if (isClosed_) return;
  pause_ = std::clamp(2 * pause_, kFirstPause, kLongestPause);
  former = std::exchange(retry_, xpc::DelayedCall::after(pause_, [weak = weak_from_this()] {
                           if (const auto self = weak.lock()) self->registerName();
                         }));
}

void ServiceCore::pushedOut(std::uint64_t number, const NameState& state) {
  const CallError error(Failure::taken, "process " + std::to_string(state.process) + " serves the name");
  std::shared_ptr<NSXPCConnection> link;
  bool isRefused = false;
  {
    const ConditionLock lock(condition_);
    if (number != registration_ || isClosed_ || isStopping_) return;
    isRegistered_ = false;
    isPushedOut_ = true;
    standing_ = 0;
    error_ = error;
    isRefused = isRefused_ = options_.namePolicy == NamePolicy::refuseIfTaken;
    if (isRefused) {
      ++registration_;
      link.swap(link_);
    }
    condition_.signal();
  }
  if (options_.onTakenOver) {
    tasks_.add([handler = options_.onTakenOver, process = state.process] { handler(process); });
  }
  if (options_.onUnregistered) tasks_.add([handler = options_.onUnregistered, error] { handler(error); });
  if (!isRefused) watch(number, state.registration);
}

void ServiceCore::watch(std::uint64_t number, std::uint64_t known) {
  if (!options_.place) return watchAtBroker(number, known);
  std::uint64_t begun = 0;
  {
    const ConditionLock lock(condition_);
    begun = ++watch_;
  }
  auto wait =
      options_.place->names()->wait(name_.string(), known, [weak = weak_from_this(), number](const NameState& state) {
        if (const auto self = weak.lock()) self->changed(number, state);
      });
  const ConditionLock lock(condition_);
  // It may have been told already, and another begun.
  if (begun == watch_ && number == registration_ && !isClosed_) wait_.swap(wait);
}

void ServiceCore::watchAtBroker(std::uint64_t number, std::uint64_t known) {
  const auto link = linkOf(number);
  if (!link) return;
  const auto broker = link->remoteObjectProxyWithErrorHandler<VeltoIPCNamesProtocol>(
      [weak = weak_from_this(), number, known](const NSError&) {
        if (const auto self = weak.lock()) self->watchLater(number, known);
      });
  broker->call<&VeltoIPCNamesProtocol::waitForChangeOfName>(
      name_, known, [weak = weak_from_this(), number, known](const NSDictionary& state) {
        const auto self = weak.lock();
        if (self) state ? self->changed(number, nameStateIn(state)) : self->watchLater(number, known);
      });
}

// So many wait at the broker that this one cannot.
void ServiceCore::watchLater(std::uint64_t number, std::uint64_t known) {
  std::shared_ptr<xpc::DelayedCall> former;
  const ConditionLock lock(condition_);
  if (number != registration_ || isClosed_) return;
  former = std::exchange(retry_, xpc::DelayedCall::after(kLongestPause, [weak = weak_from_this(), number, known] {
                           if (const auto self = weak.lock()) self->watchAtBroker(number, known);
                         }));
}

void ServiceCore::changed(std::uint64_t number, const NameState& state) {
  bool wasPushedOut = false;
  {
    const ConditionLock lock(condition_);
    if (number != registration_ || isClosed_ || isStopping_) return;
    wasPushedOut = isPushedOut_;
  }
  if (state.registration != 0) {
    wasPushedOut ? watch(number, state.registration) : pushedOut(number, state);
  } else if (!wasPushedOut) {
    registered(number, notKept());
  } else {
    if (options_.onGivenBack) tasks_.add(options_.onGivenBack);
    registerName();
  }
}

std::optional<CallError> ServiceCore::waitUntilRegistered(std::chrono::nanoseconds timeout) {
  const auto end = xpc::timeAfter(timeout);
  const ConditionLock lock(condition_);
  while (!isRegistered_ && !isRefused_ && !isClosed_ && Clock::now() < end) {
    condition_.waitUntilDate(dateAfter(end - Clock::now()));
  }
  condition_.signal();
  if (isRegistered_) return std::nullopt;
  if (isClosed_) return CallError(Failure::closed, "the service is closed");
  return error_ ? *error_ : CallError(Failure::timedOut, "the name was not registered in time");
}

bool ServiceCore::listener(const std::shared_ptr<NSXPCListener>&,
                           const std::shared_ptr<NSXPCConnection>& shouldAcceptNewConnection) {
  accept(shouldAcceptNewConnection);
  return true;
}

void ServiceCore::accept(std::shared_ptr<NSXPCConnection> connection) {
  std::uint64_t number = 0;
  {
    const ConditionLock lock(condition_);
    if (isClosed_ || isStopping_) return;
    number = ++lastClient_;
  }
  Peer::Hooks hooks;
  hooks.received = [weak = weak_from_this()](const std::shared_ptr<Incoming>& incoming) {
    if (const auto self = weak.lock()) self->receive(incoming);
  };
  hooks.ended = [weak = weak_from_this(), number](const CallError&) {
    if (const auto self = weak.lock()) self->ended(number);
  };
  hooks.met = [weak = weak_from_this(), number] {
    const auto self = weak.lock();
    if (const auto outbox = self ? self->outboxOf(number) : nullptr) outbox->expect();
  };
  hooks.ready = [weak = weak_from_this(), number] {
    const auto self = weak.lock();
    if (const auto outbox = self ? self->outboxOf(number) : nullptr) outbox->open();
  };
  connection->deliverOn(options_.delivery);
  const auto peer = Peer::make(std::move(connection), std::move(hooks), options_.admitsDescriptors);
  const auto outbox = std::make_shared<Outbox>(peer);
  peer->setWritableHandler([weak = std::weak_ptr(outbox)] {
    if (const auto alive = weak.lock()) alive->flush();
  });
  bool isClosed = false;
  {
    const ConditionLock lock(condition_);
    isClosed = isClosed_;
    // Entered first: what comes next is its messages.
    if (!isClosed) clients_.emplace(number, outbox);
  }
  if (isClosed) return peer->close();
  peer->serve(NSProcessInfo::processInfo().globallyUniqueString(), options_.strictTypes);
}

std::shared_ptr<Outbox> ServiceCore::outboxOf(std::uint64_t client) const {
  const ConditionLock lock(condition_);
  const auto place = clients_.find(client);
  return place == clients_.end() ? nullptr : place->second;
}

void ServiceCore::ended(std::uint64_t client) {
  std::shared_ptr<Outbox> outbox;
  const ConditionLock lock(condition_);
  const auto place = clients_.find(client);
  if (place == clients_.end()) return;
  outbox = std::move(place->second);
  clients_.erase(place);
}

std::shared_ptr<const ServiceCore::Handler> ServiceCore::handlerFor(const NSDictionary& message) const {
  const std::string operation = message[NSString(options_.operationKey)].stringValue();
  const ConditionLock lock(condition_);
  const auto place = handlers_.find(operation);
  return place != handlers_.end() ? place->second : otherHandler_;
}

void ServiceCore::receive(const std::shared_ptr<Incoming>& incoming) {
  bool isStopping = false;
  {
    const ConditionLock lock(condition_);
    isStopping = isStopping_ || isClosed_;
    if (!isStopping) ++openRequests_;
  }
  if (isStopping) {
    incoming->answer(CallError(Failure::refused, "the service is stopping", true));
    return;
  }
  incoming->setWhenAnswered([weak = weak_from_this()] {
    const auto self = weak.lock();
    if (!self) return;
    const ConditionLock lock(self->condition_);
    if (--self->openRequests_ == 0) self->condition_.signal();
  });
  if (const auto handler = handlerFor(incoming->message()); handler && *handler) {
    incoming->keep(handler);
    return (*handler)(Request(incoming));
  }
  const std::string operation = incoming->message()[NSString(options_.operationKey)].stringValue();
  incoming->answer(CallError(Failure::refused, "there is no operation \"" + operation + "\"", true));
}

std::size_t ServiceCore::clientCount() const {
  const ConditionLock lock(condition_);
  return static_cast<std::size_t>(
      std::ranges::count_if(clients_, [](const auto& each) { return each.second->isExpected(); }));
}

std::size_t ServiceCore::broadcast(const NSDictionary& message) {
  std::vector<std::shared_ptr<Outbox>> clients;
  {
    const ConditionLock lock(condition_);
    for (const auto& [number, client] : clients_) clients.push_back(client);
  }
  std::size_t behind = 0;
  for (const auto& client : clients) {
    if (client->post(message)) continue;
    ++behind;
    if (options_.whenBehind == WhenBehind::disconnect) client->peer()->close();
  }
  return behind;
}

bool ServiceCore::stop(std::chrono::nanoseconds patience) {
  const auto end = xpc::timeAfter(patience);
  std::shared_ptr<NSXPCConnection> link;
  std::shared_ptr<NSXPCListener> listener;
  std::uint64_t standing = 0;
  bool isDone = false;
  {
    const ConditionLock lock(condition_);
    isStopping_ = true;
    isRegistered_ = false;
    standing = std::exchange(standing_, 0);
    link.swap(link_);
    listener.swap(listener_);
  }
  giveBack(link, standing);
  if (listener) listener->invalidate();
  {
    const ConditionLock lock(condition_);
    while (openRequests_ > 0 && Clock::now() < end) condition_.waitUntilDate(dateAfter(end - Clock::now()));
    isDone = openRequests_ == 0;
    condition_.signal();
  }
  close();
  return isDone;
}

std::vector<std::shared_ptr<Peer>> ServiceCore::takeAll() {
  std::shared_ptr<NSXPCConnection> link;
  std::shared_ptr<NSXPCListener> listener;
  std::shared_ptr<xpc::DelayedCall> retry;
  std::shared_ptr<Names::Wait> wait;
  std::uint64_t standing = 0;
  std::vector<std::shared_ptr<Peer>> clients;
  {
    const ConditionLock lock(condition_);
    isClosed_ = true;
    isRegistered_ = false;
    standing = std::exchange(standing_, 0);
    wait.swap(wait_);
    link.swap(link_);
    listener.swap(listener_);
    retry.swap(retry_);
    for (auto& [number, client] : clients_) clients.push_back(client->peer());
    clients_.clear();
    condition_.signal();
  }
  giveBack(link, standing);
  if (listener) listener->invalidate();
  return clients;
}

void ServiceCore::giveBack(const std::shared_ptr<NSXPCConnection>& link, std::uint64_t standing) {
  if (options_.place) options_.place->names()->remove(name_.string(), *this);
  if (!link) return;
  if (standing != 0) {
    const auto broker = link->remoteObjectProxyWithErrorHandler<VeltoIPCNamesProtocol>([](const NSError&) {});
    broker->call<&VeltoIPCNamesProtocol::giveBackName>(name_, standing);
  }
  link->invalidate();
}

void ServiceCore::close() {
  for (const auto& client : takeAll()) client->close();
}

void ServiceCore::closeAndWait() {
  const auto clients = takeAll();
  for (const auto& client : clients) client->close();
  if (options_.delivery.runner() || xpc::isThreadOfThePlatform()) return;
  for (const auto& client : clients) client->closeAndWait();
  std::promise<void> isOver;
  tasks_.add([&isOver] { isOver.set_value(); });
  isOver.get_future().wait();
}

}  // namespace velto::calls
