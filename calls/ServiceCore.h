#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "VeltoIPC/Service.h"
#include "broker/VeltoIPCNamesProtocol.h"
#include "calls/Names.h"
#include "calls/Outbox.h"
#include "calls/Peer.h"
#include "platform/foundation/NSCondition.h"
#include "platform/xpc/DelayedCall.h"
#include "platform/xpc/NSXPCListener.h"

namespace velto::calls {

// What a Service stands for: its name at the broker, its clients, its handlers.
//
// Thread-safe.
class ServiceCore final : public Acceptor,
                          public NSXPCListenerDelegate,
                          public std::enable_shared_from_this<ServiceCore> {
 public:
  using Handler = Service::Handler;

  ServiceCore(const NSString& name, ServiceOptions options);

  const std::string& operationKey() const noexcept { return options_.operationKey; }
  void setHandler(const std::string& operation, Handler handler);
  void setOtherHandler(Handler handler);
  void start();
  std::optional<CallError> waitUntilRegistered(std::chrono::nanoseconds timeout);
  std::size_t clientCount() const;
  std::size_t broadcast(const NSDictionary& message);
  bool stop(std::chrono::nanoseconds patience);
  void close();
  void closeAndWait();

  void accept(std::shared_ptr<NSXPCConnection> connection) override;
  bool listener(const std::shared_ptr<NSXPCListener>& listener,
                const std::shared_ptr<NSXPCConnection>& shouldAcceptNewConnection) override;

 private:
  using Clock = std::chrono::steady_clock;

  // Each attempt to register, and what comes of it, has a number; what comes of a former one is ignored.
  void registerName();
  // False when the kernel has nothing left for one.
  bool hasListener();
  void askBroker(std::uint64_t number, const std::shared_ptr<NSXPCConnection>& link,
                 const NSXPCListenerEndpoint& endpoint, bool takesOver);
  void askOlderBroker(std::uint64_t number, const NSXPCListenerEndpoint& endpoint);
  void answered(std::uint64_t number, const NameAnswer& answer);
  // Without an error the name stands.
  void registered(std::uint64_t number, const std::optional<CallError>& error);
  // Another has it.
  void pushedOut(std::uint64_t number, const NameState& state);
  // Waits until something else stands than is known.
  void watch(std::uint64_t number, std::uint64_t known);
  void watchAtBroker(std::uint64_t number, std::uint64_t known);
  void watchLater(std::uint64_t number, std::uint64_t known);
  void changed(std::uint64_t number, const NameState& state);
  // Lets go of the name if it is still this one's, and of the link.
  void giveBack(const std::shared_ptr<NSXPCConnection>& link, std::uint64_t standing);
  std::shared_ptr<NSXPCConnection> linkOf(std::uint64_t number) const;
  void tryLater();
  void receive(const std::shared_ptr<Incoming>& incoming);
  std::shared_ptr<const Handler> handlerFor(const NSDictionary& message) const;
  std::shared_ptr<Outbox> outboxOf(std::uint64_t client) const;
  void ended(std::uint64_t client);
  // Ends everything; returns the clients that there were.
  std::vector<std::shared_ptr<Peer>> takeAll();

  const NSString name_;
  const ServiceOptions options_;
  const TaskQueue tasks_;
  const NSCondition condition_ = NSCondition::condition();
  // Shared with the requests that they have taken: a coroutine uses its captures until it is through.
  std::map<std::string, std::shared_ptr<const Handler>> handlers_ VELTO_GUARDED_BY(condition_);
  std::shared_ptr<const Handler> otherHandler_ VELTO_GUARDED_BY(condition_);
  std::shared_ptr<NSXPCListener> listener_ VELTO_GUARDED_BY(condition_);
  std::shared_ptr<NSXPCConnection> link_ VELTO_GUARDED_BY(condition_);
  std::shared_ptr<xpc::DelayedCall> retry_ VELTO_GUARDED_BY(condition_);
  // In this process: for what becomes of the name.
  std::shared_ptr<Names::Wait> wait_ VELTO_GUARDED_BY(condition_);
  std::uint64_t watch_ VELTO_GUARDED_BY(condition_) = 0;
  std::uint64_t registration_ VELTO_GUARDED_BY(condition_) = 0;
  // What stands, and is this one's.
  std::uint64_t standing_ VELTO_GUARDED_BY(condition_) = 0;
  // Why it is not registered.
  std::optional<CallError> error_ VELTO_GUARDED_BY(condition_);
  bool hasStarted_ VELTO_GUARDED_BY(condition_) = false;
  bool isPushedOut_ VELTO_GUARDED_BY(condition_) = false;
  bool isRefused_ VELTO_GUARDED_BY(condition_) = false;
  std::chrono::milliseconds pause_ VELTO_GUARDED_BY(condition_){0};
  bool isRegistered_ VELTO_GUARDED_BY(condition_) = false;
  bool isStopping_ VELTO_GUARDED_BY(condition_) = false;
  bool isClosed_ VELTO_GUARDED_BY(condition_) = false;
  std::map<std::uint64_t, std::shared_ptr<Outbox>> clients_ VELTO_GUARDED_BY(condition_);
  std::uint64_t lastClient_ VELTO_GUARDED_BY(condition_) = 0;
  // Requests that have come and are not answered.
  std::size_t openRequests_ VELTO_GUARDED_BY(condition_) = 0;
};

}  // namespace velto::calls
