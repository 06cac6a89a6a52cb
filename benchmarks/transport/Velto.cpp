// This library. The address is the name of a service.
#include <chrono>
#include <semaphore>
#include <thread>

#include "VeltoIPC/VeltoIPC.h"
#include "benchmarks/ValueMessages.h"
#include "benchmarks/transport/Peer.h"
#include "platform/xpc/contract/Limits.h"

namespace velto::transport {
namespace {

constexpr double kPatienceSeconds = 20;

class Server final : public VeltoIPCDelegate {
 public:
  void connectionReady(NSString) override {}
  void connectionError(NSString, NSError) override {}
  void receivedMessage(NSDictionary message, NSString, VeltoReplyHandler usingHandler) override {
    const auto result = work_.answer(message["factor"].doubleValue(), message["identifier"].integerValue(),
                                     [&] { return message["payload"].as<NSData>().length(); });
    if (result) usingHandler(benchmarks::replyOfValues(*result));
  }

 private:
  Work work_;
};

[[noreturn]] void fail(const NSError& error) {
  throw std::runtime_error(error.localizedDescription().string());
}

std::shared_ptr<VeltoConnection> readyConnection(const std::string& name) {
  auto connection = VeltoConnection::initWithServiceName(name, nullptr);
  NSError error;
  if (connection->waitUntilReady(kPatienceSeconds, &error)) return connection;
  connection->close();
  fail(error);
}

class VeltoLink final : public Link {
 public:
  explicit VeltoLink(const std::string& name) : connection_(readyConnection(name)) {}
  ~VeltoLink() override { connection_->close(); }

  double roundTrip(const Request& request) override {
    if (request.data.size() > limits::kMaximumRegionBytes) throw Unsupported("is more than one message may hold");
    return roundTripOf(benchmarks::requestOfValues(request));
  }

  double roundTripOfMemory(int memory, const Request& request) override {
    const NSData data = NSData::dataMappingDescriptor(memory, request.data.size());
    return roundTripOf(benchmarks::requestOfValues(request, data));
  }

  // A call that nobody awaits counts among those that wait for a reply until the server has let go of it. So each so
  // many calls one is answered, and few of those are on the way.
  void send(const Request& request) override {
    start(benchmarks::requestOfValues(request), {});
    if (++sent_ % kBetweenMarks != 0) return;
    acquire(*marks_);
    start(benchmarks::requestOfValues({.number = kHowManyCame}),
          [marks = marks_](const NSDictionary&) { marks->release(); });
  }

  void roundTrips(std::int64_t count, std::int64_t outstanding) override {
    const auto free = std::make_shared<std::counting_semaphore<>>(outstanding);
    for (std::int64_t number = 1; number <= count; ++number) {
      acquire(*free);
      start(benchmarks::requestOfValues({.number = number}), [free](const NSDictionary& reply) {
        if (reply["result"].doubleValue() != 0) free->release();
      });
    }
    for (std::int64_t number = 0; number < outstanding; ++number) acquire(*free);
  }

  void roundTripOfKeys(int keys) override {
    NSMutableDictionary message;
    message["identifier"] = kAcknowledge;
    for (int key = 0; key < keys; ++key) message["key " + std::to_string(key)] = key;
    roundTripOf(message);
  }

 private:
  static constexpr std::int64_t kBetweenMarks = 4096;
  static constexpr int kMarks = 4;

  static void acquire(std::counting_semaphore<>& semaphore) {
    if (semaphore.try_acquire()) return;
    if (!semaphore.try_acquire_for(std::chrono::duration<double>(kPatienceSeconds))) {
      throw std::runtime_error("a reply is missing");
    }
  }

  double roundTripOf(const NSDictionary& message) {
    NSError error;
    const NSDictionary reply = connection_->sendMessageSync(message, kPatienceSeconds, &error);
    if (!reply) fail(error);
    return reply["result"].doubleValue();
  }

  void start(const NSDictionary& message, VeltoReplyHandler handler) {
    NSError error;
    if (!connection_->sendMessage(message, &error, std::move(handler))) fail(error);
  }

  const std::shared_ptr<VeltoConnection> connection_;
  const std::shared_ptr<std::counting_semaphore<>> marks_ = std::make_shared<std::counting_semaphore<>>(kMarks);
  std::int64_t sent_ = 0;
};

}  // namespace

// That the name is registered is seen by whoever connects.
void serve(const std::string& address, const std::function<void()>& isReady) {
  const auto server = std::make_shared<Server>();
  const auto listener = VeltoListener::initWithServiceName(address, server);
  for (;;) {
    const auto connection = VeltoConnection::initWithServiceName(address, nullptr);
    const bool isServed = connection->waitUntilReady(kPatienceSeconds);
    connection->close();
    if (isServed) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  isReady();
  for (;;) std::this_thread::sleep_for(std::chrono::hours(1));
}

std::unique_ptr<Link> connect(const std::string& address) {
  return std::make_unique<VeltoLink>(address);
}

}  // namespace velto::transport
