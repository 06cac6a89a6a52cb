// A peer without manners: what its end of the wire says is made with the wire's own code, and sent as it is.

#include "tests/limits/RawEnd.h"

#include <cerrno>
#include <utility>

#include <gtest/gtest.h>
#include <poll.h>

#include "platform/xpc/system/SystemCalls.h"
#include "platform/xpc/testing/Frames.h"
#include "platform/xpc/transport/DescriptorMessage.h"
#include "tests/support/Waiting.h"

namespace velto::testing {

namespace {

constexpr std::size_t kReadBytes = std::size_t{64} << 10;

}  // namespace

RawEnd RawEnd::connectedTo(const NSXPCListenerEndpoint& endpoint) {
  auto attempt = transport::connectToEndpoint(endpoint.socket()->get());
  EXPECT_TRUE(attempt.socket) << attempt.reason;
  return RawEnd(std::move(attempt.socket));
}

bool RawEnd::waitFor(short events) const {
  pollfd entry{socket_.get(), events, 0};
  const auto bound = std::chrono::duration_cast<std::chrono::milliseconds>(kBound);
  return ::poll(&entry, 1, static_cast<int>(bound.count())) == 1;
}

void RawEnd::sendAs(const wire::Frame& frame, std::size_t declaredDescriptors) {
  const auto header = wire::FrameHeader{static_cast<std::uint32_t>(frame.body.size()), frame.type,
                                        static_cast<std::uint16_t>(declaredDescriptors)}
                          .encode();
  std::vector<std::uint8_t> bytes(header.begin(), header.end());
  bytes.insert(bytes.end(), frame.body.begin(), frame.body.end());
  send(std::move(bytes), frame.descriptors);
}

void RawEnd::send(std::vector<std::uint8_t> bytes, const std::vector<system::SharedDescriptor>& descriptors) {
  for (std::size_t sent = 0; sent < bytes.size();) {
    iovec part{bytes.data() + sent, bytes.size() - sent};
    const ssize_t count = transport::sendWithDescriptors(
        socket_.get(), {&part, 1}, sent == 0 ? descriptors : std::vector<system::SharedDescriptor>());
    if (count < 0 && errno != EAGAIN) return;
    if (count < 0 && !waitFor(POLLOUT)) return ADD_FAILURE() << "the other end does not read", void();
    if (count > 0) sent += static_cast<std::size_t>(count);
  }
}

std::optional<wire::Frame> RawEnd::next() {
  for (;;) {
    if (auto frame = reader_->next()) return frame;
    auto received = transport::receiveWithDescriptors(socket_.get(), reader_->prepare(kReadBytes));
    if (received.error == EAGAIN && waitFor(POLLIN)) continue;
    if (received.error == EAGAIN) ADD_FAILURE() << "nothing comes any more";
    ended_ = received.error != EAGAIN && (received.error != 0 || received.count == 0);
    if (ended_ || received.error == EAGAIN) return std::nullopt;
    reader_->received(received.count, std::move(received.descriptors));
  }
}

std::optional<wire::Frame> RawEnd::next(wire::FrameType type) {
  for (;;) {
    auto frame = next();
    if (!frame || frame->type == type) return frame;
  }
}

bool RawEnd::isCutOff() {
  while (next()) continue;
  return ended_;
}

RawListener::RawListener() : made_(transport::makeAnonymousSocket()) {
  EXPECT_TRUE(made_.socket) << made_.reason;
  endpoint_ = NSXPCListenerEndpoint::endpointWithDescriptors(
      std::make_shared<const system::Descriptor>(std::move(made_.handle)),
      std::make_shared<const system::Descriptor>(std::move(made_.hangUpRead)));
}

RawEnd RawListener::accept() {
  pollfd entry{made_.socket.get(), POLLIN, 0};
  EXPECT_EQ(::poll(&entry, 1, static_cast<int>(std::chrono::milliseconds(kBound).count())), 1);
  return RawEnd(system::Descriptor(system::systemCalls().accept(made_.socket.get())));
}

wire::Frame callFrame(std::uint64_t identifier, const NSObject& message, bool wantsReply) {
  wire::ValueEncoder encoder(wire::FrameType::call);
  wire::encodeCallHeader(encoder, {identifier, kMessageSelector, wantsReply});
  encoder.add(NSString("raw"));
  encoder.add(message);
  EXPECT_FALSE(encoder.failed()) << encoder.reason();
  return inOnePiece(encoder.take());
}

wire::Frame callFrameAround(std::uint64_t identifier, const std::vector<std::uint8_t>& value, bool wantsReply) {
  wire::ValueEncoder encoder(wire::FrameType::call);
  wire::encodeCallHeader(encoder, {identifier, kMessageSelector, wantsReply});
  encoder.add(NSString("raw"));
  auto frame = encoder.take();
  frame.body.append(value);
  return frame;
}

}  // namespace velto::testing
