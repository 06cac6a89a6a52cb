#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/xpc/NSXPCListenerEndpoint.h"
#include "platform/xpc/system/Descriptor.h"
#include "platform/xpc/transport/Sockets.h"
#include "platform/xpc/wire/FrameReader.h"
#include "platform/xpc/wire/Messages.h"

namespace velto::testing {

inline constexpr char kMessageSelector[] = "connectionID:withMessage:handler:";

// An end of a connection that keeps no rule: a bare socket that sends what its test tells it to, and reads only when it
// is told to. Waits are bounded. For one thread at a time.
class RawEnd {
 public:
  // A socket that is connected.
  explicit RawEnd(system::Descriptor socket) : socket_(std::move(socket)) {}
  static RawEnd connectedTo(const NSXPCListenerEndpoint& endpoint);

  void greet(const wire::Hello& hello = wire::Hello::ours()) { send(hello.encode()); }
  // What an end that has cut this one off does not take is not sent.
  void send(const wire::Frame& frame) { sendAs(frame, frame.descriptors.size()); }
  // With a count of descriptors in the header that need not be true.
  void sendAs(const wire::Frame& frame, std::size_t declaredDescriptors);
  void send(std::vector<std::uint8_t> bytes, const std::vector<system::SharedDescriptor>& descriptors = {});

  // The next frame; nothing once the other end has closed.
  std::optional<wire::Frame> next();
  // The next one of the type; others are skipped.
  std::optional<wire::Frame> next(wire::FrameType type);
  // Whether the other end closes, having read on to the end of what it sent.
  bool isCutOff();

 private:
  bool waitFor(short events) const;

  system::Descriptor socket_;
  std::unique_ptr<wire::FrameReader> reader_ = std::make_unique<wire::FrameReader>();
  bool ended_ = false;
};

// A listener that keeps no rule.
class RawListener {
 public:
  RawListener();

  const NSXPCListenerEndpoint& endpoint() const { return endpoint_; }
  // Waits for the next connection.
  RawEnd accept();

 private:
  transport::AnonymousSocket made_;
  NSXPCListenerEndpoint endpoint_;
};

// A call of the peer protocol.
wire::Frame callFrame(std::uint64_t identifier, const NSObject& message, bool wantsReply);
// Bytes of the value take the message's place.
wire::Frame callFrameAround(std::uint64_t identifier, const std::vector<std::uint8_t>& value, bool wantsReply);

}  // namespace velto::testing
