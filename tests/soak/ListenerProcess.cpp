// A listener process. When the broker is a new one, it registers anew with a second listener under the same name, and
// keeps the first one for as long as it has connections: they do not notice the broker's end, and must not.

#include "tests/soak/ListenerProcess.h"

#include <algorithm>
#include <chrono>
#include <future>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <malloc.h>

#include "VeltoIPC/VeltoIPC.h"
#include "broker/VeltoIPCDaemonProtocol.h"
#include "platform/foundation/NSSynchronized.h"
#include "platform/foundation/ThreadAnnotations.h"
#include "platform/xpc/NSXPCConnection.h"
#include "tests/soak/Explanations.h"
#include "tests/soak/Programs.h"
#include "tests/soak/Requests.h"
#include "tests/support/Waiting.h"

namespace velto::soak {

namespace {

constexpr double kLongTimeOut = 100.0;
constexpr std::chrono::milliseconds kPause{2};

// Clients of one listener, each heard in the right order: ready, perhaps interrupted, invalidated.
class Delegate final : public VeltoIPCDelegate {
 public:
  Delegate(SharedState& shared, std::string name, std::uint64_t broker)
      : shared_(shared), name_(std::move(name)), broker_(broker) {}

  void connectionReady(NSString connectionID) override {
    MutexLock lock(mutex_);
    clients_.insert(connectionID.string());
  }

  void receivedMessage(NSDictionary message, NSString, VeltoReplyHandler usingHandler) override {
    {
      MutexLock lock(mutex_);
      // Some are answered later, by another thread and out of order.
      if (++received_ % 8 == 0) {
        owed_.emplace_back(message, std::move(usingHandler));
        return;
      }
    }
    usingHandler(replyTo(message));
  }

  void connectionError(NSString connectionID, NSError error) override {
    const Counter counter = counterOf(error);
    shared_.count(counter);
    if (!connectionID.isNil() ? explains(connectionID.string(), counter) : explainsLink(counter)) return;
    reportUnexplained(shared_, name_, connectionID.description().string() + ": " + error.description().string());
  }

  void answerOwed() {
    std::vector<std::pair<NSDictionary, VeltoReplyHandler>> owed;
    {
      MutexLock lock(mutex_);
      owed.swap(owed_);
    }
    for (auto place = owed.rbegin(); place != owed.rend(); ++place) place->second(replyTo(place->first));
  }

  // nil when there is none.
  NSString anyClient(Random& random) {
    MutexLock lock(mutex_);
    if (clients_.empty()) return nil;
    return NSString(*std::next(clients_.begin(), static_cast<std::ptrdiff_t>(below(random, clients_.size()))));
  }
  bool isIdle() {
    MutexLock lock(mutex_);
    return clients_.empty() && owed_.empty();
  }
  bool isServing(const NSString& connectionID) {
    MutexLock lock(mutex_);
    return clients_.contains(connectionID.string());
  }
  void willClose() { closes_ = true; }

 private:
  bool explains(const std::string& client, Counter counter) {
    MutexLock lock(mutex_);
    const auto found = clients_.find(client);
    switch (counter) {
      // How many may vanish is for the supervisor to judge.
      case Counter::connectionInterrupted:
        return found != clients_.end() && shared_.clientKills > 0;
      // Clients close all the time; but each only once.
      case Counter::connectionInvalidated:
        if (found == clients_.end()) return false;
        clients_.erase(found);
        return true;
      // Calls to a client that is about to be heard of, or has just been.
      case Counter::platformError:
        return true;
      default:
        return false;
    }
  }
  bool explainsLink(Counter counter) const {
    const bool isGone = shared_.currentBroker() != broker_;
    if (counter == Counter::daemonInterrupted || counter == Counter::platformError) return isGone;
    return counter == Counter::daemonInvalidated && (isGone || closes_);
  }

  SharedState& shared_;
  const std::string name_;
  const std::uint64_t broker_;
  std::atomic<bool> closes_{false};
  Mutex mutex_;
  std::uint64_t received_ VELTO_GUARDED_BY(mutex_) = 0;
  std::set<std::string> clients_ VELTO_GUARDED_BY(mutex_);
  std::vector<std::pair<NSDictionary, VeltoReplyHandler>> owed_ VELTO_GUARDED_BY(mutex_);
};

// One registration, with whoever came by it.
struct Served {
  std::shared_ptr<Delegate> delegate;
  std::shared_ptr<VeltoListener> listener;
};

class Server {
 public:
  Server(SharedState& shared, std::size_t number, std::uint64_t seed)
      : shared_(shared),
        slot_(shared.listeners[number]),
        name_("listener " + std::to_string(number)),
        service_(serviceName(number)),
        random_(seed) {}

  void run() {
    while (shared_.phase != Phase::stop) {
      const std::uint64_t round = shared_.round;
      keepRegistered();
      for (const Served& served : served_) served.delegate->answerOwed();
      if (shared_.phase == Phase::work) talk();
      if (shared_.phase == Phase::rest && hasComeToRest()) {
        if (slot_.worker.restsFor != round) ::malloc_trim(0);
        slot_.worker.restsFor = round;
      }
      ++slot_.worker.progress;
      std::this_thread::sleep_for(kPause);
    }
    for (const Served& served : served_) end(served);
  }

 private:
  void keepRegistered() {
    // In this order: a number that is read while its broker runs is the number of that one.
    const std::uint64_t broker = shared_.currentBroker();
    if (slot_.registeredWith == broker || !shared_.brokerRuns) return;
    Served made;
    made.delegate = std::make_shared<Delegate>(shared_, name_, broker);
    made.listener = VeltoListener::initWithServiceName(service_, made.delegate);
    served_.push_back(made);
    if (isRegistered(made.listener->daemonConnection())) slot_.registeredWith = broker;
  }

  // A look-up's answer tells that what was sent before it has been taken; no, when the broker is killed meanwhile.
  static bool isRegistered(const std::shared_ptr<NSXPCConnection>& link) {
    const auto answer = std::make_shared<std::promise<bool>>();
    const auto proxy = link->remoteObjectProxyWithErrorHandler<VeltoIPCDaemonProtocol>(
        [answer](const NSError&) { answer->set_value(false); });
    proxy->call<&VeltoIPCDaemonProtocol::findListenerEndpointForName>(
        "org.velto.nobody", [answer](const NSXPCListenerEndpoint&) { answer->set_value(true); });
    return answer->get_future().get();
  }

  void talk() {
    letGoOfTheOld();
    if (served_.empty()) return;
    const Served& served = served_[below(random_, served_.size())];
    const NSString client = served.delegate->anyClient(random_);
    if (client.isNil()) return;
    if (below(random_, 60) == 0) {
      ++slot_.closes;
      served.listener->close(client);
      return;
    }
    below(random_, 2) == 0 ? sendSynchronously(served, client) : sendAsynchronously(served, client);
  }

  void sendSynchronously(const Served& served, const NSString& client) {
    const NSDictionary request = makeRequest(random_);
    NSError error;
    const double timeout = below(random_, 2) == 0 ? VKT_IPC_TIME_FOREVER : kLongTimeOut;
    const NSDictionary reply = served.listener->sendMessageSync(request, client, timeout, &error);
    shared_.count(Counter::messages);
    if (reply) check(shared_, name_, request, reply);
    if (error) explain(served, client, error);
  }

  void sendAsynchronously(const Served& served, const NSString& client) {
    const NSDictionary request = makeRequest(random_);
    NSError error;
    const bool sent = served.listener->sendMessage(
        request, client, &error, [this, request](const NSDictionary& reply) { check(shared_, name_, request, reply); });
    shared_.count(Counter::messages);
    if (!sent) explain(served, client, error);
  }

  // A send may fail only because its connection is gone, or not yet open to sends: inside connectionReady().
  void explain(const Served& served, const NSString& client, const NSError& error) {
    const Counter counter = counterOf(error);
    shared_.count(counter);
    const bool isEnding = counter == Counter::connectionNotAvailable || counter == Counter::timedOut;
    const bool isOver = !served.listener->isConnectionActive_internal(client);
    const bool isYoung = counter == Counter::connectionNotAvailable && served.delegate->isServing(client);
    if (!isEnding || (!isOver && !isYoung)) reportUnexplained(shared_, name_, error.description().string());
  }

  bool hasComeToRest() {
    if (slot_.registeredWith != shared_.currentBroker()) return false;
    letGoOfTheOld();
    if (served_.size() != 1 || !served_.front().delegate->isIdle()) return false;
    const NSSynchronized monitor(served_.front().listener->connectionConditions());
    return served_.front().listener->receivedConnections().count() == 0;
  }

  // All but the newest, once nobody talks over them any more.
  void letGoOfTheOld() {
    for (std::size_t index = 0; index + 1 < served_.size();) {
      if (served_[index].delegate->isIdle()) {
        end(served_[index]);
        served_.erase(served_.begin() + static_cast<std::ptrdiff_t>(index));
      } else {
        ++index;
      }
    }
  }

  void end(const Served& served) {
    // Whoever has just connected by an old endpoint is turned out by this.
    ++slot_.closes;
    served.delegate->willClose();
    served.listener->close();
  }

  SharedState& shared_;
  ListenerSlot& slot_;
  const std::string name_;
  const std::string service_;
  Random random_;
  std::vector<Served> served_;
};

}  // namespace

int runListener(SharedState& shared, std::size_t number, std::uint64_t seed) {
  Server(shared, number, seed).run();
  return 0;
}

}  // namespace velto::soak
