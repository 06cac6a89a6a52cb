#include "tools/veltoctl/Relay.h"

#include <utility>

#include "platform/xpc/transport/Holdings.h"
#include "platform/xpc/transport/PeerProcess.h"

namespace velto::ctl {

// Hears what comes from one end. Also answers for what its socket makes the process hold.
class Relay::Side final : public transport::ChannelReceiver, public transport::HoldingOwner {
 public:
  Side(std::shared_ptr<Relay> relay, Direction direction) : relay_(std::move(relay)), direction_(direction) {}

  void framesArrived(std::span<wire::Frame> frames) override {
    const auto other = relay_->other(direction_);
    for (wire::Frame& frame : frames) {
      // Ahead of the sending, so that what is told is in the order of what happens.
      if (isShown(frame)) relay_->hooks_.passed(direction_, copyOf(frame));
      if (other) other->send(std::move(frame));
    }
  }
  void channelEnded(const std::string& reason) override { relay_->ended(direction_, reason); }
  void outputDrained() override {}
  void heldTooMuch(const std::string& reason) override { relay_->ended(direction_, reason); }
  void mayReadOn() override {
    // Of this end, which is what the other direction sends to.
    const auto own = relay_->other(direction_ == Direction::toService ? Direction::toClient : Direction::toService);
    if (own) own->readOn();
  }

 private:
  static bool isShown(const wire::Frame& frame) {
    return frame.type != wire::FrameType::credit && frame.type != wire::FrameType::hello;
  }
  static PassedFrame copyOf(const wire::Frame& frame) {
    PassedFrame copy;
    copy.bytes = wire::FrameHeader::kBytes + frame.size();
    copy.frame.type = frame.type;
    if (copy.bytes > kMostShownBytes) return copy;
    copy.frame.descriptors = frame.descriptors;
    copy.frame.regions = frame.regions;
    copy.frame.body = frame.body;
    return copy;
  }

  const std::shared_ptr<Relay> relay_;
  const Direction direction_;
};

bool Relay::begin(system::Descriptor client, system::Descriptor service, Hooks hooks) {
  const std::shared_ptr<Relay> relay(new Relay(std::move(hooks)));
  const auto make = [&relay](system::Descriptor socket, Direction fromHere) {
    const auto peer = transport::PeerProcess::of(socket.get());
    const auto side = std::make_shared<Side>(relay, fromHere);
    auto channel = std::make_shared<transport::Channel>(std::move(socket), side,
                                                        std::make_shared<transport::Holding>(side), nullptr);
    return std::pair(std::move(channel), peer);
  };
  auto [fromClient, clientProcess] = make(std::move(client), Direction::toService);
  auto [fromService, serviceProcess] = make(std::move(service), Direction::toClient);
  {
    const std::lock_guard lock(relay->mutex_);
    relay->toClient_ = fromClient;
    relay->toService_ = fromService;
  }
  if (!fromClient->start() || !fromService->start()) {
    fromClient->abort();
    fromService->abort();
    return false;
  }
  // A process that dies has ended, even if its socket lives on in other hands.
  fromClient->watch(*clientProcess);
  fromService->watch(*serviceProcess);
  return true;
}

std::shared_ptr<transport::Channel> Relay::other(Direction direction) {
  const std::lock_guard lock(mutex_);
  return direction == Direction::toService ? toService_ : toClient_;
}

void Relay::ended(Direction direction, const std::string& reason) {
  std::shared_ptr<transport::Channel> own, far;
  {
    const std::lock_guard lock(mutex_);
    if (hasEnded_) return;
    hasEnded_ = true;
    own = std::move(direction == Direction::toService ? toClient_ : toService_);
    far = std::move(direction == Direction::toService ? toService_ : toClient_);
  }
  if (far) far->finish();
  if (own) own->abort();
  hooks_.ended(direction, reason);
}

}  // namespace velto::ctl
