#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "platform/xpc/NSXPCListener.h"
#include "tests/support/ChildProcess.h"

namespace velto::testing {

// The broker, in this process.
class BrokerHere {
 public:
  BrokerHere();
  ~BrokerHere();
  BrokerHere(const BrokerHere&) = delete;
  BrokerHere& operator=(const BrokerHere&) = delete;

 private:
  std::shared_ptr<NSXPCListener> listener_;
  std::shared_ptr<NSXPCListenerDelegate> broker_;
};

// The broker's program, as a child process; listening once this is made.
class DaemonProcess {
 public:
  DaemonProcess();
  // It may not have more descriptors open than this.
  explicit DaemonProcess(std::size_t descriptors);

  ChildProcess& process() { return process_; }
  // What the program said until it listened, or ended.
  const std::string& words() const { return words_; }
  bool listens() const { return listens_; }

 private:
  explicit DaemonProcess(const std::vector<std::string>& command);

  ChildProcess process_;
  std::string words_;
  bool listens_ = false;
};

}  // namespace velto::testing
