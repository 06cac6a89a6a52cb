#pragma once

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "broker/VeltoIPCObserverProtocol.h"
#include "platform/foundation/Foundation.h"
#include "platform/xpc/NSXPCConnection.h"
#include "tools/veltoctl/ExitCode.h"

namespace velto::ctl {

// A link to the broker whose questions wait for their answer. Every failure is a CommandError.
//
// Thread-safe; but none of its threads may be the platform's.
class BrokerLink {
 public:
  // Whether the broker is started when none runs, as the library does it.
  enum class Start { ifNeeded, never };
  explicit BrokerLink(Start start = Start::ifNeeded);
  ~BrokerLink();
  BrokerLink(const BrokerLink&) = delete;
  BrokerLink& operator=(const BrokerLink&) = delete;

  bool hasEnded() const noexcept { return *hasEnded_; }

  // All names there are.
  std::vector<NameDescription> names();
  std::optional<NameDescription> describe(const std::string& name);
  NSDictionary describeBroker();
  // As a client looks up: what can be started is.
  NSXPCListenerEndpoint find(const std::string& name);
  // Ends with ExitCode::notFound when nobody serves the name, and says why, as far as that is known.
  void requireServed(const std::string& name);
  // Waits until the name is served; for ever without a time. False when the time is over.
  bool wait(const std::string& name, std::optional<double> seconds);
  void standIn(const std::string& name, const NSXPCListenerEndpoint& endpoint);
  NSXPCListenerEndpoint findBehind(const std::string& name);

 private:
  static constexpr std::chrono::seconds kPatience{35};

  // For ever without a time.
  template <class Reply, auto Member, class... Arguments>
  Reply ask(std::optional<std::chrono::seconds> patience, const Arguments&... arguments) {
    const auto answer = std::make_shared<Answer<Reply>>();
    auto future = answer->promise.get_future();
    const auto broker = connection_->remoteObjectProxyWithErrorHandler<VeltoIPCObserverProtocol>(
        [answer](const NSError& error) { answer->fail(error); });
    broker->template call<Member>(
        arguments..., std::function<void(Reply)>([answer](Reply reply) { answer->take(std::move(reply)); }));
    if (patience && future.wait_for(*patience) != std::future_status::ready) {
      throw CommandError(ExitCode::noBroker, "the broker does not answer");
    }
    return future.get();
  }

  static CommandError commandErrorOf(const NSError& error);

  template <class Reply>
  struct Answer {
    void take(Reply reply) {
      if (!isTaken.exchange(true)) promise.set_value(std::move(reply));
    }
    void fail(const NSError& error) {
      if (!isTaken.exchange(true)) promise.set_exception(std::make_exception_ptr(commandErrorOf(error)));
    }
    std::promise<Reply> promise;
    std::atomic<bool> isTaken{false};
  };

  const std::shared_ptr<std::atomic<bool>> hasEnded_ = std::make_shared<std::atomic<bool>>(false);
  std::shared_ptr<NSXPCConnection> connection_;
};

}  // namespace velto::ctl
