#pragma once

#include <coroutine>
#include <exception>
#include <optional>
#include <string>
#include <type_traits>

#include "VeltoIPC/Request.h"
#include "platform/foundation/Export.h"

namespace velto {

namespace detail {
// What an exception says that is being handled.
VELTO_EXPORT std::string textOfException();
// An exception of a coroutine that answers no request.
VELTO_EXPORT void logException();
}  // namespace detail

// What a coroutine returns that nobody waits for: it runs at once, up to where it first waits, and is gone when it is
// through. As a handler it may take its time:
//
//   service.on("sum", [](velto::Request request) -> velto::Task {
//     const velto::Call call = other.call({{"op", "part"}});
//     const auto part = co_await call;
//     part ? request.reply(*part) : request.fail(part.error().text());
//   });
//
// (gcc 12 takes no braces of a message inside of a co_await expression; hence the call has a name.)
//
// An exception that leaves it answers the request that it was called with, else it is logged as a failure. What it uses
// must outlive it: its parameters do if they are values, and so do the captures of a lambda that is a handler, if it
// takes the request as a value; those of any other lambda only as long as the lambda.
class Task {
 public:
  class promise_type {
   public:
    promise_type() noexcept = default;
    template <class... Arguments>
    explicit promise_type(const Arguments&... arguments) {
      (keep(arguments), ...);
    }

    Task get_return_object() const noexcept { return {}; }
    std::suspend_never initial_suspend() const noexcept { return {}; }
    std::suspend_never final_suspend() const noexcept { return {}; }
    void return_void() const noexcept {}
    void unhandled_exception() const {
      request_ ? void(request_->drop("the handler raised an exception: " + detail::textOfException()))
               : detail::logException();
    }

   private:
    template <class Argument>
    void keep(const Argument& argument) {
      if constexpr (std::is_same_v<Argument, Request>) request_ = argument;
    }

    std::optional<Request> request_;
  };
};

}  // namespace velto
