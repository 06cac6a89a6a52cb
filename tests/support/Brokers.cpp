// The broker as a class, and as a program.

#include "tests/support/Brokers.h"

#include <gtest/gtest.h>

#include "daemon/Broker.h"

namespace velto::testing {

BrokerHere::BrokerHere() : broker_(Broker::make()) {
  NSError error;
  listener_ = NSXPCListener::listenerWithServiceName(VeltoIPCDaemonServiceName, &error);
  if (!listener_) giveUp(("the broker's name cannot be served: " + error.description().string()).c_str());
  listener_->setDelegate(broker_);
  listener_->resume();
}

BrokerHere::~BrokerHere() {
  listener_->invalidate();
}

DaemonProcess::DaemonProcess() : DaemonProcess(std::vector<std::string>{VELTO_DAEMON}) {}

DaemonProcess::DaemonProcess(std::size_t descriptors)
    : DaemonProcess({"/bin/sh", "-c", "ulimit -n " + std::to_string(descriptors) + " && exec \"$0\"", VELTO_DAEMON}) {}

DaemonProcess::DaemonProcess(const std::vector<std::string>& command)
    : process_(command, ChildProcess::Errors::joinOutput) {
  while (const auto line = process_.readLine()) {
    words_ += *line + "\n";
    if (line->find("listening") == std::string::npos) continue;
    listens_ = true;
    break;
  }
}

}  // namespace velto::testing
