#pragma once

#include <filesystem>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include <sys/types.h>

#include "platform/xpc/system/Descriptor.h"
#include "tests/support/RuntimeDirectory.h"

namespace velto::testing {

// What systemd is to the broker: it listens for it, starts it with the socket and with what it keeps for it, and hears
// what it says. Of one thread.
class StandIn {
 public:
  StandIn();
  ~StandIn();
  StandIn(const StandIn&) = delete;
  StandIn& operator=(const StandIn&) = delete;

  // Returns once the broker says that it is ready.
  void start();
  // With something else in place of the listening socket: waits for the end, which is its exit status.
  int startWith(int borrowedSocket);
  void kill();
  // Waits until what is kept is so.
  using Stored = std::map<std::string, std::vector<system::Descriptor>>;
  bool waitFor(const std::function<bool(const Stored&)>& isSo);
  Stored& stored() { return stored_; }
  // Lines other than of the store, in order.
  const std::vector<std::string>& said() const { return said_; }
  const std::filesystem::path& path() const { return directory_.path(); }

 private:
  pid_t run(int borrowedSocket) const;
  // Takes what has been said so far, or waits a little for something.
  void hear(int milliseconds);
  void take(const std::string& text, std::vector<system::Descriptor> descriptors);

  const RuntimeDirectory directory_;
  system::Descriptor listening_;
  system::Descriptor notified_;
  Stored stored_;
  std::vector<std::string> said_;
  pid_t process_ = 0;
};

}  // namespace velto::testing
