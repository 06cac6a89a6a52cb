// Its listening socket is of the platform's kind, but what comes there is no connection of its own: it is handed on
// frame by frame.
#include "tools/veltoctl/Interposer.h"

#include <chrono>
#include <utility>

#include <poll.h>

#include "platform/xpc/system/SystemCalls.h"
#include "platform/xpc/transport/PeerProcess.h"
#include "platform/xpc/transport/Sockets.h"

namespace velto::ctl {
namespace {

constexpr std::chrono::milliseconds kLook{100};
// For a listener that has not accepted those before yet.
constexpr std::chrono::seconds kConnectPatience{5};
constexpr std::chrono::milliseconds kConnectPause{20};

}  // namespace

Interposer::Interposer(std::string name, EventPrinter& printer) : name_(std::move(name)), printer_(printer) {
  auto made = transport::makeAnonymousSocket();
  if (!made.socket) throw CommandError(ExitCode::failure, "no socket can be made: " + made.reason);
  socket_ = std::move(made.socket);
  hangUp_ = std::move(made.hangUpWrite);
  endpoint_ = NSXPCListenerEndpoint::endpointWithDescriptors(
      std::make_shared<const system::Descriptor>(std::move(made.handle)),
      std::make_shared<const system::Descriptor>(std::move(made.hangUpRead)));
  link_ = std::make_shared<BrokerLink>();
  if (!link_->describe(name_)) {
    link_->requireServed(name_);
  }
  link_->standIn(name_, endpoint_);
  thread_ = std::thread([this] { accept(); });
}

Interposer::~Interposer() {
  stop();
}

void Interposer::withdraw() {
  hangUp_.reset();
}

void Interposer::stop() {
  withdraw();
  isStopping_ = true;
  if (thread_.joinable()) thread_.join();
  const std::lock_guard lock(linkMutex_);
  link_.reset();
  socket_.reset();
}

std::optional<std::string> Interposer::refresh() {
  std::shared_ptr<BrokerLink> link;
  {
    const std::lock_guard lock(linkMutex_);
    link = link_;
  }
  try {
    if (link->hasEnded()) {
      link = std::make_shared<BrokerLink>();
      link->standIn(name_, endpoint_);
      const std::lock_guard lock(linkMutex_);
      link_ = link;
      isLost_ = false;
      return std::nullopt;
    }
    const auto found = link->describe(name_);
    if (found && found->standIn == 0) link->standIn(name_, endpoint_);
    isLost_ = false;
  } catch (const CommandError& error) {
    if (!std::exchange(isLost_, true)) return error.what();
  }
  return std::nullopt;
}

void Interposer::accept() {
  auto& calls = system::systemCalls();
  for (;;) {
    // Asked before, so that whoever has connected by then is accepted.
    const bool isLast = isStopping_;
    pollfd waiting{socket_.get(), POLLIN, 0};
    if (::poll(&waiting, 1, isLast ? 0 : static_cast<int>(kLook.count())) <= 0) {
      if (isLast) return;
      continue;
    }
    const int descriptor = calls.accept(socket_.get());
    if (descriptor >= 0) relay(system::Descriptor(descriptor));
  }
}

system::Descriptor Interposer::connectBehind() {
  std::shared_ptr<BrokerLink> link;
  {
    const std::lock_guard lock(linkMutex_);
    link = link_;
  }
  try {
    const auto endpoint = link->findBehind(name_);
    if (!endpoint) return {};
    const auto end = std::chrono::steady_clock::now() + kConnectPatience;
    for (;;) {
      auto attempt = transport::connectToEndpoint(endpoint.socket()->get());
      if (attempt.socket || !attempt.full || std::chrono::steady_clock::now() >= end) return std::move(attempt.socket);
      std::this_thread::sleep_for(kConnectPause);
    }
  } catch (const CommandError&) {
    return {};
  }
}

// Whoever cannot be connected on is closed without a word, as by a listener that has gone.
void Interposer::relay(system::Descriptor client) {
  std::string reason;
  if (!transport::isOwnUser(client.get(), reason)) return;
  const auto process = transport::PeerProcess::of(client.get())->identifier();
  const std::uint64_t number = ++lastConnection_;
  Event opened;
  opened.kind = Event::Kind::opened;
  opened.connection = number;
  opened.client = process;
  printer_.add(std::move(opened));
  const auto closed = [this, number](Relay::Direction by, const std::string& why) {
    Event event;
    event.kind = Event::Kind::closed;
    event.connection = number;
    event.direction = by;
    event.reason = why;
    printer_.add(std::move(event));
  };
  auto service = connectBehind();
  if (!service) return closed(Relay::Direction::toClient, "it cannot be connected to");
  Relay::Hooks hooks;
  hooks.passed = [this, number](Relay::Direction direction, PassedFrame frame) {
    Event event;
    event.connection = number;
    event.direction = direction;
    event.frame = std::move(frame);
    printer_.add(std::move(event));
  };
  hooks.ended = closed;
  hooks.gone = [count = connections_] { --*count; };
  ++*connections_;
  Relay::begin(std::move(client), std::move(service), std::move(hooks));
}

}  // namespace velto::ctl
