// Whatever one connection leaves behind shows after a hundred thousand of them.

#include "tests/soak/Cycles.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <iostream>
#include <memory>
#include <string>

#include <unistd.h>

#include "VeltoIPC/VeltoIPC.h"
#include "tests/soak/ProcessCensus.h"
#include "tests/soak/Programs.h"
#include "tests/soak/Requests.h"
#include "tests/support/BrokerLink.h"
#include "tests/support/RuntimeDirectory.h"

namespace velto::soak {

namespace {

constexpr const char* kService = "org.velto.soak.cycles";
// 21 bytes for each of a hundred thousand cycles.
constexpr std::size_t kAllowedCycleGrowthBytes = std::size_t{2} << 20;

class Delegate final : public VeltoIPCDelegate {
 public:
  void connectionReady(NSString) override {}
  void receivedMessage(NSDictionary message, NSString, VeltoReplyHandler usingHandler) override {
    usingHandler(replyTo(message));
  }
  void connectionError(NSString, NSError error) override {
    const std::string text = error.localizedDescription().string();
    if (text.ends_with("interrupted")) std::fprintf(stderr, "%s\n", text.c_str());
    if (text == "Daemon connection invalidated") ends_ += 1;
    if (text == "Listener connection invalidated") ends_ += 1;
  }
  bool hasHeardBothEnds() const { return ends_ == 2; }

 private:
  std::atomic<int> ends_{0};
};

// Empty when all went well.
std::string oneCycle(Random& random) {
  const auto delegate = std::make_shared<Delegate>();
  const auto connection = VeltoConnection::initWithServiceName(kService, delegate);
  NSError error;
  if (!connection->waitUntilReady(20.0, &error)) return "not ready: " + error.description().string();
  const NSDictionary request{{"number", NSNumber::numberWithUnsigned(random())}};
  const NSDictionary reply = connection->sendMessageSync(request, 20.0, &error);
  if (reply != replyTo(request)) return "a wrong reply, or none: " + error.description().string();
  connection->close();
  if (!testing::eventually([&] { return delegate->hasHeardBothEnds(); })) return "the end was not heard";
  return "";
}

struct Watched {
  const char* who;
  pid_t process;
  ProcessCensus start;
};

bool compare(const Watched& watched) {
  const ProcessCensus end = censusComparedWith(watched.start, watched.process);
  std::printf("%s: %s after the warm-up; %s at the end\n", watched.who, watched.start.text().c_str(),
              end.text().c_str());
  const std::string growth = growthSince(watched.start, end, kAllowedCycleGrowthBytes);
  if (!growth.empty()) std::printf("FAILED: %s has grown: %s\n", watched.who, growth.c_str());
  return growth.empty();
}

bool goThrough(std::size_t count, Random& random) {
  for (std::size_t number = 0; number < count; ++number) {
    const std::string problem = oneCycle(random);
    if (problem.empty()) continue;
    std::printf("FAILED in cycle %zu: %s\n", number + 1, problem.c_str());
    return false;
  }
  return true;
}

}  // namespace

bool runCycles(std::size_t count) {
  const testing::RuntimeDirectory directory;
  const auto broker = startBroker();
  const auto listener = startSelf({"cycle-listener"});
  if (listener->readLine() != "listening") return false;
  Random random(1);
  const std::size_t warmUp = std::clamp<std::size_t>(count / 4, 1, 5000);
  if (!goThrough(warmUp, random)) return false;
  Watched all[] = {{"the client", ::getpid(), {}},
                   {"the listener", listener->processID(), {}},
                   {"the broker", broker->processID(), {}}};
  for (Watched& watched : all) watched.start = ProcessCensus::settled(watched.process);
  const auto start = std::chrono::steady_clock::now();
  if (!goThrough(count, random)) return false;
  const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - start;
  std::printf("%zu cycles in %.1f s, after %zu to warm up\n", count, seconds.count(), warmUp);
  bool isWell = true;
  for (const Watched& watched : all) isWell = compare(watched) && isWell;
  return isWell;
}

int serveCycles() {
  const auto delegate = std::make_shared<Delegate>();
  const auto listener = VeltoListener::initWithServiceName(kService, delegate);
  testing::settle(listener->daemonConnection());
  std::cout << "listening" << std::endl;
  for (std::string line; std::getline(std::cin, line);) {
  }
  listener->close();
  return 0;
}

}  // namespace velto::soak
