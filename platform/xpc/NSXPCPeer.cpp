#include "platform/xpc/NSXPCPeer.h"

#include <utility>

#include "platform/xpc/transport/PeerProcess.h"

class NSXPCPeer::Watch {
 public:
  explicit Watch(velto::transport::PeerProcess::Subscription subscription) : subscription_(std::move(subscription)) {}

 private:
  const velto::transport::PeerProcess::Subscription subscription_;
};

NSXPCPeer::NSXPCPeer(std::shared_ptr<velto::transport::PeerProcess> process) noexcept : process_(std::move(process)) {}

std::uint64_t NSXPCPeer::number() const noexcept {
  return process_ ? process_->number() : 0;
}

pid_t NSXPCPeer::processIdentifier() const noexcept {
  return process_ ? process_->identifier() : 0;
}

uid_t NSXPCPeer::userIdentifier() const noexcept {
  return process_ ? process_->user() : static_cast<uid_t>(-1);
}

int NSXPCPeer::processDescriptor() const {
  return process_ ? process_->lendDescriptor() : -1;
}

std::shared_ptr<NSXPCPeer::Watch> NSXPCPeer::watch(std::function<void()> handler) const {
  return process_ ? std::make_shared<Watch>(process_->onDeath(std::move(handler))) : nullptr;
}
