// The exchange speaks the broker's protocol, because that carries descriptors in a call and in a reply. Every call is
// followed to its end, and the count of its ends is taken when both connections are gone: nothing can come after that.

#include "tests/faults/Exchange.h"

#include <atomic>
#include <functional>
#include <future>
#include <mutex>
#include <utility>

#include "broker/VeltoIPCDaemonProtocol.h"
#include "platform/xpc/NSXPCConnection.h"
#include "platform/xpc/NSXPCListener.h"
#include "platform/xpc/contract/NSXPCListenerDelegate.h"
#include "tests/support/Waiting.h"

namespace velto::testing {

namespace {

constexpr char kServiceName[] = "org.velto.test.faults";
constexpr std::size_t kSteps = 10;

using Proxy = NSXPCProxy<VeltoIPCDaemonProtocol>;

// An event that happens once.
class Moment {
 public:
  void happen() {
    if (!happened_.exchange(true)) promise_.set_value();
  }
  bool comes() { return future_.wait_for(kBound) == std::future_status::ready; }
  bool hasHappened() const { return happened_; }

 private:
  std::atomic<bool> happened_{false};
  std::promise<void> promise_;
  const std::shared_future<void> future_ = promise_.get_future().share();
};

// A call and its ends. `ends` must be 1 when everything is over; a call without a reply has none when it went well.
struct Call {
  explicit Call(std::string called) : name(std::move(called)) {}

  void answer(const NSXPCListenerEndpoint& endpoint) {
    ++ends;
    reply = endpoint;
    settled.happen();
  }
  void fail(const NSError& reported) {
    ++ends;
    error = reported;
    settled.happen();
  }

  const std::string name;
  std::atomic<int> ends{0};
  NSXPCListenerEndpoint reply;
  NSError error;
  Moment settled;
};

// What either end exports: keeps an endpoint, and hands it out.
class Keeper final : public VeltoIPCDaemonProtocol {
 public:
  void sendListenerConnection(NSXPCListenerEndpoint endpoint, NSString) override {
    const std::lock_guard lock(mutex_);
    kept_ = endpoint;
  }
  void findListenerEndpointForName(NSString, std::function<void(NSXPCListenerEndpoint)> handle) override {
    handle(kept());
  }
  void killListenerConnection(NSString) override { sendListenerConnection(nil, nil); }

  NSXPCListenerEndpoint kept() {
    const std::lock_guard lock(mutex_);
    return kept_;
  }

 private:
  std::mutex mutex_;
  NSXPCListenerEndpoint kept_;
};

// One end of a connection.
struct End {
  explicit End(std::shared_ptr<NSXPCConnection> made) : connection(std::move(made)) {
    const auto interface = NSXPCInterface::interfaceWithProtocol<VeltoIPCDaemonProtocol>();
    connection->setRemoteObjectInterface(interface);
    connection->setExportedInterface(interface);
    connection->setExportedObject<VeltoIPCDaemonProtocol>(keeper);
    connection->setInterruptionHandler([moment = interrupted] { moment->happen(); });
    connection->setInvalidationHandler([moment = invalidated] { moment->happen(); });
    connection->resume();
  }

  std::shared_ptr<Proxy> proxyFor(const std::shared_ptr<Call>& call) const {
    return connection->remoteObjectProxyWithErrorHandler<VeltoIPCDaemonProtocol>(
        [call](const NSError& error) { call->fail(error); });
  }

  const std::shared_ptr<Keeper> keeper = std::make_shared<Keeper>();
  const std::shared_ptr<Moment> interrupted = std::make_shared<Moment>();
  const std::shared_ptr<Moment> invalidated = std::make_shared<Moment>();
  std::shared_ptr<NSXPCConnection> connection;
};

// Takes every connection and keeps its end.
class Service final : public NSXPCListenerDelegate {
 public:
  bool listener(const std::shared_ptr<NSXPCListener>&, const std::shared_ptr<NSXPCConnection>& connection) override {
    auto end = std::make_shared<End>(connection);
    const std::lock_guard lock(mutex_);
    ends_.push_back(std::move(end));
    return true;
  }
  std::vector<std::shared_ptr<End>> ends() {
    const std::lock_guard lock(mutex_);
    return ends_;
  }

 private:
  std::mutex mutex_;
  std::vector<std::shared_ptr<End>> ends_;
};

class Exchange {
 public:
  Transcript run() {
    serve();
    offer();
    if (listener_) {
      connect();
      callThere();
      callBack();
      connectThrough();
    }
    watch();
    close();
    return std::move(transcript_);
  }

 private:
  void note(const std::string& step, bool wentWell, const NSError& error = nil, const std::string& text = {}) {
    transcript_.steps.push_back({step, wentWell, error, text});
  }
  void noteBroken(const std::string& what) { transcript_.broken.push_back(what); }

  void serve() {
    NSError error;
    listener_ = NSXPCListener::listenerWithServiceName(kServiceName, &error);
    note("serve", listener_ != nullptr, error);
    if (!listener_) return;
    listener_->setDelegate(service_);
    listener_->resume();
  }

  void offer() {
    offered_ = NSXPCListener::anonymousListener();
    note("offer", offered_ != nullptr, nil, "an anonymous listener cannot be made");
    if (!offered_) return;
    offered_->setDelegate(service_);
    offered_->resume();
  }

  void connect() { client_ = std::make_unique<End>(NSXPCConnection::initWithServiceName(kServiceName)); }

  // Starts a call that wants a reply, and waits for its end.
  std::shared_ptr<Call> find(const std::string& step, const End& end) {
    const auto call = std::make_shared<Call>(step);
    calls_.push_back(call);
    end.proxyFor(call)->call<&VeltoIPCDaemonProtocol::findListenerEndpointForName>(
        NSString("any"), [call](const NSXPCListenerEndpoint& endpoint) { call->answer(endpoint); });
    if (!call->settled.comes()) noteBroken(step + " never ended");
    return call;
  }

  void callThere() {
    const NSXPCListenerEndpoint endpoint = offered_ ? offered_->endpoint() : nil;
    const auto given = std::make_shared<Call>("give");
    calls_.push_back(given);
    withoutReply_ = given;
    client_->proxyFor(given)->call<&VeltoIPCDaemonProtocol::sendListenerConnection>(endpoint, NSString("any"));
    const auto call = find("find", *client_);
    // Calls are taken in order: what was refused of the first is known by now.
    note("give", !given->settled.hasHappened(), given->error);
    const NSXPCListenerEndpoint expected = given->settled.hasHappened() ? nil : endpoint;
    note("find", call->ends > 0 && call->error.isNil() && call->reply == expected, call->error,
         "another endpoint came");
    found_ = call->reply;
  }

  void callBack() {
    const auto ends = service_->ends();
    if (ends.empty()) return note("call back", false, nil, "no connection has come");
    client_->keeper->sendListenerConnection(found_, nil);
    const auto call = find("call back", *ends.front());
    note("call back", call->ends > 0 && call->error.isNil() && call->reply == found_, call->error,
         "another endpoint came");
  }

  void connectThrough() {
    if (!found_) return note("connect through", false, nil, "there is no endpoint");
    End through(NSXPCConnection::initWithListenerEndpoint(found_));
    const auto call = find("connect through", through);
    note("connect through", call->ends > 0 && call->error.isNil() && call->reply.isNil(), call->error,
         "an endpoint came");
    // Letting go of the last reference must do.
    through.connection.reset();
    expectInvalidated(through, "the end of the endpoint's connection");
  }

  void watch() {
    if (!offered_) return note("watch", false, nil, "there is no listener");
    const auto gone = std::make_shared<Moment>();
    const auto watching = offered_->endpoint().watch([gone] { gone->happen(); });
    note("watch", watching != nullptr, nil, "the listener cannot be watched");
    offered_->invalidate();
    if (watching && !gone->comes()) noteBroken("a watch never heard that its listener is gone");
  }

  void close() {
    if (client_) {
      note("client stays", !client_->interrupted->hasHappened(), nil, "the client was interrupted");
      client_->connection->invalidate();
      expectInvalidated(*client_, "the client");
    }
    if (listener_) listener_->invalidate();
    bool interrupted = false;
    for (const auto& end : service_->ends()) {
      expectInvalidated(*end, "a service's end");
      interrupted = interrupted || end->interrupted->hasHappened();
    }
    note("service stays", !interrupted, nil, "the service was interrupted");
    note("both came", service_->ends().size() == 2, nil, "a connection has not come");
    for (const auto& call : calls_) {
      const bool may = call->ends == 1 || (call == withoutReply_ && call->ends == 0);
      if (!may) noteBroken(call->name + " has " + std::to_string(call->ends) + " ends");
    }
  }

  void expectInvalidated(const End& end, const std::string& who) {
    if (!end.invalidated->comes()) noteBroken(who + " was never told of its invalidation");
  }

  Transcript transcript_;
  const std::shared_ptr<Service> service_ = std::make_shared<Service>();
  std::shared_ptr<NSXPCListener> listener_;
  std::shared_ptr<NSXPCListener> offered_;
  std::unique_ptr<End> client_;
  NSXPCListenerEndpoint found_;
  std::vector<std::shared_ptr<Call>> calls_;
  std::shared_ptr<Call> withoutReply_;
};

}  // namespace

bool Transcript::isWhole() const {
  return broken.empty() && steps.size() == kSteps && failures().empty();
}

std::vector<Step> Transcript::failures() const {
  std::vector<Step> failed;
  for (const Step& step : steps) {
    if (!step.wentWell) failed.push_back(step);
  }
  return failed;
}

std::string Transcript::description() const {
  std::string text;
  for (const Step& step : failures()) {
    text += "\n  " + step.name + ": " + (step.error.isNil() ? step.text : step.error.description().string());
  }
  for (const std::string& what : broken) text += "\n  broken: " + what;
  return text + "\n  steps: " + std::to_string(steps.size());
}

Transcript runExchange() {
  return Exchange().run();
}

}  // namespace velto::testing
