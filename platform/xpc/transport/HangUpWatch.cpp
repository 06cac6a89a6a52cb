#include "platform/xpc/transport/HangUpWatch.h"

#include <map>
#include <unordered_map>
#include <utility>

#include <sys/epoll.h>
#include <sys/stat.h>

#include "platform/foundation/ThreadAnnotations.h"
#include "platform/xpc/system/Descriptor.h"
#include "platform/xpc/system/PerProcess.h"
#include "platform/xpc/system/SystemCalls.h"
#include "platform/xpc/transport/Reactor.h"

namespace velto::transport {

// Watched for as long as somebody holds it.
class HangUpWatch::Pipe {
 public:
  // Waits on a copy of the pipe's end: one descriptor cannot be watched twice.
  explicit Pipe(system::Descriptor end) : end_(std::move(end)) {}
  ~Pipe() {
    if (identifier_ != 0) Reactor::shared().remove(identifier_, end_.get());
  }
  Pipe(const Pipe&) = delete;
  Pipe& operator=(const Pipe&) = delete;

  // To be called once. What has been added before hears of a hang-up that has been.
  bool start() {
    identifier_ = Reactor::shared().add(end_.get(), 0, source_);
    return identifier_ != 0;
  }
  // False when it has hung up, which is told only once.
  bool add(const HangUpWatch* watch, std::function<void()>& handler) { return source_->add(watch, handler); }
  void remove(const HangUpWatch* watch) { const auto released = source_->take(watch); }

 private:
  // The reactor holds this, and not the pipe.
  class Source final : public EventSource {
   public:
    void eventsArrived(std::uint32_t events) override {
      if ((events & (EPOLLHUP | EPOLLERR)) == 0) return;
      std::unordered_map<const HangUpWatch*, std::function<void()>> due;
      {
        MutexLock lock(mutex_);
        hasHungUp_ = true;
        due.swap(handlers_);
      }
      for (const auto& [watch, handler] : due) handler();
    }
    bool add(const HangUpWatch* watch, std::function<void()>& handler) {
      MutexLock lock(mutex_);
      if (!hasHungUp_) handlers_.emplace(watch, std::move(handler));
      return !hasHungUp_;
    }
    // Let go of by the caller.
    std::function<void()> take(const HangUpWatch* watch) {
      MutexLock lock(mutex_);
      auto node = handlers_.extract(watch);
      return node ? std::move(node.mapped()) : nullptr;
    }

   private:
    Mutex mutex_;
    bool hasHungUp_ VELTO_GUARDED_BY(mutex_) = false;
    std::unordered_map<const HangUpWatch*, std::function<void()>> handlers_ VELTO_GUARDED_BY(mutex_);
  };

  const std::shared_ptr<Source> source_ = std::make_shared<Source>();
  const system::Descriptor end_;
  Reactor::Identifier identifier_ = 0;
};

// Those that the process watches, by what the kernel knows them by.
class HangUpWatch::Pipes {
 public:
  // Null when there is none, or it has hung up.
  std::shared_ptr<HangUpWatch> join(const struct stat& status, std::function<void()>& handler) {
    std::shared_ptr<Pipe> pipe;
    {
      MutexLock lock(mutex_);
      const auto place = pipes_.find({status.st_dev, status.st_ino});
      if (place != pipes_.end()) pipe = place->second.lock();
    }
    return pipe ? watch(std::move(pipe), handler) : nullptr;
  }
  void enter(const struct stat& status, const std::shared_ptr<Pipe>& pipe) {
    MutexLock lock(mutex_);
    // What is gone leaves its place when there are many.
    if (pipes_.size() >= cleanAt_) {
      std::erase_if(pipes_, [](const auto& each) { return each.second.expired(); });
      cleanAt_ = 2 * pipes_.size() + kFew;
    }
    pipes_[{status.st_dev, status.st_ino}] = pipe;
  }
  static std::shared_ptr<HangUpWatch> watch(std::shared_ptr<Pipe> pipe, std::function<void()>& handler) {
    std::shared_ptr<HangUpWatch> made(new HangUpWatch(std::move(pipe)));
    return made->pipe_->add(made.get(), handler) ? made : nullptr;
  }

 private:
  static constexpr std::size_t kFew = 64;

  Mutex mutex_;
  std::map<std::pair<dev_t, ino_t>, std::weak_ptr<Pipe>> pipes_ VELTO_GUARDED_BY(mutex_);
  std::size_t cleanAt_ VELTO_GUARDED_BY(mutex_) = kFew;
};

std::shared_ptr<HangUpWatch> HangUpWatch::make(int pipe, std::function<void()> handler) {
  auto& pipes = system::perProcess<Pipes>();
  struct stat status {};
  const bool isKnown = system::systemCalls().status(pipe, status) == 0;
  if (isKnown) {
    if (auto joined = pipes.join(status, handler)) return joined;
  }
  system::Descriptor copy(system::systemCalls().duplicate(pipe));
  if (!copy) return nullptr;
  const auto fresh = std::make_shared<Pipe>(std::move(copy));
  auto made = Pipes::watch(fresh, handler);
  if (!fresh->start()) return nullptr;
  if (isKnown) pipes.enter(status, fresh);
  return made;
}

HangUpWatch::~HangUpWatch() {
  pipe_->remove(this);
}

}  // namespace velto::transport
