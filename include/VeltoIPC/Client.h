#pragma once

#include <chrono>
#include <concepts>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "VeltoIPC/Call.h"
#include "VeltoIPC/InProcess.h"
#include "VeltoIPC/Outcome.h"
#include "VeltoIPC/Request.h"
#include "VeltoIPC/Stream.h"
#include "VeltoIPC/TypedCall.h"
#include "platform/foundation/NSDictionary.h"
#include "platform/foundation/NSString.h"
#include "platform/xpc/contract/Delivery.h"

namespace velto {

namespace calls {
class ClientCore;
}

struct ClientOptions {
  // How long connect() waits for the name to be served, and for the connection.
  std::chrono::milliseconds patience{10'000};
  // Whether it connects anew when the other end has gone: after 20 ms, and after twice as long each further time, 2 s
  // at most. Calls that are made meanwhile wait.
  bool reconnects = false;
  // For how long it tries that after each loss; without one for ever. Then it ends, with all that waits for it.
  std::optional<std::chrono::milliseconds> reconnectsFor = {};
  // The key under which the name of an operation goes.
  std::string operationKey = "op";
  // Where handlers run.
  Delivery delivery = {};
  // Whether open descriptors (NSFileDescriptor) may stand in what comes; else that is refused, and none is held.
  bool admitsDescriptors = false;
  // Takes what the service sends by itself; without one that is refused.
  std::function<void(Request)> onMessage = {};
  // The connection is lost; and it is there again.
  std::function<void(CallError)> onLost = {};
  std::function<void()> onReconnected = {};
  // The other end keeps up again, or is there again, after trySend() or send() has failed as full.
  std::function<void()> onWritable = {};
  // Where names are looked up, in place of the broker.
  std::optional<InProcess> place = {};
};

// A connection to the service of a name: a Service, or a listener of the older kind.
//
//   auto client = velto::Client::connect("org.example.sums").value();
//   auto reply = client.call({{"op", "sum"}, {"terms", NSArray{1, 2}}}, {.timeout = 2s}).get();
//
// It is closed when it is destroyed. Calls under way end as closed. On threads of the platform handlers run, and
// coroutines are resumed, before the destructor returns, unless it is called on such a thread; afterwards none is. With
// a loop or an executor of one's own the destructor does not wait: what is due then is still run there. Thread-safe.
class VELTO_EXPORT Client {
 public:
  // Waits until the name is served and the connection made. The error says which of both is missing. Not on a thread of
  // the platform.
  [[nodiscard]] static Outcome<Client> connect(const NSString& name, ClientOptions options = {});

  Client(Client&& other) noexcept;
  Client& operator=(Client&& other) noexcept;
  ~Client();

  // Makes a call. While the other end is behind, this waits, up to the call's time; on a thread of the platform or
  // of a loop it does not: the call is kept and made later, or, if there are many already, ends as full. Without a
  // connection calls wait for the next, if there is to be one.
  [[nodiscard]] Call call(const NSDictionary& message, CallOptions options = {}) const;
  // The same, under the name of an operation, which goes under ClientOptions::operationKey.
  template <std::convertible_to<std::string_view> Operation>
  [[nodiscard]] Call call(const Operation& operation, const NSDictionary& message, CallOptions options = {}) const {
    return callOperation(operation, message, std::move(options));
  }
  // The same, and the reply is read as a type: client.call<Sum>("sum", Terms{{1, 2}}).get().
  template <class Reply>
  [[nodiscard]] TypedCall<Reply> call(const NSDictionary& message, CallOptions options = {}) const {
    return TypedCall<Reply>(call(message, std::move(options)));
  }
  template <class Reply, std::convertible_to<std::string_view> Operation>
  [[nodiscard]] TypedCall<Reply> call(const Operation& operation, const NSDictionary& message,
                                      CallOptions options = {}) const {
    return TypedCall<Reply>(callOperation(operation, message, std::move(options)));
  }
  // Makes a call during which both ends send each other items.
  [[nodiscard]] Stream open(const NSDictionary& message, CallOptions options = {}) const;
  template <std::convertible_to<std::string_view> Operation>
  [[nodiscard]] Stream open(const Operation& operation, const NSDictionary& message, CallOptions options = {}) const {
    return openOperation(operation, message, std::move(options));
  }

  // Sends a message that wants no answer. Waits while the other end is behind, or lost, up to the time if there is one;
  // on a thread of the platform or of a loop it does not, and fails as full. Without an error the message is on its
  // way; if it fails there, `failed` hears of it, once.
  std::optional<CallError> send(const NSDictionary& message,
                                std::optional<std::chrono::nanoseconds> timeout = std::nullopt,
                                std::function<void(CallError)> failed = {}) const;
  // The same for coroutines: ends with an empty reply when the message is on its way, until when it waits as a call
  // does.
  [[nodiscard]] Call sending(const NSDictionary& message, CallOptions options = {}) const;
  // The same, but never waits: full when the other end is behind or lost; then onWritable is called once it is
  // not.
  std::optional<CallError> trySend(const NSDictionary& message, std::function<void(CallError)> failed = {}) const;

  // Ends the connection now.
  void close();

 private:
  [[nodiscard]] Stream openOperation(std::string_view operation, const NSDictionary& message,
                                     CallOptions options) const;
  [[nodiscard]] Call callOperation(std::string_view operation, const NSDictionary& message, CallOptions options) const;
  explicit Client(std::shared_ptr<calls::ClientCore> core) noexcept;

  std::shared_ptr<calls::ClientCore> core_;
};

}  // namespace velto
