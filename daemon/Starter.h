#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include <sys/types.h>

#include "daemon/ServiceFile.h"
#include "platform/foundation/ThreadAnnotations.h"

namespace velto {

// Starts services that are looked up and not there. One start serves all who wait; one that has failed is not started
// again before a pause that doubles with each failure, up to a minute.
//
// Thread-safe. The handler is called without the lock.
class Starter {
 public:
  using Clock = std::chrono::steady_clock;
  // Starts a program; -1 and the reason when it cannot be. What it started is told by childEnded(); 0 for what has no
  // end that would say anything.
  using Launch = std::function<pid_t(const ServiceFile& file, std::string& reason)>;
  struct Means {
    std::vector<std::string> folders = ServiceFile::folders();
    Launch launch = launchProgram;
    std::function<Clock::time_point()> now = Clock::now;
  };
  enum class State { unknown, starting, failed };

  Starter() : Starter(Means()) {}
  explicit Starter(Means means) : means_(std::move(means)) {}

  // Whether the service is being started now, by this call or another; or there is no way to do so; or that has failed.
  State start(const std::string& name);
  // What those who wait hear.
  void registered(const std::string& name);
  // Does nothing unless it is still being started.
  void failed(const std::string& name, const std::string& why);
  // Of a child of this process.
  void childEnded(pid_t process, int status);
  // Why the service is not there; "" when there is nothing to say.
  std::string reason(const std::string& name) const;
  State state(const std::string& name) const;
  bool isStarting() const;
  // Called with the name when a start has failed. Set before the first start.
  void setFailureHandler(std::function<void(const std::string&)> handler) { failureHandler_ = std::move(handler); }

  static constexpr std::chrono::seconds kPatience{30};
  static constexpr std::chrono::seconds kFirstPause{1};
  static constexpr std::chrono::seconds kLongestPause{60};
  static constexpr std::size_t kMostAtOnce = 64;
  // Of which is remembered why they are not there.
  static constexpr std::size_t kMostRemembered = 1024;

  static pid_t launchProgram(const ServiceFile& file, std::string& reason);

 private:
  struct Service {
    State state = State::unknown;
    pid_t process = 0;
    Clock::time_point since;
    Clock::time_point notBefore;
    std::chrono::seconds pause{0};
    std::string reason;
  };

  // Whether it is being started and its time is not over, though nobody may wait any more to say so.
  bool isUnderWay(const Service& service) const;
  // Null when there are too many of which something is to be remembered.
  Service* find(const std::string& name) VELTO_REQUIRES(mutex_);
  static void fail(Service& service, const std::string& why, Clock::time_point now);

  const Means means_;
  std::function<void(const std::string&)> failureHandler_;
  mutable Mutex mutex_;
  std::map<std::string, Service> services_ VELTO_GUARDED_BY(mutex_);
};

}  // namespace velto
