// A client process: each of its workers opens a connection to some listener, talks over it and closes it, again and
// again.

#include "tests/soak/ClientProcess.h"

#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <malloc.h>

#include "VeltoIPC/VeltoIPC.h"
#include "tests/soak/Explanations.h"
#include "tests/soak/Programs.h"
#include "tests/soak/Requests.h"
#include "tests/support/Waiting.h"

namespace velto::soak {

namespace {

// Far longer than anything takes that is not hung.
constexpr double kLongTimeOut = 100.0;
constexpr std::chrono::milliseconds kPause{2};
constexpr std::chrono::microseconds kLook{200};

class Delegate final : public VeltoIPCDelegate {
 public:
  Delegate(SharedState& shared, std::size_t listener) : causes(shared, listener) {}

  void connectionReady(NSString) override {}
  void receivedMessage(NSDictionary message, NSString, VeltoReplyHandler usingHandler) override {
    usingHandler(replyTo(message));
  }
  void connectionError(NSString, NSError error) override {
    causes.heard(error);
    if (counterOf(error) == Counter::daemonInvalidated) linkHasEnded = true;
  }

  ConnectionCauses causes;
  std::atomic<bool> linkHasEnded{false};
};

class Worker {
 public:
  Worker(SharedState& shared, WorkerSlot& slot, std::uint64_t seed, std::string name)
      : shared_(shared), slot_(slot), random_(seed), name_(std::move(name)) {}

  void run() {
    while (shared_.phase != Phase::stop) {
      const std::uint64_t round = shared_.round;
      if (shared_.phase == Phase::work) {
        useOneConnection();
      } else {
        if (slot_.restsFor != round) ::malloc_trim(0);
        slot_.restsFor = round;
        std::this_thread::sleep_for(kPause);
      }
      ++slot_.progress;
    }
  }

 private:
  void useOneConnection() {
    const std::size_t listener = below(random_, shared_.listenerCount);
    const auto delegate = std::make_shared<Delegate>(shared_, listener);
    const auto connection = VeltoConnection::initWithServiceName(serviceName(listener), delegate);
    shared_.count(Counter::connections);
    // Now and then one is closed while it is still being made.
    if (below(random_, 16) != 0 && becomesReady(*connection, *delegate)) talk(connection, delegate);
    delegate->causes.willClose();
    connection->close();
    // What the close brings is waited for, so that at rest nothing is under way.
    while (!delegate->linkHasEnded || connection.use_count() > 1) std::this_thread::sleep_for(kLook);
    // Nobody to talk to: the others get on with it.
    if (delegate->causes.isOver()) std::this_thread::sleep_for(kPause);
  }

  bool becomesReady(VeltoConnection& connection, Delegate& delegate) {
    NSError error;
    if (connection.waitUntilReady(kLongTimeOut, &error)) return true;
    if (counterOf(error) == Counter::timedOut) delegate.causes.heard(error);
    return false;
  }

  void talk(const std::shared_ptr<VeltoConnection>& connection, const std::shared_ptr<Delegate>& delegate) {
    for (std::size_t count = below(random_, 60); count > 0 && shared_.phase == Phase::work; --count) {
      const bool goesOn = below(random_, 3) == 0 ? sendAsynchronously(*connection, delegate)
                                                 : sendSynchronously(*connection, *delegate);
      ++slot_.progress;
      if (!goesOn) return;
    }
  }

  bool sendSynchronously(VeltoConnection& connection, Delegate& delegate) {
    const NSDictionary request = makeRequest(random_);
    NSError error;
    const double timeout = below(random_, 2) == 0 ? VKT_IPC_TIME_FOREVER : kLongTimeOut;
    const NSDictionary reply = connection.sendMessageSync(request, timeout, &error);
    shared_.count(Counter::messages);
    if (reply) check(shared_, name_, request, reply);
    // (A reply that comes together with the end is returned with the error.)
    if (error) delegate.causes.heard(error);
    return !error;
  }

  bool sendAsynchronously(VeltoConnection& connection, const std::shared_ptr<Delegate>& delegate) {
    const NSDictionary request = makeRequest(random_);
    NSError error;
    const bool sent = connection.sendMessage(
        request, &error, [this, request](const NSDictionary& reply) { check(shared_, name_, request, reply); });
    shared_.count(Counter::messages);
    if (!sent) delegate->causes.heard(error);
    return sent;
  }

  SharedState& shared_;
  WorkerSlot& slot_;
  Random random_;
  const std::string name_;
};

}  // namespace

void check(SharedState& shared, const std::string& who, const NSDictionary& request, const NSDictionary& reply) {
  if (reply != replyTo(request)) reportWrongReply(shared, who, reply.description().string().substr(0, 200));
  shared.count(Counter::repliesChecked);
}

int runClient(SharedState& shared, std::size_t number, std::uint64_t seed) {
  std::vector<std::unique_ptr<Worker>> workers;
  std::vector<std::thread> threads;
  for (std::size_t index = 0; index < kWorkersOfOneClient; ++index) {
    workers.push_back(std::make_unique<Worker>(shared, shared.clients[number][index], seed + index,
                                               "client " + std::to_string(number)));
  }
  for (const auto& worker : workers) threads.emplace_back([&worker] { worker->run(); });
  for (std::thread& thread : threads) thread.join();
  return 0;
}

}  // namespace velto::soak
