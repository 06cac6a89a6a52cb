#pragma once

#include <chrono>
#include <coroutine>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <stop_token>
#include <utility>

#include "VeltoIPC/Outcome.h"
#include "platform/foundation/NSDictionary.h"

namespace velto {

namespace calls {
class CallState;
}
template <class Reply>
class TypedCall;

// Under which terms a call is made.
struct CallOptions {
  // From now on; without one it may take for ever.
  std::optional<std::chrono::nanoseconds> timeout = {};
  // Takes the call back when a stop is requested.
  std::stop_token stop = {};
  // May be made again, over a new connection, if the one it was made over is lost: doing it twice does no harm.
  bool isIdempotent = false;
};

// A call under way. It ends exactly once: with the reply, or with the one reason why there is none. Ask for that in one
// of the ways below, once. Whoever lets go of it takes nothing back; it ends all the same.
//
// Copies are the same call. Thread-safe.
class VELTO_EXPORT Call {
 public:
  using Reply = Outcome<NSDictionary>;

  // Sleeps until it has ended. May be called inside of a callback.
  Reply get() const;
  // The same as a future, which is made ready on the thread that ends the call.
  [[nodiscard]] std::future<Reply> future() const;
  // Calls the handler once, where callbacks run.
  void then(std::function<void(Reply)> handler) const;
  // Resumes the coroutine where callbacks run.
  auto operator co_await() const;

  // Takes it back: it ends as cancelled, unless it has ended. The other end hears of it.
  void cancel() const;
  [[nodiscard]] bool hasEnded() const;

  explicit Call(std::shared_ptr<calls::CallState> state) noexcept : state_(std::move(state)) {}

 private:
  template <class>
  friend class TypedCall;

  // Calls the handler, which must not block, on the thread that ends the call.
  void whenEnded(std::function<void(Reply)> handler) const;

  std::shared_ptr<calls::CallState> state_;
};

namespace detail {

class CallAwaiter {
 public:
  explicit CallAwaiter(Call call) noexcept : call_(std::move(call)) {}

  bool await_ready() const { return false; }
  void await_suspend(std::coroutine_handle<> waiting) {
    call_.then([this, waiting](Call::Reply reply) {
      reply_ = std::move(reply);
      waiting.resume();
    });
  }
  Call::Reply await_resume() { return *std::move(reply_); }

 private:
  Call call_;
  std::optional<Call::Reply> reply_;
};

}  // namespace detail

inline auto Call::operator co_await() const {
  return detail::CallAwaiter(*this);
}

}  // namespace velto
