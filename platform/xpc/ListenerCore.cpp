// The listening socket and what it brings. A peer that connects and says nothing costs a descriptor: of those the
// oldest goes when there are too many, and each goes after a time, so that silence never keeps out who has something to
// say.

#include "platform/xpc/ListenerCore.h"

#include <cerrno>
#include <cstring>
#include <new>
#include <utility>
#include <vector>

#include <sys/epoll.h>

#include "VeltoIPC/Limits.h"
#include "platform/logging/VeltoLogging.h"
#include "platform/xpc/ConnectionCore.h"
#include "platform/xpc/Errors.h"
#include "platform/xpc/NSXPCConnection.h"
#include "platform/xpc/system/SystemCalls.h"

namespace velto::xpc {

namespace {

// Pause before another try when this process can open no more descriptors, or watch no more of them: the kernel tells
// only of new connections, not of those that are still waiting.
constexpr std::chrono::milliseconds kAcceptPause{50};

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
  MutexLock lock(mutex_);
  if (!socket_ || identifier_ != 0) return;
  identifier_ = transport::Reactor::shared().add(socket_->get(), EPOLLIN, shared_from_this());
  if (identifier_ == 0) {
    VKTLoggingLog(VKTLogGetAnchor(), VKTLogLevelFailure, "A listener cannot be watched yet: %s", std::strerror(errno));
    transport::Reactor::shared().timers().add(kAcceptPause, [weak = weak_from_this()] {
      if (const auto self = weak.lock()) self->resume();
    });
  }
}

void ListenerCore::invalidate() {
  if (generation_ != system::forkGeneration()) return;
  std::map<std::uint64_t, Silent> silent;
  transport::NamedSocket served;
  {
    MutexLock lock(mutex_);
    if (!socket_) return;
    if (identifier_ != 0) transport::Reactor::shared().remove(identifier_, socket_->get());
    socket_.reset();
    hangUpWrite_.reset();
    silent.swap(silent_);
    served = std::move(served_);
    served_ = {};
  }
  if (!served.name.empty()) transport::stopServingName(served);
  for (const auto& [number, connection] : silent) {
    if (const auto core = connection.connection.lock()) core->turnAwayIfSilent();
  }
}

void ListenerCore::eventsArrived(std::uint32_t) {
  {
    MutexLock lock(mutex_);
    // Whoever accepts goes on until nobody is left, this event's connection included.
    if (accepting_) return;
    accepting_ = true;
  }
  try {
    while (acceptOne()) {
    }
  } catch (const std::bad_alloc&) {
    VKTLoggingLog(VKTLogGetAnchor(), VKTLogLevelFailure, "A connection cannot be accepted: there is no memory");
    MutexLock lock(mutex_);
    acceptLater();
  }
}

bool ListenerCore::acceptOne() {
  system::Descriptor accepted;
  {
    // Under the lock, so that an event that comes now is either seen by this accept or finds nobody accepting.
    MutexLock lock(mutex_);
    if (socket_ && isCrowded()) {
      acceptLater();
      return false;
    }
    const int descriptor = socket_ ? system::systemCalls().accept(socket_->get()) : -1;
    const int error = errno;
    if (descriptor < 0) {
      const bool again = socket_ && (error == ECONNABORTED);
      accepting_ = again;
      if (socket_ && !again && error != EAGAIN) {
        VKTLoggingLog(VKTLogGetAnchor(), VKTLogLevelFailure, "A connection cannot be accepted yet: %s",
                      std::strerror(error));
        acceptLater();
      }
      return again;
    }
    accepted = system::Descriptor(descriptor);
  }
  admit(std::move(accepted));
  return true;
}

bool ListenerCore::isCrowded() const {
  return silent_.size() >= limits::kSilentConnections &&
         Clock::now() - silent_.begin()->second.since < limits::kShortestSilence;
}

// Nobody accepts in the meantime, whatever events come; unless there is no memory to come back with, then they count.
void ListenerCore::acceptLater() {
  accepting_ = false;
  transport::Reactor::shared().timers().add(kAcceptPause, [weak = weak_from_this()] {
    const auto self = weak.lock();
    if (!self) return;
    {
      MutexLock lock(self->mutex_);
      self->accepting_ = false;
    }
    self->eventsArrived(EPOLLIN);
  });
  accepting_ = true;
}

void ListenerCore::admit(system::Descriptor socket) {
  std::string reason;
  if (!transport::isOwnUser(socket.get(), reason)) {
    VKTLoggingLog(VKTLogGetAnchor(), VKTLogLevelFailure, "A connection is turned away: %s", reason);
    return;
  }
  std::uint64_t number = 0;
  std::shared_ptr<ConnectionCore> oldest;
  {
    MutexLock lock(mutex_);
    number = ++lastNumber_;
    silent_.emplace(number, Silent{{}, Clock::now()});
    if (silent_.size() > limits::kSilentConnections) {
      oldest = silent_.begin()->second.connection.lock();
      silent_.erase(silent_.begin());
    }
    armSilenceTimer();
  }
  if (oldest) {
    VKTLoggingLog(VKTLogGetAnchor(), VKTLogLevelFailure, "%@",
                  NSString(overLimit("A connection that has not called is cut off: such connections",
                                     limits::kSilentConnections + 1, limits::kSilentConnections)));
    oldest->turnAwayIfSilent();
  }
  const auto weak = weak_from_this();
  const auto core =
      ConnectionCore::accepted(std::move(socket), {[weak, number] {
                                                     if (const auto self = weak.lock()) self->forget(number);
                                                   },
                                                   [weak](const std::shared_ptr<ConnectionCore>& connection) {
                                                     const auto self = weak.lock();
                                                     self ? self->handOver(connection) : connection->turnAway();
                                                   }});
  MutexLock lock(mutex_);
  const auto place = silent_.find(number);
  if (place != silent_.end()) place->second.connection = core;
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
  silent_.erase(number);
  // An idle process has no timer.
  if (silent_.empty()) transport::Reactor::shared().timers().cancel(std::exchange(silenceTimer_, 0));
}

void ListenerCore::armSilenceTimer() {
  if (silenceTimer_ != 0 || silent_.empty()) return;
  const auto due = silent_.begin()->second.since + limits::kSilence;
  silenceTimer_ = transport::Reactor::shared().timers().add(due - Clock::now(), [weak = weak_from_this()] {
    if (const auto self = weak.lock()) self->endLongSilences();
  });
}

void ListenerCore::endLongSilences() {
  std::vector<Silent> late;
  const auto now = Clock::now();
  {
    MutexLock lock(mutex_);
    silenceTimer_ = 0;
    while (!silent_.empty() && silent_.begin()->second.since <= now - limits::kSilence) {
      late.push_back(silent_.begin()->second);
      silent_.erase(silent_.begin());
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
