// The sink in use. No lock is held while a sink runs; threads inside it are counted instead, and whoever replaces it
// waits for them and then destroys it, so that what a sink captured can go as soon as it is replaced.
#include "platform/logging/LogSink.h"

#include <utility>

#include <pthread.h>

#include "platform/logging/LogLevel.h"

namespace velto {

namespace {

// The sink that this thread is inside.
constinit thread_local const void* visitedSlot = nullptr;

}  // namespace

constinit thread_local bool InsideSink::isInside = false;

// One thread's stay inside the sink.
class LogSinkHolder::Visit {
 public:
  explicit Visit(LogSinkHolder& holder) : holder_(holder), slot_(holder.enter()) { visitedSlot = slot_; }
  ~Visit() {
    visitedSlot = nullptr;
    holder_.leave(slot_);
  }
  Visit(const Visit&) = delete;
  Visit& operator=(const Visit&) = delete;

  const VKTLogSink& sink() const noexcept { return slot_->sink; }
  bool leavesOut(LineOf what) const noexcept {
    return slot_->isDefault && what == LineOf::orderlyEnd && logLevelInForce() < VKTLogLevelProgress;
  }

 private:
  LogSinkHolder& holder_;
  Slot* const slot_;
};

LogSinkHolder& LogSinkHolder::shared() {
  static LogSinkHolder& made = *new LogSinkHolder;
  return made;
}

LogSinkHolder::LogSinkHolder() : current_(new Slot{writeToStandardError, true}) {
  pthread_atfork(beforeFork, afterForkInParent, afterForkInChild);
}

void LogSinkHolder::beforeFork() noexcept VELTO_NO_THREAD_SAFETY_ANALYSIS {
  shared().mutex_.lock();
}

void LogSinkHolder::afterForkInParent() noexcept VELTO_NO_THREAD_SAFETY_ANALYSIS {
  shared().mutex_.unlock();
}

void LogSinkHolder::afterForkInChild() noexcept VELTO_NO_THREAD_SAFETY_ANALYSIS {
  LogSinkHolder& holder = shared();
  holder.current_->threadsInside = visitedSlot == holder.current_.get() ? 1 : 0;
  holder.mutex_.unlock();
}

template <class Write>
void LogSinkHolder::visit(LineOf what, Write write) noexcept {
  if (InsideSink::isNow()) return;
  const Visit visit(*this);
  if (visit.leavesOut(what)) return;
  const InsideSink inside;
  try {
    write(visit.sink());
  } catch (...) {
    // A sink must not raise. One that does loses its line; the process goes on.
  }
}

void LogSinkHolder::write(LineOf what, const VKTLogAnchor& anchor, int level, const char* format,
                          std::initializer_list<FormatArgument> arguments) noexcept {
  // Formatted inside the visit: a description that logs is dropped like a sink that does.
  visit(what, [&](const VKTLogSink& sink) { sink(anchor, level, formatText(format, arguments)); });
}

void LogSinkHolder::writeText(LineOf what, const VKTLogAnchor& anchor, int level, const NSString& text) noexcept {
  visit(what, [&](const VKTLogSink& sink) { sink(anchor, level, text); });
}

void LogSinkHolder::replace(VKTLogSink sink) {
  const bool isDefault = !sink;
  std::unique_ptr<Slot> former(new Slot{isDefault ? writeToStandardError : std::move(sink), isDefault});
  MutexLock lock(mutex_);
  std::swap(current_, former);
  if (!InsideSink::isNow()) {
    while (former->threadsInside > 0) lock.wait(left_);
  } else if (former->threadsInside > 0) {
    former->isAbandoned = true;
    former.release();
  }
}

LogSinkHolder::Slot* LogSinkHolder::enter() {
  MutexLock lock(mutex_);
  ++current_->threadsInside;
  return current_.get();
}

void LogSinkHolder::leave(Slot* slot) {
  std::unique_ptr<Slot> disposed;
  MutexLock lock(mutex_);
  if (--slot->threadsInside > 0) return;
  if (slot->isAbandoned) disposed.reset(slot);
  left_.notify_all();
}

}  // namespace velto
