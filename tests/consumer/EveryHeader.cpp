// Every public header, and what most programs do with them.

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <tuple>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include <VeltoIPC/Limits.h>
#include <VeltoIPC/Typed.h>
#include <VeltoIPC/VeltoIPC.h>
#include <VeltoIPC/platform/foundation/Box.h>
#include <VeltoIPC/platform/logging/VeltoLogging.h>
#include <VeltoIPC/platform/xpc/NSFileDescriptor.h>
#include <VeltoIPC/platform/xpc/NSXPCConnection.h>
#include <VeltoIPC/platform/xpc/NSXPCError.h>
#include <VeltoIPC/platform/xpc/NSXPCInterface.h>
#include <VeltoIPC/platform/xpc/NSXPCListener.h>
#include <VeltoIPC/platform/xpc/NSXPCListenerEndpoint.h>
#include <VeltoIPC/platform/xpc/NSXPCPeer.h>

namespace {

enum class Colour : std::uint8_t { red, green };

class Delegate final : public VeltoIPCDelegate {
 public:
  void connectionReady(NSString connectionID) override { ready_.insert(connectionID); }
  void receivedMessage(NSDictionary message, NSString, VeltoReplyHandler usingHandler) override {
    double sum = 0;
    for (const NSObject& term : message["terms"].as<NSArray>()) sum += term.doubleValue();
    usingHandler({{"sum", sum}, {"colour", Colour::green}, {"when", std::chrono::system_clock::now()}});
  }
  void connectionError(NSString, NSError error) override { last_ = error.localizedDescription(); }

 private:
  std::unordered_set<NSString> ready_;
  NSString last_;
};

}  // namespace

struct Sample {
  std::vector<double> values;
  std::optional<std::string> unit;
  std::map<std::string, std::tuple<int, bool>> flags;
};
VELTO_FIELDS(Sample, values, unit, flags)

enum class Unit { metre, second };
VELTO_NAMES(Unit, metre, (second, "s"))

struct Nothing {
  VELTO_FIELDS_ONLY(Nothing)
};

class Request {
 public:
  VELTO_FIELDS(Request, (samples_, "samples"), (unit_, "unit", velto::orDefault), (others_, velto::everythingElse));

 private:
  std::vector<Sample> samples_;
  Unit unit_ = Unit::metre;
  NSDictionary others_;
};

std::string passedOn(const NSDictionary& message, VeltoConnection& connection);
std::string passedOn(const NSDictionary& message, VeltoConnection& connection) {
  const auto request = message.get<Request>();
  if (!request) return request.error();
  connection.sendMessage(*request);
  connection.sendMessage({{"nothing", Nothing()}, {"requests", std::vector<Request>{*request}}});
  return message.to<Nothing>() ? "nothing" : "";
}

NSDictionary messageOf(const Sample& sample);
NSDictionary messageOf(const Sample& sample) {
  return {{"values", sample.values}, {"unit", sample.unit}, {"flags", sample.flags}, {"range", {1, 2.5, "x"}}};
}

std::optional<Sample> sampleOf(const NSDictionary& message);
std::optional<Sample> sampleOf(const NSDictionary& message) {
  auto values = message.get<std::vector<double>>("values");
  auto unit = message.get<std::optional<std::string>>("unit");
  auto flags = message.get<decltype(Sample::flags)>("flags");
  if (!values || !unit || !flags) return std::nullopt;
  return Sample{*std::move(values), *std::move(unit), *std::move(flags)};
}

void print(std::ostream& out, const NSDictionary& message);
void print(std::ostream& out, const NSDictionary& message) {
  for (const auto& [key, value] : message.pairs()) out << key << '=' << value << '\n';
  out << message["colour"].to<Colour>().has_value() << message["count"].to<std::uint8_t>().value_or(0);
  out << message["bytes"].to<std::vector<std::uint8_t>>().has_value() << message.to<NSDictionary>().has_value();
  out << message["wait"].to<std::chrono::milliseconds>().has_value() << std::hash<NSDictionary>()(message);
}

double exchange(const std::string& name);
double exchange(const std::string& name) {
  const std::shared_ptr<VeltoConnection> connection =
      VeltoConnection::initWithServiceName(name, std::make_shared<Delegate>());
  NSError error;
  if (!connection->waitUntilReady(1, &error)) return 0;
  connection->sendMessage({{"op", "note"}});
  return connection->sendMessageSync({{"op", "sum"}, {"terms", {1, 2, 3}}}, 1)["sum"].doubleValue();
}

Class classOf(const NSObject& object);
Class classOf(const NSObject& object) {
  return object == nil ? Class() : object.getClass();
}
