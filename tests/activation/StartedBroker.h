#pragma once

#include <string>
#include <vector>

#include <sys/types.h>

#include "tests/support/ChildProcess.h"
#include "tests/support/RuntimeDirectory.h"

namespace velto::testing {

// A runtime directory in which the platform starts a broker when one is needed, and notes whom it has started. What it has
// started is gone when this is.
class StartedBroker {
 public:
  // With these options in place of the platform's own, and these commands of a shell before it.
  explicit StartedBroker(const std::string& options = "--leave-when-idle=60", const std::string& before = "");
  ~StartedBroker();
  StartedBroker(const StartedBroker&) = delete;
  StartedBroker& operator=(const StartedBroker&) = delete;

  // Who was started so far.
  std::vector<pid_t> started() const;
  // Kills the last one, and waits until it is gone.
  void kill() const;
  // What the commands wrote into the file of that name beside the runtime directory.
  std::string words(const std::string& file) const;

  const std::filesystem::path& path() const { return directory_.path(); }
  std::filesystem::path sockets() const { return path() / "velto-ipc"; }

 private:
  const RuntimeDirectory directory_;
};

// The guest program, which gets the environment of now.
class Guest {
 public:
  Guest(const std::string& role, const std::string& name) : process({VELTO_ACTIVATION_GUEST, role, name}) {}
  std::string says() { return process.readLine().value_or("nothing"); }
  // Once it listens or serves.
  bool isThere();

  ChildProcess process;
};

// What one more process finds out.
std::string found(const std::string& name);

}  // namespace velto::testing
