#include "tools/veltoctl/Listeners.h"

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <vector>

#include "broker/VeltoIPCRecallProtocol.h"
#include "platform/foundation/Foundation.h"
#include "platform/xpc/NSXPCConnection.h"
#include "platform/xpc/NSXPCListener.h"

namespace velto::ctl {
namespace {

constexpr std::chrono::seconds kPatience{1};

// What has come so far, until nobody waits for it any more.
class Answers {
 public:
  explicit Answers(std::size_t expected) : expected_(expected) {}

  void take(const NSDictionary& answer) {
    const std::lock_guard lock(mutex_);
    const auto process = answer["process"].to<std::int32_t>().value_or(0);
    for (const NSObject& each : answer["listeners"].as<NSArray>()) add(process, each.as<NSDictionary>());
  }
  // Of one, whatever it has answered.
  void end() {
    const std::lock_guard lock(mutex_);
    ++ended_;
    changed_.notify_all();
  }
  Traffic wait() {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, kPatience, [this] { return ended_ >= expected_; });
    return traffic_;
  }

 private:
  void add(std::int32_t process, const NSDictionary& listener) {
    const auto number = [&listener](const char* key) { return listener[key].to<std::uint64_t>().value_or(0); };
    xpc::ListenerTraffic& sum = traffic_[{listener["name"].stringValue(), process}];
    sum.connections += number("connections");
    sum.accepted += number("accepted");
    sum.messagesIn += number("messagesIn");
    sum.messagesOut += number("messagesOut");
    sum.bytesIn += number("bytesIn");
    sum.bytesOut += number("bytesOut");
    sum.undeliveredBytes += number("undeliveredBytes");
    sum.unsentBytes += number("unsentBytes");
  }

  const std::size_t expected_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::size_t ended_ = 0;
  Traffic traffic_;
};

// Ends with the last block that holds it.
class Asked {
 public:
  explicit Asked(std::shared_ptr<Answers> all) : answers(std::move(all)) {}
  ~Asked() { answers->end(); }
  Asked(const Asked&) = delete;
  Asked& operator=(const Asked&) = delete;

  const std::shared_ptr<Answers> answers;
};

std::shared_ptr<NSXPCConnection> ask(const NSString& door, const std::shared_ptr<Answers>& answers) {
  const auto connection = NSXPCConnection::initWithServiceName(door);
  connection->setRemoteObjectInterface(NSXPCInterface::interfaceWithProtocol<VeltoIPCRecallProtocol>());
  connection->resume();
  const auto asked = std::make_shared<Asked>(answers);
  const auto process =
      connection->remoteObjectProxyWithErrorHandler<VeltoIPCRecallProtocol>([asked](const NSError&) {});
  process->call<&VeltoIPCRecallProtocol::describeListeners>(
      std::function<void(NSDictionary)>([asked](const NSDictionary& answer) { asked->answers->take(answer); }));
  return connection;
}

}  // namespace

Traffic allTraffic() {
  const NSArray doors = NSXPCListener::serviceNamesWithPrefix(VeltoIPCListenerServicePrefix);
  const auto answers = std::make_shared<Answers>(doors.count());
  std::vector<std::shared_ptr<NSXPCConnection>> connections;
  for (const NSObject& each : doors) connections.push_back(ask(each.as<NSString>(), answers));
  Traffic traffic = answers->wait();
  for (const auto& each : connections) each->invalidate();
  return traffic;
}

std::optional<xpc::ListenerTraffic> trafficOf(const std::string& name, std::int32_t process) {
  const Traffic all = allTraffic();
  const auto found = all.find({name, process});
  return found != all.end() ? std::optional(found->second) : std::nullopt;
}

NSDictionary shown(const xpc::ListenerTraffic& traffic) {
  const auto number = [](auto value) { return static_cast<std::int64_t>(value); };
  return {{"connections", number(traffic.connections)},
          {"accepted", number(traffic.accepted)},
          {"messagesIn", number(traffic.messagesIn)},
          {"messagesOut", number(traffic.messagesOut)},
          {"bytesIn", number(traffic.bytesIn)},
          {"bytesOut", number(traffic.bytesOut)},
          {"undeliveredBytes", number(traffic.undeliveredBytes)},
          {"unsentBytes", number(traffic.unsentBytes)}};
}

}  // namespace velto::ctl
