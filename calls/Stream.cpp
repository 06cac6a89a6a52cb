#include "VeltoIPC/Stream.h"

#include <exception>

#include "calls/StreamState.h"
#include "platform/logging/VeltoLogging.h"
#include "platform/xpc/DelayedCall.h"

namespace velto {

using calls::StreamState;

namespace {

// One item after the other, and then the end. Runs where callbacks run.
struct Reading : std::enable_shared_from_this<Reading> {
  Reading(std::shared_ptr<StreamState> readFrom, std::function<void(NSDictionary)> takesItem,
          std::function<void(Stream::Result)> takesEnd)
      : state(std::move(readFrom)), item(std::move(takesItem)), ended(std::move(takesEnd)) {}

  void goOn() {
    state->in().whenNext([self = shared_from_this()](Stream::Item next) {
      self->state->perform([self, next = std::move(next)] { self->take(next); });
    });
  }

  void take(const Stream::Item& next) {
    if (!next) return ended ? ended(state->in().waitForEnd()) : void();
    try {
      if (item) item(*next);
    } catch (const std::exception& exception) {
      VKTLoggingLog(VKTLogGetAnchor(), VKTLogLevelFailure, "A reader of a stream raised an exception: %s",
                    exception.what());
      state->cancel();
    } catch (...) {
      VKTLoggingLog(VKTLogGetAnchor(), VKTLogLevelFailure, "A reader of a stream raised an exception of its own type");
      state->cancel();
    }
    goOn();
  }

  const std::shared_ptr<StreamState> state;
  const std::function<void(NSDictionary)> item;
  const std::function<void(Stream::Result)> ended;
};

}  // namespace

Stream::Item Stream::Next::get() const {
  return state_->in().waitForNext();
}

void Stream::Next::await_suspend(std::coroutine_handle<> waiting) {
  state_->in().whenNext([this, state = state_, waiting](Item item) {
    item_ = std::move(item);
    state->perform([waiting] { waiting.resume(); });
  });
}

bool Stream::Writing::await_ready() {
  error_ = state_->out().write(item_, std::nullopt, false);
  return !error_ || error_->failure() != Failure::full;
}

void Stream::Writing::await_suspend(std::coroutine_handle<> waiting) {
  state_->out().writeLater(item_, [this, state = state_, waiting](std::optional<CallError> error) {
    error_ = std::move(error);
    state->perform([waiting] { waiting.resume(); });
  });
}

Stream::Next Stream::next() const {
  return Next(state_);
}

void Stream::forEach(std::function<void(NSDictionary)> item, std::function<void(Result)> ended) const {
  std::make_shared<Reading>(state_, std::move(item), [holder = holder_, ended = std::move(ended)](Result result) {
    if (ended) ended(std::move(result));
  })->goOn();
}

Stream::Result Stream::result() const {
  return state_->in().waitForEnd();
}

std::optional<CallError> Stream::write(const NSDictionary& item,
                                       std::optional<std::chrono::nanoseconds> timeout) const {
  std::optional<calls::Outflow::SteadyTime> deadline;
  if (timeout) deadline = xpc::timeAfter(*timeout);
  return state_->out().write(item, deadline, true);
}

std::optional<CallError> Stream::tryWrite(const NSDictionary& item) const {
  return state_->out().write(item, std::nullopt, false);
}

Stream::Writing Stream::writing(NSDictionary item) const {
  return {state_, std::move(item)};
}

void Stream::finish() const {
  state_->finish();
}

void Stream::cancel() const {
  state_->cancel();
}

}  // namespace velto
