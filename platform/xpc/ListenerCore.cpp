// The listening socket and what it brings. A peer that connects and says nothing costs a descriptor: when there are too
// many, those of the process that has the most go, the oldest first, and each goes after a time. So silence never keeps
// out who has something to say, and nobody waits for the silent ones to go.

#include "platform/xpc/ListenerCore.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <utility>
#include <vector>

#include <sys/epoll.h>

#include "platform/logging/DeferredLog.h"
#include "platform/logging/VeltoLogging.h"
#include "platform/xpc/NSXPCConnection.h"
#include "platform/xpc/connection/ConnectionCore.h"
#include "platform/xpc/contract/Limits.h"
#include "platform/xpc/interface/Errors.h"
#include "platform/xpc/system/SystemCalls.h"

namespace velto::xpc {

namespace {

// Pause before another try when this process can open no more descriptors, or watch no more of them: the kernel tells
// only of new connections, not of those that are still waiting. Longer each time that it is in vain.
constexpr std::chrono::milliseconds kAcceptPause{50};
constexpr std::chrono::milliseconds kLongestAcceptPause{400};
// Connections that are accepted before others have their turn.
constexpr unsigned kTurn = 64;

}  // namespace

ListenerCore::ListenerCore(system::Descriptor socket)
    : socket_(std::make_shared<const system::Descriptor>(std::move(socket))) {}

void ListenerCore::setEndpoint(NSXPCListenerEndpoint endpoint, system::Descriptor hangUpWrite) {
  MutexLock lock(mutex_);
  endpoint_ = std::move(endpoint);
  hangUpWrite_ = std::move(hangUpWrite);
}

void ListenerCore::setServed(transport::NamedSocket served) {
  MutexLock lock(mutex_);
  served_ = std::move(served);
}

void ListenerCore::setListener(const std::shared_ptr<NSXPCListener>& listener) {
  MutexLock lock(mutex_);
  listener_ = listener;
}

NSXPCListenerEndpoint ListenerCore::endpoint() {
  MutexLock lock(mutex_);
  return endpoint_;
}

NSString ListenerCore::path() {
  MutexLock lock(mutex_);
  return served_.path.empty() ? NSString() : NSString(served_.path);
}

void ListenerCore::setDelegate(std::weak_ptr<NSXPCListenerDelegate> delegate) {
  MutexLock lock(mutex_);
  std::swap(delegate_, delegate);
}

void ListenerCore::resume() {
  if (generation_ != system::forkGeneration()) return;
  const LogDeferral deferral;
  MutexLock lock(mutex_);
  if (!socket_ || identifier_ != 0) return;
  identifier_ = transport::Reactor::shared().add(socket_->get(), EPOLLIN, shared_from_this());
  if (identifier_ == 0) {
    VKTLoggingLog(VKTLogGetAnchor(), VKTLogLevelFailure, "A listener cannot be watched yet: %s", std::strerror(errno));
    transport::Reactor::shared().ensureThread();
    transport::Reactor::shared().timers().add(kAcceptPause, [weak = weak_from_this()] {
      if (const auto self = weak.lock()) self->resume();
    });
  }
}

void ListenerCore::invalidate() {
  if (generation_ != system::forkGeneration()) return;
  SilentConnections silent;
  transport::NamedSocket served;
  {
    MutexLock lock(mutex_);
    if (!socket_) return;
    if (identifier_ != 0) transport::Reactor::shared().remove(identifier_, socket_->get());
    socket_.reset();
    hangUpWrite_.reset();
    silent.swap(silent_);
    silentOf_.clear();
    served = std::move(served_);
    served_ = {};
  }
  if (!served.name.empty()) transport::stopServingName(served);
  for (const auto& [number, connection] : silent) {
    if (const auto core = connection.connection.lock()) core->turnAwayIfSilent();
  }
}

// First nobody can connect any more, then those are accepted who have, and only then is it decided: so nobody falls
// between. Who stays goes on at a new socket, made before, since the old one takes nobody any more.
bool ListenerCore::leave(const std::function<bool()>& mayLeave) {
  if (generation_ != system::forkGeneration()) return false;
  transport::NamedSocket successor;
  {
    MutexLock lock(mutex_);
    successor.name = served_.name;
    successor.fromEnvironment = served_.fromEnvironment;
  }
  if (successor.name.empty()) return false;
  const transport::NameLock names(successor.fromEnvironment);
  if (!names.isHeld) return false;
  transport::serveUnseen(names, successor);
  if (!successor.socket) return false;
  std::vector<system::Descriptor> last;
  const bool hasClosed = closeDoor(last);
  if (!hasClosed || (last.empty() && mayLeave())) {
    transport::forgetUnseen(names, successor);
    if (hasClosed) endAt(names);
    return hasClosed;
  }
  transport::show(names, successor);
  if (!successor.socket) {
    VKTLoggingLog(VKTLogGetAnchor(), VKTLogLevelFailure, "A listener ends: %s", successor.reason);
    endAt(names);
    return true;
  }
  continueAt(std::move(successor));
  for (system::Descriptor& each : last) admit(std::move(each));
  return false;
}

bool ListenerCore::closeDoor(std::vector<system::Descriptor>& last) {
  MutexLock lock(mutex_);
  if (!socket_ || accepting_ || !silent_.empty()) return false;
  auto& calls = system::systemCalls();
  if (identifier_ != 0) transport::Reactor::shared().remove(std::exchange(identifier_, 0), socket_->get());
  // Nobody who comes with an event that has been told already.
  accepting_ = true;
  calls.shutdown(socket_->get());
  for (int next = calls.accept(socket_->get()); next >= 0; next = calls.accept(socket_->get())) last.emplace_back(next);
  return true;
}

void ListenerCore::endAt(const transport::NameLock& names) {
  MutexLock lock(mutex_);
  transport::takeNameAway(names, served_);
  socket_.reset();
  served_ = {};
}

void ListenerCore::continueAt(transport::NamedSocket served) {
  {
    MutexLock lock(mutex_);
    socket_ = std::make_shared<const system::Descriptor>(std::move(served.socket));
    served_ = std::move(served);
    accepting_ = false;
  }
  resume();
}

void ListenerCore::eventsArrived(std::uint32_t) {
  {
    MutexLock lock(mutex_);
    // Whoever accepts goes on until nobody is left, this event's connection included.
    if (accepting_) return;
    accepting_ = true;
  }
  try {
    unsigned accepted = 0;
    while (accepted < kTurn && acceptOne()) ++accepted;
    if (accepted == kTurn) acceptSoon();
  } catch (const std::bad_alloc&) {
    acceptLater("there is no memory");
  }
}

bool ListenerCore::acceptOne() {
  system::Descriptor accepted;
  int error = 0;
  {
    // Under the lock, so that an event that comes now is either seen by this accept or finds nobody accepting.
    MutexLock lock(mutex_);
    const int descriptor = socket_ ? system::systemCalls().accept(socket_->get()) : -1;
    error = errno;
    if (descriptor < 0 && (!socket_ || error == EAGAIN)) {
      accepting_ = false;
      return false;
    }
    if (descriptor >= 0) {
      accepted = system::Descriptor(descriptor);
      acceptPause_ = std::chrono::milliseconds(0);
    }
  }
  if (!accepted) return mendAccept(error);
  madeRoom_ = false;
  admit(std::move(accepted));
  return true;
}

bool ListenerCore::mendAccept(int error) {
  if (error == ECONNABORTED) return true;
  if (error == EMFILE || error == ENFILE) {
    // One for each that is accepted: its descriptor may still be in use by the thread that reads it.
    const auto one = madeRoom_.exchange(true) ? nullptr : AcceptedConnections::shared().oneTooMany();
    if (one) {
      one->giveWay("no descriptor is left for another connection, and its process has the most");
      return true;
    }
    madeRoom_ = false;
  }
  acceptLater(std::strerror(error));
  return false;
}

// The kernel tells again of who waits, behind all others that it has something to tell of.
void ListenerCore::acceptSoon() {
  {
    MutexLock lock(mutex_);
    accepting_ = false;
    if (!socket_ || transport::Reactor::shared().changeEvents(identifier_, socket_->get(), EPOLLIN)) return;
  }
  acceptLater(std::strerror(errno));
}

// Nobody accepts in the meantime, whatever events come; unless there is no memory to come back with, then they count.
// Said once, until somebody has been accepted again.
void ListenerCore::acceptLater(const char* reason) {
  bool isFirst = false;
  {
    MutexLock lock(mutex_);
    accepting_ = false;
    isFirst = acceptPause_.count() == 0;
    acceptPause_ = isFirst ? kAcceptPause : std::min(2 * acceptPause_, kLongestAcceptPause);
    transport::Reactor::shared().timers().add(acceptPause_, [weak = weak_from_this()] {
      const auto self = weak.lock();
      if (!self) return;
      {
        MutexLock inner(self->mutex_);
        self->accepting_ = false;
      }
      self->eventsArrived(EPOLLIN);
    });
    accepting_ = true;
  }
  if (isFirst) {
    VKTLoggingLog(VKTLogGetAnchor(), VKTLogLevelFailure, "A connection cannot be accepted yet: %s", reason);
  }
}

void ListenerCore::admit(system::Descriptor socket) {
  std::string reason;
  if (!transport::isOwnUser(socket.get(), reason)) {
    VKTLoggingLog(VKTLogGetAnchor(), VKTLogLevelFailure, "A connection is turned away: %s", reason);
    return;
  }
  auto peer = transport::PeerProcess::of(socket.get());
  std::shared_ptr<ConnectionCore> gaveWay;
  auto place = AcceptedConnections::shared().enter(peer->number(), gaveWay);
  if (gaveWay) gaveWay->giveWay("no place is left for another connection, and its process has the most");
  if (!place) {
    VKTLoggingLog(VKTLogGetAnchor(), VKTLogLevelFailure,
                  "A connection of process %d is turned away: no place is left, and no process has more connections",
                  peer->identifier());
    return;
  }
  place->traffic = std::make_shared<transport::Traffic::Share>(traffic_);
  watchOver(std::move(socket), std::move(peer), std::move(place));
  endCrowding();
}

void ListenerCore::watchOver(system::Descriptor socket, std::shared_ptr<transport::PeerProcess> peer,
                             std::shared_ptr<AcceptedConnections::Place> place) {
  std::uint64_t number = 0;
  {
    MutexLock lock(mutex_);
    number = ++lastNumber_;
    silent_.emplace(number, Silent{{}, Clock::now(), peer->number()});
    ++silentOf_[peer->number()];
  }
  const auto weak = weak_from_this();
  const auto core = ConnectionCore::accepted(std::move(socket), std::move(peer), std::move(place),
                                             {[weak, number] {
                                                if (const auto self = weak.lock()) self->forget(number);
                                              },
                                              [weak](const std::shared_ptr<ConnectionCore>& connection) {
                                                const auto self = weak.lock();
                                                self ? self->handOver(connection) : connection->turnAway();
                                              }});
  MutexLock lock(mutex_);
  // Most are not silent any more: they take no timer.
  const auto silent = silent_.find(number);
  if (silent == silent_.end()) return;
  silent->second.connection = core;
  armSilenceTimer();
}

ListenerCore::SilentConnections::iterator ListenerCore::nextToGo() {
  const auto most = std::max_element(silentOf_.begin(), silentOf_.end(),
                                     [](const auto& one, const auto& other) { return one.second < other.second; });
  return std::find_if(silent_.begin(), silent_.end(),
                      [peer = most->first](const auto& each) { return each.second.peer == peer; });
}

ListenerCore::Silent ListenerCore::takeOut(SilentConnections::iterator silent) {
  Silent taken = std::move(silent->second);
  silent_.erase(silent);
  const auto count = silentOf_.find(taken.peer);
  if (--count->second == 0) silentOf_.erase(count);
  return taken;
}

void ListenerCore::endCrowding() {
  for (;;) {
    std::shared_ptr<ConnectionCore> next;
    std::size_t count = 0;
    {
      MutexLock lock(mutex_);
      count = silent_.size();
      if (count <= limits::kSilentConnections) return;
      const auto silent = nextToGo();
      const bool hasHadItsTime = Clock::now() - silent->second.since >= limits::kShortestSilence;
      if (!hasHadItsTime && count <= limits::kMostSilentConnections) return;
      next = takeOut(silent).connection.lock();
    }
    if (!next) continue;
    VKTLoggingLog(
        VKTLogGetAnchor(), VKTLogLevelFailure, "%s",
        overLimit("A connection that has not called is cut off: such connections", count, limits::kSilentConnections));
    next->turnAwayIfSilent();
  }
}

void ListenerCore::handOver(const std::shared_ptr<ConnectionCore>& connection) {
  std::shared_ptr<NSXPCListener> listener;
  std::shared_ptr<NSXPCListenerDelegate> delegate;
  {
    MutexLock lock(mutex_);
    listener = listener_.lock();
    delegate = delegate_.lock();
  }
  // Let go of at the end: what the delegate has not kept is invalidated then.
  const auto wrapped = NSXPCListener::wrap(connection);
  if (!listener || !delegate || !delegate->listener(listener, wrapped)) wrapped->invalidate();
}

void ListenerCore::forget(std::uint64_t number) {
  MutexLock lock(mutex_);
  const auto silent = silent_.find(number);
  if (silent != silent_.end()) takeOut(silent);
  // An idle process has no timer.
  if (silent_.empty()) transport::Reactor::shared().timers().cancel(std::exchange(silenceTimer_, 0));
}

void ListenerCore::armSilenceTimer() {
  const bool isCrowded = silent_.size() > limits::kSilentConnections;
  // With the first that is too many the time gets shorter.
  if (isCrowded && silent_.size() == limits::kSilentConnections + 1) {
    transport::Reactor::shared().timers().cancel(std::exchange(silenceTimer_, 0));
  }
  if (silenceTimer_ != 0 || silent_.empty()) return;
  const auto oldest = isCrowded ? nextToGo() : silent_.begin();
  const auto due = oldest->second.since + (isCrowded ? limits::kShortestSilence : limits::kSilence);
  silenceTimer_ = transport::Reactor::shared().timers().add(due - Clock::now(), [weak = weak_from_this()] {
    if (const auto self = weak.lock()) self->endLongSilences();
  });
}

void ListenerCore::endLongSilences() {
  endCrowding();
  std::vector<Silent> late;
  const auto now = Clock::now();
  {
    MutexLock lock(mutex_);
    silenceTimer_ = 0;
    while (!silent_.empty() && silent_.begin()->second.since <= now - limits::kSilence) {
      late.push_back(takeOut(silent_.begin()));
    }
    armSilenceTimer();
  }
  for (const Silent& silent : late) {
    const auto core = silent.connection.lock();
    if (!core) continue;
    const auto silence = std::chrono::duration_cast<std::chrono::milliseconds>(now - silent.since);
    VKTLoggingLog(
        VKTLogGetAnchor(), VKTLogLevelFailure, "%s",
        overLimit("A connection that has not called is cut off: milliseconds of silence",
                  static_cast<std::size_t>(silence.count()), static_cast<std::size_t>(limits::kSilence.count())));
    core->turnAwayIfSilent();
  }
}

}  // namespace velto::xpc
