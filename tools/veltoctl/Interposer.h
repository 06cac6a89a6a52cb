#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "platform/xpc/NSXPCListenerEndpoint.h"
#include "platform/xpc/system/Descriptor.h"
#include "tools/veltoctl/BrokerLink.h"
#include "tools/veltoctl/Events.h"

namespace velto::ctl {

// Stands in for a name at the broker, and relays every connection that comes to whoever has the name then.
//
// For one thread, which must not be the platform's.
class Interposer {
 public:
  Interposer(std::string name, EventPrinter& printer);
  ~Interposer();
  Interposer(const Interposer&) = delete;
  Interposer& operator=(const Interposer&) = delete;

  // To be called now and then: stands in again if the broker has forgotten it. What stands in the way of that, once.
  std::optional<std::string> refresh();
  // Stands in no more. Whoever has been sent here already may still connect.
  void withdraw();
  // Accepts nobody any more; connections that it relays go on.
  void stop();
  std::size_t connections() const noexcept { return *connections_; }

 private:
  void accept();
  void relay(system::Descriptor client);
  system::Descriptor connectBehind();

  const std::string name_;
  EventPrinter& printer_;
  system::Descriptor socket_;
  // Others hear by its reading end that the listener is gone.
  system::Descriptor hangUp_;
  NSXPCListenerEndpoint endpoint_;
  std::mutex linkMutex_;
  std::shared_ptr<BrokerLink> link_;
  bool isLost_ = false;
  const std::shared_ptr<std::atomic<std::size_t>> connections_ = std::make_shared<std::atomic<std::size_t>>(0);
  std::uint64_t lastConnection_ = 0;
  std::atomic<bool> isStopping_{false};
  std::thread thread_;
};

}  // namespace velto::ctl
