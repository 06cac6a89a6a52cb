#pragma once

#include <algorithm>
#include <coroutine>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

#include "VeltoIPC/Call.h"
#include "VeltoIPC/Outcome.h"
#include "VeltoIPC/Request.h"
#include "platform/foundation/Fields.h"
#include "platform/foundation/Foundation.h"

namespace velto {

namespace detail {

// A reply that is not what it should be is refused here, by the path of what is wrong.
template <class Reply>
Outcome<Reply> typedReply(const Call::Reply& reply) {
  if (!reply) return reply.error();
  auto read = reply->template get<Reply>();
  if (read) return *std::move(read);
  return CallError(Failure::refused, "the reply is not what it should be: " + read.error());
}

// Without the key of the operation where a struct would see it as one that is none of its own.
template <class Message>
Lookup<Message> typedMessage(const NSDictionary& message, const std::string& operationKey) {
  if constexpr (Described<Message>) {
    constexpr auto& kKeys = keysOf<Message>;
    constexpr bool kSeesOthers =
        refusesOthers<Message> || kKeys.size() < std::tuple_size_v<std::remove_cvref_t<decltype(fieldsOf<Message>)>>;
    if (kSeesOthers && std::find(kKeys.begin(), kKeys.end(), operationKey) == kKeys.end()) {
      NSMutableDictionary rest = NSMutableDictionary::dictionaryWithDictionary(message);
      rest.removeObjectForKey(NSString(operationKey));
      return rest.get<Message>();
    }
  }
  return message.get<Message>();
}

template <class Result>
struct IsOutcome : std::false_type {};
template <class T>
struct IsOutcome<Outcome<T>> : std::true_type {};

// Calls a handler of typed messages as it wants to be called.
template <class Message, class Reply, class Handler>
void answerTyped(Handler& handler, const Request& request, const std::string& operationKey) {
  auto message = typedMessage<Message>(request.message(), operationKey);
  if (!message) {
    request.refuse("the message is not what it should be: " + message.error());
    return;
  }
  if constexpr (std::is_invocable_v<Handler&, Message, Request>) {
    static_assert(std::is_void_v<Reply>, "a handler that gets the request answers it itself: on<Message>(…)");
    handler(*std::move(message), request);
  } else if constexpr (std::is_void_v<std::invoke_result_t<Handler&, Message>>) {
    handler(*std::move(message));
    request.reply(NSDictionary::dictionary());
  } else if constexpr (IsOutcome<std::invoke_result_t<Handler&, Message>>::value) {
    const Outcome<Reply> outcome = handler(*std::move(message));
    outcome ? request.reply(*outcome) : request.fail(outcome.error().text(), outcome.error().code());
  } else {
    const Reply reply = handler(*std::move(message));
    request.reply(reply);
  }
}

}  // namespace detail

// A call whose reply comes out as a struct, or as any other type that a dictionary becomes. The same as Call otherwise;
// for a future the reply is read on the thread that ends the call.
template <class Reply>
class TypedCall {
 public:
  explicit TypedCall(Call call) noexcept : call_(std::move(call)) {}

  Outcome<Reply> get() const { return detail::typedReply<Reply>(call_.get()); }
  [[nodiscard]] std::future<Outcome<Reply>> future() const {
    const auto promise = std::make_shared<std::promise<Outcome<Reply>>>();
    auto future = promise->get_future();
    call_.whenEnded([promise](const Call::Reply& reply) { promise->set_value(detail::typedReply<Reply>(reply)); });
    return future;
  }
  void then(std::function<void(Outcome<Reply>)> handler) const {
    call_.then([handler = std::move(handler)](const Call::Reply& reply) { handler(detail::typedReply<Reply>(reply)); });
  }
  auto operator co_await() const {
    struct Awaiter : detail::CallAwaiter {
      using CallAwaiter::CallAwaiter;
      Outcome<Reply> await_resume() { return detail::typedReply<Reply>(CallAwaiter::await_resume()); }
    };
    return Awaiter(call_);
  }
  void cancel() const { call_.cancel(); }
  [[nodiscard]] bool hasEnded() const { return call_.hasEnded(); }

 private:
  Call call_;
};

}  // namespace velto
