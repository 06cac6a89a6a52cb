// The sink in use. No lock is held while a sink runs; threads inside it are counted instead, and whoever replaces it
// waits for them and then destroys it, so that what a sink captured can go as soon as it is replaced.
#include "platform/logging/LogSink.h"

#include <utility>

namespace velto {
namespace {

thread_local bool isInsideSink = false;

}  // namespace

// One thread's stay inside the sink.
class LogSinkHolder::Visit {
 public:
  explicit Visit(LogSinkHolder& holder) : holder_(holder), slot_(holder.enter()) { isInsideSink = true; }
  ~Visit() {
    isInsideSink = false;
    holder_.leave(slot_);
  }
  Visit(const Visit&) = delete;
  Visit& operator=(const Visit&) = delete;

  const VKTLogSink& sink() const noexcept { return slot_->sink; }

 private:
  LogSinkHolder& holder_;
  Slot* const slot_;
};

LogSinkHolder& LogSinkHolder::shared() {
  static LogSinkHolder& made = *new LogSinkHolder;
  return made;
}

LogSinkHolder::LogSinkHolder() : current_(new Slot{writeToStandardError}) {}

void LogSinkHolder::write(const VKTLogAnchor& anchor, int level, const char* format,
                          std::initializer_list<FormatArgument> arguments) {
  if (isInsideSink) return;
  const Visit visit(*this);
  // Formatted inside the visit: a description that logs is dropped like a sink that does.
  visit.sink()(anchor, level, formatText(format, arguments));
}

void LogSinkHolder::replace(VKTLogSink sink) {
  std::unique_ptr<Slot> former(new Slot{sink ? std::move(sink) : writeToStandardError});
  MutexLock lock(mutex_);
  std::swap(current_, former);
  if (!isInsideSink) {
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
