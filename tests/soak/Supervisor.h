#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>

#include "tests/soak/Requests.h"
#include "tests/soak/SharedState.h"
#include "tests/soak/Summary.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/RuntimeDirectory.h"

namespace velto::soak {

struct SoakOptions {
  std::chrono::seconds duration{60};
  std::uint64_t seed = 0;
  std::uint32_t listeners = 3;
  std::uint32_t clients = 4;
};

// Starts the broker, the listeners and the clients, kills, stops and restarts them at random, and lets them rest now
// and then to count what they hold. Listener 0 and client 0 are never killed. For one thread.
class Supervisor {
 public:
  explicit Supervisor(const SoakOptions& options);

  // True when nothing has failed. Ends early when `interrupted` becomes true.
  bool run(const volatile bool& interrupted);

 private:
  using Clock = std::chrono::steady_clock;
  struct LastProgress {
    std::uint64_t value;
    Clock::time_point since;
  };

  void startListener(std::size_t number);
  void startClient(std::size_t number);
  void work(Clock::duration time, bool kills);
  void disturb();
  void killClient();
  void killListener();
  void killBroker();
  void halt();
  void rest();
  void takeCensus();
  void compare(const std::string& who, pid_t process);
  void stopAll();
  void watch();
  void watchWorker(const WorkerSlot& slot, const std::string& who);
  void expectAlive(const testing::ChildProcess& process, const std::string& who);
  bool allRest() const;
  void fail(const std::string& what);
  bool isOver() const { return *interrupted_ || !summary_.failures.empty(); }

  const SoakOptions options_;
  const testing::RuntimeDirectory directory_;
  const int memory_;
  SharedState& shared_;
  Random random_;
  Summary summary_;
  const volatile bool* interrupted_ = nullptr;
  std::unique_ptr<testing::ChildProcess> broker_;
  std::vector<std::unique_ptr<testing::ChildProcess>> listeners_;
  std::vector<std::unique_ptr<testing::ChildProcess>> clients_;
  std::map<std::string, LastProgress> progress_;
  // By process: where each stands in the summary.
  std::map<pid_t, std::size_t> counted_;
};

}  // namespace velto::soak
