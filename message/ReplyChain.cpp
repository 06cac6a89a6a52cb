// The way of a reply from the delegate back to the sender, the same at both ends. Nobody counts: a delegate that
// answers twice, or never, is passed on as it is, and the layer below lets one reply through.
#include "message/ReplyChain.h"

#include <utility>

#include "platform/foundation/NSUUID.h"
#include "platform/logging/VeltoLogging.h"
#include "platform/xpc/Protocol.h"

namespace velto {

namespace {

// The two parts of a message's label. It is put together, and a UUID drawn for it, only for who sees the lines.
class Label {
 public:
  explicit Label(NSString connectionID)
      : connectionID_(std::move(connectionID)), message_(isSeen() ? NSUUID::UUID() : NSUUID()) {}

  static bool isSeen() noexcept { return logLevel.load(std::memory_order_relaxed) >= VKTLogLevelProgress; }
  const NSString& connectionID() const noexcept { return connectionID_; }
  // Who has begun to look since the message came has seen no line of it yet.
  NSUUID message() const { return message_ ? message_ : NSUUID::UUID(); }

 private:
  NSString connectionID_;
  NSUUID message_;
};

}  // namespace

const VeltoReplyHandler& emptyReplyHandler() {
  // Never destroyed, since messages may be on their way until the process has ended. The platform knows that it does
  // nothing.
  static const auto& handler = *new VeltoReplyHandler(IgnoredReply<NSDictionary>());
  return handler;
}

VeltoReplyHandler wrapForDelegate(const NSString& connectionID, VeltoReplyHandler incoming) {
  const Label label(connectionID);
  VeltoReplyHandler wrapper = [label, incoming = std::move(incoming)](NSDictionary reply) {
    if (Label::isSeen()) {
      VKTLoggingLog(VKTLogGetAnchor(), 2, "%@_%@ handler called by delegate", label.connectionID(), label.message());
    }
    if (incoming) incoming(std::move(reply));
  };
  if (Label::isSeen()) {
    VKTLoggingLog(VKTLogGetAnchor(), 2, "%@_%@ handler sent to delegate", label.connectionID(), label.message());
  }
  return wrapper;
}

}  // namespace velto
