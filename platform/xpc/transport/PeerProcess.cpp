// Processes are found by their number, and a number says little: it is given out again. So the kernel's descriptor for
// the process comes first. While that says that the process lives, the number is its own, and an object that is found
// under the number and lives as well is of the same process.
//
// What the reactor holds is the death and not the process, so that letting go of the last reference ends the watch. The
// descriptor is closed as soon as it has told, unless it has been lent.

#include "platform/xpc/transport/PeerProcess.h"

#include <atomic>
#include <cerrno>
#include <exception>
#include <map>
#include <new>
#include <unordered_map>
#include <utility>

#include <sys/epoll.h>
#include <unistd.h>

#include "platform/foundation/ThreadAnnotations.h"
#include "platform/logging/VeltoLogging.h"
#include "platform/xpc/system/Descriptor.h"
#include "platform/xpc/system/PerProcess.h"
#include "platform/xpc/system/SystemCalls.h"
#include "platform/xpc/transport/Reactor.h"

namespace velto::transport {

namespace {

using Handler = std::function<void()>;

// A process can have thousands of connections. After so many of their handlers other events have a turn.
constexpr std::size_t kToldAtOnce = 64;

std::uint64_t nextNumber() {
  static std::atomic<std::uint64_t> last{0};
  return last.fetch_add(1, std::memory_order_relaxed) + 1;
}

// A process as the kernel has just shown it.
struct Sight {
  system::Descriptor descriptor;  // none when it is dead, or nothing is left to watch it with
  bool isDead = false;
};

Sight lookAt(int borrowedSocket, pid_t identifier) {
  auto& calls = system::systemCalls();
  Sight sight{system::Descriptor(calls.openPeerProcess(borrowedSocket)), false};
  if (sight.descriptor) return sight;
  // Any other answer can come of a kernel, or of a filter before it, that does not know the question. A number that has
  // been given out anew shows the wrong process then; nothing better is to be had.
  const bool isFinal = errno == ESRCH || errno == EMFILE || errno == ENFILE || errno == ENOMEM;
  if (!isFinal) sight.descriptor = system::Descriptor(calls.openProcess(identifier));
  if (!sight.descriptor) sight.isDead = errno == ESRCH;
  return sight;
}

uid_t userOf(int borrowedSocket) {
  uid_t user = 0;
  return system::systemCalls().peerUser(borrowedSocket, user) == 0 ? user : static_cast<uid_t>(-1);
}

void callContained(const Handler& handler) {
  try {
    handler();
  } catch (const std::exception& error) {
    VKTLoggingLog(VKTLogGetAnchor(), VKTLogLevelFailure, "The death of a process could not be dealt with: %s",
                  error.what());
  }
}

}  // namespace

// When a process dies, and who wants to know.
class PeerProcess::Death final : public EventSource, public std::enable_shared_from_this<Death> {
 public:
  bool hasHappened() const noexcept { return happened_.load(std::memory_order_acquire); }
  bool hasHappenedByNow() {
    MutexLock lock(mutex_);
    return happened_.load(std::memory_order_relaxed) ||
           (descriptor_ && system::systemCalls().isReadable(descriptor_.get()) > 0);
  }

  // Waits for it, unless something waits already or the kernel has no room.
  void watch(system::Descriptor process) {
    MutexLock lock(mutex_);
    if (descriptor_ || hasHappened()) return;
    watcher_ = Reactor::shared().add(process.get(), EPOLLIN, shared_from_this());
    if (watcher_ != 0) descriptor_ = std::move(process);
  }
  void stopWatching() {
    MutexLock lock(mutex_);
    letGo();
    descriptor_.reset();
  }
  // `open` makes one for what is not watched.
  template <class Open>
  int lendDescriptor(const Open& open) {
    MutexLock lock(mutex_);
    if (!descriptor_ && !hasHappened()) descriptor_ = open();
    isLent_ = isLent_ || descriptor_;
    return descriptor_ ? descriptor_.get() : -1;
  }

  void eventsArrived(std::uint32_t events) override {
    if ((events & (EPOLLIN | EPOLLHUP | EPOLLERR)) != 0) happen();
  }
  void happen() {
    {
      MutexLock lock(mutex_);
      happened_.store(true, std::memory_order_release);
      letGo();
    }
    tell();
  }

  std::uint64_t add(Handler handler) {
    std::uint64_t number = 0;
    bool isLate = false;
    {
      MutexLock lock(mutex_);
      number = ++lastHandler_;
      handlers_.emplace(number, std::move(handler));
      isLate = hasHappened();
    }
    if (isLate && !tellLater()) {
      remove(number);
      throw std::bad_alloc();
    }
    return number;
  }
  void remove(std::uint64_t number) {
    Handler removed;  // let go of after the lock
    MutexLock lock(mutex_);
    const auto found = handlers_.find(number);
    if (found == handlers_.end()) return;
    removed = std::move(found->second);
    handlers_.erase(found);
  }

 private:
  void letGo() VELTO_REQUIRES(mutex_) {
    if (watcher_ != 0) Reactor::shared().forget(std::exchange(watcher_, 0));
    if (!isLent_) descriptor_.reset();
  }

  void tell() {
    // Without memory to come back with, the others wait.
    do {
      if (!tellSome()) return;
    } while (!tellLater());
  }
  // False once there is nobody left to be told.
  bool tellSome() {
    for (std::size_t told = 0; told < kToldAtOnce; ++told) {
      const Handler handler = takeFirst();
      if (!handler) return false;
      callContained(handler);
    }
    return true;
  }
  bool tellLater() {
    try {
      Reactor::shared().timers().add({}, [self = shared_from_this()] { self->tell(); });
      return true;
    } catch (const std::bad_alloc&) {
      return false;
    }
  }
  Handler takeFirst() {
    MutexLock lock(mutex_);
    if (handlers_.empty()) return nullptr;
    Handler first = std::move(handlers_.begin()->second);
    handlers_.erase(handlers_.begin());
    return first;
  }

  std::atomic<bool> happened_{false};
  Mutex mutex_;
  system::Descriptor descriptor_ VELTO_GUARDED_BY(mutex_);
  bool isLent_ VELTO_GUARDED_BY(mutex_) = false;
  Reactor::Identifier watcher_ VELTO_GUARDED_BY(mutex_) = 0;
  std::map<std::uint64_t, Handler> handlers_ VELTO_GUARDED_BY(mutex_);
  std::uint64_t lastHandler_ VELTO_GUARDED_BY(mutex_) = 0;
};

// The living processes that somebody has a reference to, by their numbers.
class PeerProcess::Registry {
 public:
  // The child of a fork gets a new one: the processes of the parent's connections are no concern of its own, and the
  // lock may be held by a thread that it does not have.
  static Registry& shared();

  std::shared_ptr<PeerProcess> own() {
    std::shared_ptr<PeerProcess> process;
    MutexLock lock(mutex_);
    process = known(::getpid());
    if (process) return process;
    process = make(::getpid(), ::geteuid());
    processes_[::getpid()] = process;
    return process;
  }
  std::shared_ptr<PeerProcess> find(pid_t identifier, int borrowedSocket) {
    Sight sight = lookAt(borrowedSocket, identifier);
    // Let go of after the lock, which their end takes.
    std::shared_ptr<PeerProcess> found;
    std::shared_ptr<PeerProcess> fresh;
    MutexLock lock(mutex_);
    found = known(identifier);
    // First the one that has been here, then the one at hand: if the first lives and then the other, they are the same.
    const bool lives = found && !found->isDead();
    if (sight.descriptor) sight.isDead = system::systemCalls().isReadable(sight.descriptor.get()) > 0;
    if (lives && !sight.isDead) {
      if (sight.descriptor) found->death_->watch(std::move(sight.descriptor));
      return found;
    }
    fresh = make(identifier, userOf(borrowedSocket));
    if (sight.isDead) {
      fresh->death_->happen();
      return fresh;
    }
    if (sight.descriptor) fresh->death_->watch(std::move(sight.descriptor));
    processes_[identifier] = fresh;
    return fresh;
  }
  // Called when the last reference has gone.
  void forget(pid_t identifier) {
    MutexLock lock(mutex_);
    const auto place = processes_.find(identifier);
    if (place != processes_.end() && place->second.expired()) processes_.erase(place);
  }

  static std::shared_ptr<PeerProcess> make(pid_t identifier, uid_t user) {
    return std::shared_ptr<PeerProcess>(new PeerProcess(identifier, user));
  }

 private:
  std::shared_ptr<PeerProcess> known(pid_t identifier) VELTO_REQUIRES(mutex_) {
    const auto place = processes_.find(identifier);
    return place != processes_.end() ? place->second.lock() : nullptr;
  }

  Mutex mutex_;
  std::unordered_map<pid_t, std::weak_ptr<PeerProcess>> processes_ VELTO_GUARDED_BY(mutex_);
};

PeerProcess::Registry& PeerProcess::Registry::shared() {
  return system::perProcess<Registry>();
}

std::shared_ptr<PeerProcess> PeerProcess::of(int borrowedSocket) {
  pid_t identifier = 0;
  if (system::systemCalls().peerProcess(borrowedSocket, identifier) != 0) identifier = 0;
  if (identifier == 0) return Registry::make(0, userOf(borrowedSocket));
  if (identifier == ::getpid()) return Registry::shared().own();
  return Registry::shared().find(identifier, borrowedSocket);
}

std::shared_ptr<PeerProcess> PeerProcess::unwatched(int borrowedSocket) {
  pid_t identifier = 0;
  if (system::systemCalls().peerProcess(borrowedSocket, identifier) != 0) identifier = 0;
  return Registry::make(identifier, userOf(borrowedSocket));
}

PeerProcess::PeerProcess(pid_t identifier, uid_t user)
    : generation_(system::forkGeneration()),
      identifier_(identifier),
      user_(user),
      number_(nextNumber()),
      death_(std::make_shared<Death>()) {}

PeerProcess::~PeerProcess() {
  if (isInherited()) return;
  death_->stopWatching();
  if (identifier_ != 0) Registry::shared().forget(identifier_);
}

bool PeerProcess::isInherited() const noexcept {
  return generation_ != system::forkGeneration();
}

bool PeerProcess::isDead() const {
  return death_->hasHappened() || (!isInherited() && death_->hasHappenedByNow());
}

int PeerProcess::lendDescriptor() {
  if (isInherited()) return -1;
  // Only this process is sure to be the one that has the number.
  return death_->lendDescriptor([this] {
    return identifier_ == ::getpid() ? system::Descriptor(system::systemCalls().openProcess(identifier_))
                                     : system::Descriptor();
  });
}

PeerProcess::Subscription PeerProcess::onDeath(std::function<void()> handler) {
  if (isInherited()) return {};
  return {shared_from_this(), death_->add(std::move(handler))};
}

PeerProcess::Subscription::Subscription(std::shared_ptr<PeerProcess> process, std::uint64_t handler) noexcept
    : process_(std::move(process)), handler_(handler) {}

PeerProcess::Subscription::Subscription(Subscription&& other) noexcept = default;

PeerProcess::Subscription& PeerProcess::Subscription::operator=(Subscription&& other) noexcept {
  const Subscription ended(std::exchange(process_, std::move(other.process_)), std::exchange(handler_, other.handler_));
  return *this;
}

PeerProcess::Subscription::~Subscription() {
  if (process_ && !process_->isInherited()) process_->death_->remove(handler_);
}

}  // namespace velto::transport
