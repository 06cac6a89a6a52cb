#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "VeltoIPC/InProcess.h"
#include "VeltoIPC/Outcome.h"
#include "VeltoIPC/Request.h"
#include "VeltoIPC/TypedCall.h"
#include "platform/foundation/NSDictionary.h"
#include "platform/foundation/NSString.h"
#include "platform/xpc/contract/Delivery.h"

namespace velto {

namespace calls {
class ServiceCore;
}

// What becomes of a name that another has, who lives.
enum class NamePolicy : std::uint8_t {
  // It is taken over; but from one that takes it over later it is not taken back.
  takeOver,
  // It is left to the other.
  waitIfTaken,
  // It is left to the other for good; so it is when another takes it over later.
  refuseIfTaken,
};

// What becomes of a client that is so far behind that limits::kBroadcastBacklog messages to all wait for it.
enum class WhenBehind : std::uint8_t {
  // Its connection is closed: it knows that it has missed something.
  disconnect,
  // It misses those that it has no room for.
  skip,
};

struct ServiceOptions {
  // Whether messages are held to the plain types.
  bool strictTypes = true;
  // Whether open descriptors (NSFileDescriptor) may stand in what comes; else that is refused, and none is held.
  bool admitsDescriptors = false;
  // The key of a message under which the name of its operation stands.
  std::string operationKey = "op";
  // Except with refuseIfTaken, the name is registered as soon as the other has gone, or has given it up.
  NamePolicy namePolicy = NamePolicy::takeOver;
  // Where handlers run. Those of one client run one at a time.
  Delivery delivery = {};
  // Who does not keep up with broadcast().
  WhenBehind whenBehind = WhenBehind::disconnect;
  // Where the name is registered, in place of the broker.
  std::optional<InProcess> place = {};
  // The name is registered; again, too, after the broker was started anew, or the name was another's.
  std::function<void()> onRegistered = {};
  // The name could not be registered, or is not registered any more. It is tried again, but not after a refusal for
  // good: then the failure is `taken`, as it always is when another has the name.
  std::function<void(CallError)> onUnregistered = {};
  // Another has the name: a service of this process, 0 when the kernel does not tell it. Clients that are connected
  // stay. onUnregistered comes next.
  std::function<void(std::int32_t process)> onTakenOver = {};
  // The other has the name no more. It is registered next, unless a third is faster.
  std::function<void()> onGivenBack = {};
};

// Serves a name: hands what clients ask to handlers, whatever kind of client it is.
//
//   velto::Service service("org.example.sums");
//   service.on("sum", [](const velto::Request& request) { request.reply({{"sum", 3}}); });
//   service.start();
//
// A handler answers now or later, on any thread; one that raises an exception answers with that. The service ends when
// it is destroyed. On threads of the platform handlers return, and coroutines are resumed, before the destructor
// returns, unless it is called on such a thread; afterwards none is. With a loop or an executor of one's own the
// destructor does not wait: what is due then is still run there. Thread-safe.
class VELTO_EXPORT Service {
 public:
  using Handler = std::function<void(Request)>;

  explicit Service(const NSString& name, ServiceOptions options = {});
  Service(Service&& other) noexcept;
  Service& operator=(Service&& other) noexcept;
  ~Service();

  // What takes the requests of an operation, in place of whatever took them before; and those of which no handler has
  // the operation. Without one they are refused.
  Service& on(const std::string& operation, Handler handler);
  Service& onOther(Handler handler);
  // The same for messages that come out as a type; one that does not is refused, by the path of what is wrong:
  //
  //   service.on<Terms, Sum>("sum", [](const Terms& terms) { return Sum{add(terms)}; });          // or an Outcome<Sum>
  //   service.on<Terms>("keep", [](const Terms& terms) { keep(terms); });                          // answers {}
  //   service.on<Terms>("sum", [](const Terms& terms, const velto::Request& request) { … });      // answers itself
  template <class Message, class Reply = void, class Handling>
  Service& on(const std::string& operation, Handling handler) {
    return on(operation, [handler = std::move(handler), key = operationKey()](const Request& request) mutable {
      detail::answerTyped<Message, Reply>(handler, request, key);
    });
  }

  // Registers the name, in the background, and takes requests from then on.
  void start();
  // Sleeps until the name is registered: nothing then. Else why it is not by now, or will not be.
  std::optional<CallError> waitUntilRegistered(std::chrono::nanoseconds timeout);
  [[nodiscard]] std::size_t clientCount() const;

  // Sends a message to every client, to each at its own pace: what one that is behind cannot take yet waits for it, in
  // order, up to a number of messages. Returns for how many clients that was reached: ServiceOptions::whenBehind says
  // what becomes of these. Never waits.
  std::size_t broadcast(const NSDictionary& message);

  // Takes no more requests, waits until those that a handler has got are answered or the time is over, then closes.
  // True when all of those were answered. One that waits for its turn ends as refused, or as peerGone.
  bool stop(std::chrono::nanoseconds patience);
  // Ends every connection now.
  void close();

 private:
  [[nodiscard]] const std::string& operationKey() const noexcept;

  std::shared_ptr<calls::ServiceCore> core_;
};

}  // namespace velto
