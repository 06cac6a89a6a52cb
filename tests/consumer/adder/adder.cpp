// A program outside of the project: both vocabularies through the broker, values, and an exception across the border of
// the library.

#include <chrono>
#include <cstdio>
#include <memory>
#include <vector>

#include <VeltoIPC/VeltoIPC.h>
#include <VeltoIPC/platform/logging/VeltoLogging.h>

namespace {

constexpr double kPatienceSeconds = 20;
const NSString kName("org.example.adder");

class Adder final : public VeltoIPCDelegate {
 public:
  void connectionReady(NSString) override {}
  void connectionError(NSString, NSError) override {}
  void receivedMessage(NSDictionary message, NSString, VeltoReplyHandler usingHandler) override {
    double sum = 0;
    for (const NSObject& term : message["terms"].as<NSArray>()) sum += term.doubleValue();
    usingHandler({{"sum", sum}});
  }
};

bool printsTheSum(const NSDictionary& reply) {
  if (!reply) return false;
  std::printf("The sum is %g\n", reply["sum"].doubleValue());
  return true;
}

bool asksTheListener() {
  const auto adder = std::make_shared<Adder>();
  const auto listener = VeltoListener::initWithServiceName(kName, adder);
  // It serves once its name is registered; until then a connection says at once that nobody has the name.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(kPatienceSeconds);
  NSDictionary reply;
  while (!reply && std::chrono::steady_clock::now() < deadline) {
    NSError error;
    const auto connection = VeltoConnection::initWithServiceName(kName, nullptr);
    if (connection->waitUntilReady(kPatienceSeconds, &error)) {
      reply = connection->sendMessageSync({{"terms", NSArray{1, 2, 3.5}}}, kPatienceSeconds, &error);
    }
    connection->close();
  }
  listener->close();
  return printsTheSum(reply);
}

bool asksTheService() {
  velto::Service service(kName);
  service.on("add", [](const velto::Request& request) {
    double sum = 0;
    for (const NSObject& term : request.message()["terms"].as<NSArray>()) sum += term.doubleValue();
    request.reply({{"sum", sum}});
  });
  service.start();
  if (service.waitUntilRegistered(std::chrono::seconds(20))) return false;
  const auto client = velto::Client::connect(kName).value();
  const std::vector<double> terms{1, 2, 3.5};
  const auto reply = client.call("add", {{"terms", terms}}, {.timeout = std::chrono::seconds(20)}).get();
  return reply && printsTheSum(*reply);
}

bool catchesWhatTheLibraryThrows() {
  NSMutableArray array;
  array.addObject(1);
  try {
    array.addObject(nil);
  } catch (const NSException&) {
    return array.count() == 1;
  }
  return false;
}

}  // namespace

int main() {
  VKTLogSetLevel(VKTLogLevelOff);
  return asksTheListener() && asksTheService() && catchesWhatTheLibraryThrows() ? 0 : 1;
}
